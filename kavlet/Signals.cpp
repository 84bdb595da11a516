#include "kavlet/Signals.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "base/Log.h"
#include "base/Stop.h"
#include "base/SystemError.h"
#include "kavlet/Kavlet.h"
#include "kavlet/WorkerEnd.h"

namespace {

constexpr const char* kComponent = "Signals";

// The one signal thread of the process (see Signals.h).
std::atomic<bool> quit{false};
pthread_t thread;
bool started = false;

void* signalThread(void* arg) {
  WorkerEnd* end = static_cast<WorkerEnd*>(arg);
  sigset_t set;
  workerSignalSet(&set);
  for (;;) {
    int signal = 0;
    if (sigwait(&set, &signal) != 0) continue;
    if (quit) break;
    if (signal == SIGINT) {
      end->signal(SIGINT);
    } else {
      end->consoleEvent(consoleEventForSignal(signal));
    }
    // Raised after the handler has decided (whether a goodbye is due), since
    // main may end the worker as soon as it sees the request: hashing and
    // Timestamp Server exchanges watch it and give up at once.
    if (signal != SIGHUP) requestStop();
  }
  return nullptr;
}

}  // namespace

void workerSignalSet(sigset_t* set) {
  sigemptyset(set);
  sigaddset(set, SIGINT);
  sigaddset(set, SIGTERM);
  sigaddset(set, SIGQUIT);
  sigaddset(set, SIGHUP);
}

int consoleEventForSignal(int signal) {
  switch (signal) {
    case SIGTERM:
      return kConsoleCloseEvent;
    case SIGQUIT:
      return kConsoleBreakEvent;
    case SIGHUP:
      return kConsoleLogoffEvent;
  }
  return -1;
}

void blockWorkerSignals() {
  sigset_t set;
  workerSignalSet(&set);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int startSignalThread(WorkerEnd* end) {
  Log log(kComponent, "startSignalThread", __FILE__, __LINE__, 13);
  sigset_t set;
  workerSignalSet(&set);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &set, &previous);
  static std::once_flag once;
  std::call_once(once, [&]() {
    int rc = pthread_create(&thread, nullptr, signalThread, end);
    if (rc != 0) {
      log.msg(__LINE__, 2, "cannot start the signal thread: '%s'", systemError(rc).c_str());
      return;
    }
    started = true;
  });
  // Without a thread to take them, blocked signals would never end the
  // worker: leave them as they were.
  if (!started) pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return started ? 1 : 0;
}

void stopSignalThread() {
  if (!started || quit.exchange(true)) return;
  // A hang-up is ignored anyway; sent to the thread itself, it wakes it.
  pthread_kill(thread, SIGHUP);
  pthread_join(thread, nullptr);
}

void Kavlet::installHandlers() {
  Log log("Kavlet", "installHandlers", __FILE__, __LINE__, 13);
  blockWorkerSignals();
}
