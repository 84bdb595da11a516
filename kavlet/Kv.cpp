#include "kavlet/Kv.h"

#include <cstdio>

#include "base/Log.h"
#include "base/Stop.h"
#include "base/String.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Reporter.h"
#include "kavlet/Signals.h"
#include "kvrpc/KVclient.h"
#include "kvrpc/KVprot.h"

// The decisions below are process-wide on purpose: the signal thread makes
// them while the main thread works, and a signal has no object to reach.
std::atomic<int> exitInProgress{0};

namespace {

constexpr const char* kComponent = "(global)";
// KVcodeName's table of result-report codes.
constexpr int kResultReportCodes = 2;
constexpr int kTermSignal = 15;

// Set by a stop signal that asks for the goodbye.
std::atomic<bool> goodbyeAsked{false};
// The exit status a designed entry asked for; -1: none.
std::atomic<int> askedStatus{-1};

void endIfAsked(ToolNext next) {
  if (next == ToolNext::kGoOn) return;
  askedStatus = toolExitStatus(next);
  requestStop();
}

}  // namespace

std::recursive_mutex& kvWorkerLock() {
  // Never destroyed: the signal thread may still wait on it while the
  // process ends.
  static std::recursive_mutex* lock = new std::recursive_mutex;
  return *lock;
}

int finishWorker(std::unique_ptr<Kavlet> worker, int status) {
  kvWorkerLock().lock();  // never released: nothing is served any more
  if (goodbyeAsked && exitInProgress == 0) {
    Log log(kComponent, "sig_handler", __FILE__, __LINE__, 13);
    if (worker) worker->kvClient.KVbye();
    log.msg(__LINE__, 8, "KVbye() ...");
    status = 1;
  } else if (askedStatus >= 0) {
    status = askedStatus;
  }
  stopSignalThread();
  // The summary goes to the worker's log, which ends with the worker.
  reporterFinish();
  worker.reset();
  fflush(nullptr);
  return status;
}

ToolNext Kavlet::onWorkOrder(int order, const char* directory) {
  Log log(kComponent, "callback", __FILE__, __LINE__, 13);
  (void)order;  // the work mode is the tool service's business
  const char* dir = directory ? directory : "";
  std::unique_lock<std::recursive_mutex> hold(kvWorkerLock());
  log.msg(__LINE__, 8, "StartWith '%s'", dir);
  int rc = 0;
  if (stopRequested()) {
    log.msg(__LINE__, 3, "Document '%s' not taken: the worker is stopping", dir);
  } else {
    rc = work(dir);
    log.msg(__LINE__, 8, "Finished: '%s'", dir);
  }
  // A stop ends the service loop; the goodbye follows in finishWorker.
  if (stopRequested()) return ToolNext::kExitError;
  if (rc == 0) return ToolNext::kGoOn;
  String text;
  KVcodeName(rc, kResultReportCodes, text);
  log.msg(__LINE__, 1, "KVop did not succeed, error: %s  ... exiting", text.c_str());
  return ToolNext::kExitError;
}

ToolNext Kavlet::onControlMessage(int code, const char* text, int* reply) {
  Log log(kComponent, "ctrl", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "Got message '%s' with command %d", text ? text : "", code);
  std::lock_guard<std::recursive_mutex> hold(kvWorkerLock());
  if (code == 0) {
    // The KV ordered the exit and forgets this worker itself: no goodbye,
    // no answer.
    exitInProgress = 1;
    log.msg(__LINE__, 8, "That's it for me, I'm exiting ");
    return ToolNext::kExitOk;
  }
  *reply = control(code, text);
  return ToolNext::kGoOn;
}

ToolNext onStopSignal(int signal) {
  Log log(kComponent, "sig_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 3, "Got signal %d, exiting ...", signal);
  if (exitInProgress == 1) {
    log.msg(__LINE__, 8, "exit already in progress, forced by KV -> no work");
    return ToolNext::kGoOn;
  }
  goodbyeAsked = true;
  return ToolNext::kExitError;
}

ToolNext onConsoleEvent(int event) {
  if (event == kConsoleLogoffEvent) return ToolNext::kGoOn;
  Log log(kComponent, "sigwin_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "received Console Control Event 0x%x, exiting", event);
  fflush(stdout);
  fflush(stderr);
  return onStopSignal(kTermSignal);
}

void callback(Kavlet* worker, int order, const char* directory) {
  if (worker == nullptr) {
    Log log(kComponent, "callback", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 1, "Internal error ... exiting");
    goodbyeAsked = true;  // said by finishWorker, through the worker's client
    endIfAsked(ToolNext::kExitError);
    return;
  }
  endIfAsked(worker->onWorkOrder(order, directory));
}

int ctrl(Kavlet* worker, int code, const char* text) {
  int reply = 1;
  if (worker != nullptr) endIfAsked(worker->onControlMessage(code, text, &reply));
  return reply;
}

void sig_handler(int signal) { endIfAsked(onStopSignal(signal)); }

int sigwin_handler(int event) {
  endIfAsked(onConsoleEvent(event));
  return 1;
}
