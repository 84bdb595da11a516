#include "kvrpc/ToolService.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/Log.h"
#include "kvrpc/KVprot.h"
#include "kvrpc/KvSenders.h"
#include "rpc/Svc.h"
#include "rpc/SvcUdp.h"

namespace {

// Source file names in messages carry no directory.
const char* baseName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace

ToolNext ToolService::DefaultHandler::onWorkOrder(int number, const char* text) {
  DefaultWorker(number, text);
  return ToolNext::kGoOn;
}

ToolNext ToolService::DefaultHandler::onControlMessage(int code, const char* text, int*) {
  return DefaultCtrl(code, text);
}

void ToolService::decide(ToolNext next) {
  if (next == ToolNext::kGoOn) return;
  next_ = next;
  terminateSvcrun(rpc_);
}

int ToolOrderPort(const char* text) {
  if (text == nullptr || *text == '\0') return 0;
  if (*text < '0' || *text > '9') return -1;  // strtol would pass blanks and signs
  char* end = nullptr;
  errno = 0;
  long port = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || port < 0 || port > 65535) return -1;
  return static_cast<int>(port);
}

int ToolService::create(int protocol, KvSenders* senders, const char* orderPort) {
  Log log("ToolService", "ToolCreateService", __FILE__, __LINE__, 13);

  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(INADDR_ANY);
  // A fixed port lets a firewall rule for the KV's orders stay narrow.
  const char* fixed = orderPort;
  int port = ToolOrderPort(fixed);
  if (port < 0) {
    log.msg(__LINE__, 2, "KV_ORDER_PORT '%s' is no UDP port from 0 to 65535, using any free port",
            fixed);
    port = 0;
  }
  v4.sin_port = htons(static_cast<uint16_t>(port));
  SVCXPRT* xprt = svcudp_create(rpc_, &v4);
  if (xprt == nullptr) {
    log.msg(__LINE__, port == 0 ? 5 : 2, "cannot create socket%s%s",
            port == 0 ? "" : " on KV_ORDER_PORT ", port == 0 ? "" : fixed);
    return -1;
  }
  if (!svc_register(xprt, TOOLPROG, TOOLVERS, dispatch, protocol, this)) {
    log.msg(__LINE__, 5, "cannot register Tool service");
    svc_destroy(xprt);
    return -1;
  }
  svc_set_sender_check(xprt, ToolSenderCheck, senders);
  v4_ = xprt;
  port_ = xprt->xp_port;
  log.msg(__LINE__, 8, "ToolCreateService on port %d", port_);
  socket_ = xprt->xp_sock;
  socketMask_ |= 1u << (xprt->xp_sock % 32);

  // IPv6 is optional: a host without it is served on IPv4 alone.
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_any;
  v6.sin6_port = htons(port_);
  SVCXPRT* xprt6 = svcudp_create(rpc_, &v6);
  if (xprt6 == nullptr) {
    log.msg(__LINE__, 5,
            "Can`t create service for IPV6, the call of function svcudp_create() failed: '%s'",
            strerror(errno));
  } else if (!svc_register(xprt6, TOOLPROG, TOOLVERS, dispatch, protocol, this)) {
    log.msg(__LINE__, 8, "cannot register Tool service");
  } else {
    svc_set_sender_check(xprt6, ToolSenderCheck, senders);
    v6_ = xprt6;
  }
  return socket_;
}

void ToolService::dispatch(svc_req* request, SVCXPRT* transport) {
  static_cast<ToolService*>(request->rq_context)->handle(request->rq_proc, transport);
}

void ToolService::handle(u_long proc, SVCXPRT* transport) {
  Log log("ToolService", "ToolDispatch", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "ToolDispatch %d", static_cast<int>(proc));
  // The process is ending: a request that came with the one that ended it
  // is left unanswered, as it would be by a process that is gone.
  if (next_ != ToolNext::kGoOn) return;
  if (proc > TOOLPROC_INFO) {
    svcerr_noproc(transport);
    return;
  }
  order_kl order{};
  if (!svc_getargs(transport, xdr_proc<xdr_order_kl>, &order)) {
    log.msg(__LINE__, 5, "cannot decode arguments");
    svcerr_decode(transport);
    // A decode that failed late (say, in a string's padding) has already
    // allocated the string.
    svc_freeargs(transport, xdr_proc<xdr_order_kl>, &order);
    return;
  }
  log.msg(__LINE__, 9, "%d(%d, \"%s\")", static_cast<int>(proc), order.number,
          order.text ? order.text : "NULL");

  switch (proc) {
    case TOOLPROC_NULL:
      svc_sendreply(transport, xdr_proc<xdr_void>, nullptr);
      break;
    case TOOLPROC_WORK: {
      // The acknowledgement goes out before the work: the KV's call returns at
      // once and the result travels later by KVop. An order we could not
      // acknowledge is left alone, because the KV sends it again.
      int ack = 1;
      if (!svc_sendreply(transport, xdr_proc<xdr_int>, &ack)) {
        log.msg(__LINE__, 5,
                "ToolDispatch: cannot reply; so we don't work on document '%s'; the KV will "
                "retry this order",
                order.text ? order.text : "NULL");
        break;
      }
      ToolNext next = handler_->onWorkOrder(order.number, order.text);
      log.msg(__LINE__, 9, "%s %d worker returns", baseName(__FILE__), __LINE__);
      // Mode 2 is the KV's last order for this worker.
      if (next == ToolNext::kGoOn && order.number == 2) next = ToolNext::kExitOk;
      decide(next);
      break;
    }
    case TOOLPROC_CTRL: {
      int result = 0;
      ToolNext next = handler_->onControlMessage(order.number, order.text, &result);
      if (next != ToolNext::kGoOn) {
        decide(next);  // ends before it answers
        break;
      }
      if (!svc_sendreply(transport, xdr_proc<xdr_int>, &result)) {
        log.msg(__LINE__, 5, "ToolDisiggh gfghpatch: cannot reply");
      }
      break;
    }
    case TOOLPROC_INFO:
      // Information messages are one-way: no reply, not even an empty one.
      if (info_ != nullptr) {
        info_->onInfoMessage(order.text, order.number);
      } else {
        svcerr_noproc(transport);
      }
      break;
  }
  svc_freeargs(transport, xdr_proc<xdr_order_kl>, &order);
}

void DefaultWorker(int number, const char* text) {
  Log log("ToolService", "DefaultWorker", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 5, "DefaultWorker(%d, '%s')", number, text ? text : "NULL");
}

ToolNext DefaultCtrl(int number, const char* text) {
  Log log("ToolService", "DefaultCtrl", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 5, "DefaultCtrl(%d,'%s')", number, text ? text : "NULL");
  return ToolNext::kExitOk;
}

ToolNext ToolService::serve() {
  svc_run(rpc_);
  return takeNext();
}

void ToolService::stop() { terminateSvcrun(rpc_); }

ToolNext ToolService::takeNext() {
  ToolNext next = next_;
  next_ = ToolNext::kGoOn;
  return next;
}

void ToolService::setHandler(ToolHandler* handler) {
  handler_ = handler != nullptr ? handler : &defaultHandler_;
}
