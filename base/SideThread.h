// SideThread: one thread kept for the life of the process that runs a job
// beside the caller, for jobs too short to pay for a thread of their own
// (starting and ending a thread costs more than a sync on a fast file
// system).
//
//   SideThread& side = SideThread::instance();
//   bool aside = side.start([&] { syncDirectory(); });
//   if (!aside) syncDirectory();        // no thread to be had
//   writeProtocol();
//   if (aside) side.wait();
//
// One caller thread (the one that does the documents) hands over one job at
// a time and waits for it.
#ifndef BASE_SIDETHREAD_H_
#define BASE_SIDETHREAD_H_

#include <condition_variable>
#include <functional>
#include <mutex>

class SideThread {
 public:
  static SideThread& instance();

  // Hands job to the thread (started on first use): true, or false when no
  // thread could be started; the job has then not run.
  bool start(std::function<void()> job);
  // Blocks until the job handed over by start has run.
  void wait();

 private:
  SideThread() = default;
  void loop();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::function<void()> job_;
  bool pending_ = false;
  bool running_ = false;
};

#endif  // BASE_SIDETHREAD_H_
