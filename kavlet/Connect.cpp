// Connecting to the KV: test mode or registration, then the RPC service
// loop, which is the worker's main loop.
#include <cstdint>
#include <mutex>

#include "base/Log.h"
#include "base/Stop.h"
#include "base/Metrics.h"
#include "base/ServiceNotify.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Signals.h"
#include "kvrpc/KVclient.h"
#include "kvrpc/ToolService.h"

namespace {

// Hands a configured KV port to the client calls; 0 or less keeps their
// default (KVPORT or 4032). The port travels as an unsigned 16-bit value,
// so a larger one is taken modulo 65536, as -P and KVPORT always were.
void setKvPort(KvClient* kv, int port) {
  if (port <= 0) return;
  kv->KVSetPort(static_cast<uint16_t>(port));
}

}  // namespace

int Kavlet::connectKV() {
  Log log("Kavlet", "connectKV", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "Version: '%s'", "TEST");
  if (checkBeforeConnect() == 0) return 0;
  return connectToKV(this);
}

int Kavlet::connectKVForService() {
  Log log("Kavlet", "connectKVForService", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "Version: '%s'", "TEST");
  if (checkBeforeConnect() == 0) return 0;
  return connectToKVForService(this);
}

int Kavlet::connectToKV(ToolHandler* handler) {
  Log log("Kavlet", "connectToKV", __FILE__, __LINE__, 13);
  if (!testCount.empty()) {
    log.msg(__LINE__, 8, "using Test option");
    service::notifyReady();
    return test();
  }
  startSignalThread(&end_);
  setKvPort(&kvClient, kvPort);
  if (callKVhi(handler, kvHost.c_str(), 0) < 0 || stopRequested()) return 0;
  return run() == ToolNext::kExitOk ? 1 : 0;
}

int Kavlet::connectToKVForService(ToolHandler* handler) {
  Log log("Kavlet", "connectToKVForService", __FILE__, __LINE__, 13);
  if (!testCount.empty()) {
    log.msg(__LINE__, 8, "using Test option");
    service::notifyReady();
    return test();
  }
  startSignalThread(&end_);
  setKvPort(&kvClient, kvPort);
  int rc = callKVhi(handler, kvHost.c_str(), 1);
  // Exit code 1 is the result 0 (main's mapping); the others stand for themselves.
  if (rc < 0) return rc == -1 ? 0 : -rc;
  // Held so that a signal waits for the service and its goodbye.
  std::lock_guard<std::recursive_mutex> hold(end_.lock());
  int result = service(nullptr);
  kvClient.KVbye();
  return result;
}

int Kavlet::callKVhi(ToolHandler* handler, const char* host, int forService) {
  Log log("Kavlet", "callKVhi", __FILE__, __LINE__, 13);
  // A signal during the registration waits for it, then says goodbye: the
  // goodbye must not run on the client state KVhi is filling in.
  std::lock_guard<std::recursive_mutex> hold(end_.lock());
  int rc = kvClient.KVhi(host, type.c_str(), handler);
  KVtarget kv = kvClient.KVlastTarget();
  if (rc >= 0) {
    log.msg(__LINE__, 3, "registered with the KV at %s port %u as type '%s', orders to port %u",
            kv.host.empty() ? host : kv.host.c_str(), kv.port, type.c_str(),
            kvClient.service().port());
    reporter_.start(true, env_.get("CLOCKETTE_METRICS_FILE"));
    metrics_.setRegistered(true);
    service::notifyReady();
    return rc;
  }
  int code = 1;
  switch (rc) {
    case kKvOwnAddressUnknown:
      break;  // told by the address look-up
    case -1:
      log.msg(__LINE__, 3,
              "Kavlet(%s) registration has *** not *** been accepted (already registered or not "
              "in configuration file)",
              name.c_str());
      break;
    case -2:
      log.msg(__LINE__, 1, "Sorry, host where KV is running is *** not *** reachable");
      log.msgc("KV host '%s', port %u: %s", kv.host.c_str(), kv.port, kv.resolverError.c_str());
      code = 2;
      break;
    case -3:
      log.msg(__LINE__, 1, "Timeout for KV host");
      log.msgc("KV host '%s', port %u did not answer", kv.host.c_str(), kv.port);
      code = 3;
      break;
    case -4:
      log.msg(__LINE__, 1, "Error during KV registration: clntudp_create() failed");
      code = 4;
      break;
    case -5:
      log.msg(__LINE__, 1, "Error during KV registration: svcudp_create() failed");
      code = 5;
      break;
    default:
      log.msg(__LINE__, 1, "Connection to KV failed: KVhi() error");
      code = -rc;
      break;
  }
  // The serving variant only tells that it could not start; the one-shot
  // variant tells why.
  return -(forService ? code : 1);
}

ToolNext Kavlet::run() {
  Log log("Kavlet", "run", __FILE__, __LINE__, 13);
  return kvClient.service().serve();
}
