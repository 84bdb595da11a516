// SideBySide: the worker processes of test mode's -jobs, which work on
// documents side by side while the lines keep the order of a run one after
// the other.
//
// The one rule of this process model: the workers are forked before the
// process starts any thread. A child forked from a process with threads
// inherits every lock those threads held (the allocator's, the log's, a
// library's) with no thread left to release it; forking first makes every
// process an ordinary single-threaded one that then starts its own threads
// (its signal thread, the side threads of hashing and requests). start
// checks the rule and refuses to fork when it is broken. Each worker renews
// its stop request (base/Stop.h) so that a stop of one process leaves the
// others alone, and counts into the worker's Metrics (base/Metrics.h), whose
// counters every process shares: the parent writes the summary and the file
// from them.
//
// How the processes end: a stop of the parent (a signal) is passed on to
// every worker as SIGTERM and the parent waits for them; a worker's own stop
// ends it after the document in hand; a worker whose parent dies gets
// SIGTERM from the kernel (PR_SET_PDEATHSIG) and stops, and an idle one also
// sees its order socket close.
#ifndef KAVLET_SIDEBYSIDE_H_
#define KAVLET_SIDEBYSIDE_H_

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <vector>

class SideBySide {
 public:
  SideBySide() = default;
  SideBySide(const SideBySide&) = delete;
  SideBySide& operator=(const SideBySide&) = delete;
  // In the parent: closes the order sockets and waits for every worker.
  ~SideBySide();

  // Forks jobs workers (fewer when a fork fails). false when none could be
  // started, or when the process already runs a thread besides the caller.
  // Returns in the parent and in each worker; inWorker() tells which.
  bool start(int jobs);
  bool inWorker() const { return inWorker_; }

  // In a worker: takes document numbers and answers work(number) for each,
  // until the parent closes the socket or a stop is requested. work runs
  // while the caller's lock is held (see kavlet/Kv.h), so that a stop waits
  // for the document in hand.
  void serve(const std::function<int(size_t)>& work);

  // In the parent: hands the documents 0..total-1 to the workers and calls
  // done(number, result) in number order as soon as a result and all before
  // it are known (result 1 done, 0 failed). A worker that dies takes its
  // document with it (failed); one that stops gives back what it has not
  // started, for the others. On a stop request the workers get SIGTERM,
  // no further document is handed out and run returns once every worker is
  // gone; documents without a result are not passed to done. false when a
  // worker died or a stop ended the run.
  bool run(size_t total, const std::function<void(size_t, int)>& done);

 private:
  struct Worker {
    pid_t pid = -1;
    int fd = -1;  // orders out, {number, result} back
    bool busy = false;
  };
  void waitForAll();

  std::vector<Worker> workers_;
  bool inWorker_ = false;
  int channel_ = -1;  // in a worker: its end of the socket
};

#endif  // KAVLET_SIDEBYSIDE_H_
