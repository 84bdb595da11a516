#include "kavlet/Kv.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/Log.h"
#include "base/Stop.h"
#include "base/String.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Reporter.h"
#include "kvrpc/KVclient.h"
#include "kvrpc/KVprot.h"

std::atomic<int> exitInProgress{0};

namespace {

constexpr const char* kComponent = "(global)";
// KVcodeName's table of result-report codes.
constexpr int kResultReportCodes = 2;
constexpr int kTermSignal = 15;

}  // namespace

std::recursive_mutex& kvWorkerLock() {
  // Never destroyed: the signal thread may still wait on it while the
  // process ends.
  static std::recursive_mutex* lock = new std::recursive_mutex;
  return *lock;
}

void callback(int order, const char* directory) {
  Log log(kComponent, "callback", __FILE__, __LINE__, 13);
  (void)order;  // the work mode is the tool service's business
  const char* dir = directory ? directory : "";
  std::unique_lock<std::recursive_mutex> hold(kvWorkerLock());
  log.msg(__LINE__, 8, "StartWith '%s'", dir);
  if (theKavlet == nullptr) {
    log.msg(__LINE__, 1, "Internal error ... exiting");
    KVbye();
    exit(1);
  }
  int rc = 0;
  if (stopRequested()) {
    log.msg(__LINE__, 3, "Document '%s' not taken: the worker is stopping", dir);
  } else {
    rc = theKavlet->work(dir);
    log.msg(__LINE__, 8, "Finished: '%s'", dir);
  }
  if (stopRequested()) {
    // The signal thread says goodbye and ends the process as soon as it
    // holds the lock; this thread must not take another order meanwhile.
    hold.unlock();
    for (;;) pause();
  }
  if (rc == 0) return;
  String text;
  KVcodeName(rc, kResultReportCodes, text);
  log.msg(__LINE__, 1, "KVop did not succeed, error: %s  ... exiting", text.c_str());
  delete theKavlet;
  exit(1);
}

int ctrl(int code, const char* text) {
  Log log(kComponent, "ctrl", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "Got message '%s' with command %d", text ? text : "", code);
  std::lock_guard<std::recursive_mutex> hold(kvWorkerLock());
  if (code == 0) {
    exitInProgress = 1;
    log.msg(__LINE__, 8, "That's it for me, I'm exiting ");
    delete theKavlet;
    // The KV ordered the exit and forgets this worker itself: no goodbye, no
    // exit handlers. Only what is already written is flushed.
    reporterFinish();
    Log::flush();
    fflush(stdout);
    _exit(0);
  }
  if (theKavlet == nullptr) return 1;
  return theKavlet->control(code, text);
}

void sig_handler(int signal) {
  Log log(kComponent, "sig_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 3, "Got signal %d, exiting ...", signal);
  if (exitInProgress == 1) {
    log.msg(__LINE__, 8, "exit already in progress, forced by KV -> no work");
    return;
  }
  // Waits for the order or control message in hand (see Kv.h); never
  // released: the process ends while holding it.
  kvWorkerLock().lock();
  if (exitInProgress == 1) {
    kvWorkerLock().unlock();
    log.msg(__LINE__, 8, "exit already in progress, forced by KV -> no work");
    return;
  }
  KVbye();
  log.msg(__LINE__, 8, "KVbye() ...");
  delete theKavlet;
  // The main thread may still sit in the service loop: running the exit
  // handlers and static destructors under it could let a late request reach
  // torn-down state. The output is flushed and the process ends here.
  reporterFinish();
  Log::flush();
  fflush(nullptr);
  _exit(1);
}

int sigwin_handler(int event) {
  if (event == kConsoleLogoffEvent) return 1;
  Log log(kComponent, "sigwin_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "received Console Control Event 0x%x, exiting", event);
  fflush(stdout);
  fflush(stderr);
  sig_handler(kTermSignal);
  return 1;
}
