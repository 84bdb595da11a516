// OrderedWork: runs the tasks 0..count-1 on a few threads and hands them back
// in their order, so that a caller can start slow independent jobs together
// (network round trips) and still apply their results one after the other.
//
//   OrderedWork work(files.size(), 8, [&](size_t i) { fetch(&files[i]); });
//   for (size_t i = 0; i < files.size(); ++i) {
//     work.waitFor(i);
//     if (!apply(files[i])) return;   // later tasks: dropped, never started
//   }
//
// Tasks are started in index order, at most `threads` at a time. With one
// thread (or one task) no thread is made: waitFor(i) runs task i on the
// caller's thread, so the tasks run strictly one after the other, each only
// when its turn has come. Tasks must not throw.
//
// Owned by one thread (the caller); only the tasks run elsewhere.
#ifndef BASE_ORDEREDWORK_H_
#define BASE_ORDEREDWORK_H_

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class OrderedWork {
 public:
  OrderedWork(size_t count, int threads, std::function<void(size_t)> task);
  // Drops the tasks that have not started and waits for those running.
  ~OrderedWork();
  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;

  // Blocks until task i has run. false when it was dropped by dropFrom or i
  // is out of range.
  bool waitFor(size_t i);
  // Tasks from index first on that have not started yet never will.
  void dropFrom(size_t first);

 private:
  void runTasks();

  const size_t count_;
  std::function<void(size_t)> task_;
  std::mutex mutex_;
  std::condition_variable finished_;
  size_t next_ = 0;  // the next task to start
  size_t limit_;     // tasks from here on are dropped
  std::vector<char> done_;
  std::vector<std::thread> threads_;
};

#endif  // BASE_ORDEREDWORK_H_
