// WorkerEnd: how one worker ends. The KV's exit order, stop signals and
// console events each decide what happens next (ToolNext); what they decided
// (the exit order in progress, the goodbye asked for, the exit status asked
// for) waits here until main ends the worker (finishWorker, kavlet/Kv.h).
// Nothing here ends the process.
//
// The Kavlet owns its WorkerEnd. The signal thread (kavlet/Signals.h) is
// handed it when it starts and reaches it only until finishWorker stops the
// thread, before the worker goes; so the decisions are atomics, taken from
// any thread.
//
// The worker lock is held by the main thread while it registers, works on an
// order or handles a control message, and by finishWorker while it says the
// goodbye: so KVbye never runs on the KV client's state at the same time as
// KVhi or KVop. Recursive, so that a handler called on a thread that already
// holds it does not deadlock.
#ifndef KAVLET_WORKEREND_H_
#define KAVLET_WORKEREND_H_

#include <atomic>
#include <mutex>

#include "kvrpc/ToolHandler.h"

// Console control events, as the signal thread maps the signals to them.
constexpr int kConsoleBreakEvent = 1;   // SIGQUIT
constexpr int kConsoleCloseEvent = 2;   // SIGTERM
constexpr int kConsoleLogoffEvent = 5;  // SIGHUP

class WorkerEnd {
 public:
  WorkerEnd() = default;
  WorkerEnd(const WorkerEnd&) = delete;
  WorkerEnd& operator=(const WorkerEnd&) = delete;

  // The KV ordered the exit: a signal then only logs, and no goodbye is said.
  void orderExit() { exitInProgress_ = true; }
  bool exitInProgress() const { return exitInProgress_; }

  // A stop signal: asks for the goodbye and exit status 1 (kExitError; the
  // caller raises the stop request), unless the KV's exit order is already
  // being carried out (kGoOn: only logged).
  ToolNext onStopSignal(int signal);
  // A console event: the log-off event is ignored (kGoOn, not logged); any
  // other is the stop signal 15.
  ToolNext onConsoleEvent(int event);

  // The signal thread's entries: the decisions above, and an end they ask for
  // (see endIfAsked).
  void signal(int signal) { endIfAsked(onStopSignal(signal)); }
  void consoleEvent(int event) { endIfAsked(onConsoleEvent(event)); }

  // Asks for the goodbye without a signal (an internal error).
  void askGoodbye() { goodbyeAsked_ = true; }
  // An end that next asks for raises the stop request (base/Stop.h) and
  // becomes the exit status; kGoOn changes nothing.
  void endIfAsked(ToolNext next);

  // Whether the goodbye is due: asked for, and the KV did not order the exit.
  bool goodbyeDue() const { return goodbyeAsked_ && !exitInProgress_; }
  // The exit status an end asked for; -1: none.
  int askedStatus() const { return askedStatus_; }

  // The worker lock described above.
  std::recursive_mutex& lock() { return lock_; }

 private:
  std::atomic<bool> exitInProgress_{false};
  std::atomic<bool> goodbyeAsked_{false};
  std::atomic<int> askedStatus_{-1};
  std::recursive_mutex lock_;
};

#endif  // KAVLET_WORKEREND_H_
