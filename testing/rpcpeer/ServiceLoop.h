// Test helper: a UDP service of the test program on 127.0.0.1, in a service
// of its own, whose loop (svc_run) runs on a background thread, as the
// worker runs it on its main thread.
#ifndef TESTING_RPCPEER_SERVICELOOP_H_
#define TESTING_RPCPEER_SERVICELOOP_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "rpc/Clnt.h"
#include "rpc/Svc.h"
#include "rpc/SvcUdp.h"
#include "testing/rpcpeer/TestProg.h"

namespace rpc_test {

inline bool_t xdrPair(XDR* x, int* p) { return xdr_int(x, &p[0]) && xdr_int(x, &p[1]); }

// Asks the service behind cl for a + b.
inline clnt_stat callAdd(CLIENT* cl, int a, int b, int* sum, timeval total = {3, 0}) {
  int ab[2] = {a, b};
  return clnt_call(cl, TESTPROC_ADD, xdr_proc<xdrPair>, ab, xdr_proc<xdr_int>, sum, total);
}

// NULL, ADD (int, int -> sum), ECHO (string -> string), 3: SYSTEM_ERR, else PROC_UNAVAIL.
inline void testDispatch(svc_req* rq, SVCXPRT* xprt) {
  switch (rq->rq_proc) {
    case TESTPROC_NULL:
      svc_sendreply(xprt, xdr_proc<xdr_void>, nullptr);
      return;
    case TESTPROC_ADD: {
      int ab[2] = {0, 0};
      if (!svc_getargs(xprt, xdr_proc<xdrPair>, ab)) {
        svcerr_decode(xprt);
        return;
      }
      int sum = ab[0] + ab[1];
      svc_sendreply(xprt, xdr_proc<xdr_int>, &sum);
      return;
    }
    case TESTPROC_ECHO: {
      char* text = nullptr;
      if (!svc_getargs(xprt, xdr_proc<xdr_wrapstring>, &text)) {
        svcerr_decode(xprt);
        return;
      }
      svc_sendreply(xprt, xdr_proc<xdr_wrapstring>, &text);
      svc_freeargs(xprt, xdr_proc<xdr_wrapstring>, &text);
      return;
    }
    case 3:
      svcerr_systemerr(xprt);
      return;
    default:
      svcerr_noproc(xprt);
  }
}

class ServiceLoop {
 public:
  ServiceLoop() {
    sockaddr_in a = UdpSocket::loopback(0);
    xprt_ = svcudp_create(service_, &a);
    if (xprt_) svc_register(xprt_, TESTPROG, TESTVERS, testDispatch, 17);
  }
  ~ServiceLoop() { stop(); }
  ServiceLoop(const ServiceLoop&) = delete;
  ServiceLoop& operator=(const ServiceLoop&) = delete;

  RpcService& service() { return service_; }
  SVCXPRT* xprt() const { return xprt_; }
  int port() const { return xprt_->xp_port; }

  void start() {
    done_ = false;
    thread_ = std::thread([this] {
      svc_run(service_);
      done_ = true;
    });
  }
  bool done() const { return done_; }
  // The loop's thread, for signalling it.
  std::thread::native_handle_type thread() { return thread_.native_handle(); }
  // Ends the loop: terminateSvcrun, then a datagram to wake its select.
  void stop() {
    if (!thread_.joinable()) return;
    UdpSocket waker;
    for (int i = 0; i < 250 && !done_; ++i) {
      terminateSvcrun(service_);
      waker.sendTo({0, 0, 0, 0}, UdpSocket::loopback(port()));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    thread_.join();
  }
  // A client of the test program at this service.
  ClientPtr client(u_long prog = TESTPROG, u_long vers = TESTVERS) const {
    sockaddr_in a = UdpSocket::loopback(port());
    int sock = RPC_ANYSOCK;
    return ClientPtr(clntudp_create(&a, prog, vers, {1, 0}, &sock));
  }

 private:
  RpcService service_;
  SVCXPRT* xprt_ = nullptr;
  std::thread thread_;
  std::atomic<bool> done_{true};
};

}  // namespace rpc_test

#endif  // TESTING_RPCPEER_SERVICELOOP_H_
