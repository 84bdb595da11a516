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

namespace {

constexpr const char* kComponent = "(global)";
// KVcodeName's table of result-report codes.
constexpr int kResultReportCodes = 2;

}  // namespace

int finishWorker(std::unique_ptr<Kavlet> worker, int status) {
  if (worker) {
    WorkerEnd& end = worker->workerEnd();
    // Nothing is served any more; held until the worker (and its lock) goes.
    std::unique_lock<std::recursive_mutex> hold(end.lock());
    if (end.goodbyeDue()) {
      Log log(kComponent, "sig_handler", __FILE__, __LINE__, 13);
      worker->kvClient.KVbye();
      log.msg(__LINE__, 8, "KVbye() ...");
      status = 1;
    } else if (end.askedStatus() >= 0) {
      status = end.askedStatus();
    }
    stopSignalThread();
    worker->reporter().finish();  // to the worker's log, which ends with the worker
    hold.unlock();
    worker.reset();
  } else {
    stopSignalThread();
  }
  fflush(nullptr);
  return status;
}

ToolNext Kavlet::onWorkOrder(int order, const char* directory) {
  Log log(kComponent, "callback", __FILE__, __LINE__, 13);
  (void)order;  // the work mode is the tool service's business
  const char* dir = directory ? directory : "";
  std::unique_lock<std::recursive_mutex> hold(end_.lock());
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
  std::lock_guard<std::recursive_mutex> hold(end_.lock());
  if (code == 0) {
    // The KV ordered the exit and forgets this worker itself: no goodbye,
    // no answer.
    end_.orderExit();
    log.msg(__LINE__, 8, "That's it for me, I'm exiting ");
    return ToolNext::kExitOk;
  }
  *reply = control(code, text);
  return ToolNext::kGoOn;
}

void callback(Kavlet* worker, int order, const char* directory) {
  if (worker == nullptr) {
    Log log(kComponent, "callback", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 1, "Internal error ... exiting");
    requestStop();
    return;
  }
  worker->workerEnd().endIfAsked(worker->onWorkOrder(order, directory));
}

int ctrl(Kavlet* worker, int code, const char* text) {
  int reply = 1;
  if (worker != nullptr) {
    worker->workerEnd().endIfAsked(worker->onControlMessage(code, text, &reply));
  }
  return reply;
}
