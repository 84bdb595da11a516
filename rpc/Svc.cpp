#include "rpc/Svc.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "base/Log.h"
#include "base/Stop.h"
#include "rpc/RpcMsg.h"

namespace {

const char kComponent[] = "svc";

using Callout = RpcService::Callout;

Callout* findCallout(RpcService& svc, u_long prog, u_long vers) {
  for (Callout& c : svc.callouts)
    if (c.prog == prog && c.vers == vers) return &c;
  return nullptr;
}

bool_t reply(SVCXPRT* xprt, const rpc_reply_parts& parts) {
  return xprt->xp_ops->xp_reply(xprt, &parts);
}

void acceptedError(SVCXPRT* xprt, accept_stat astat) {
  rpc_reply_parts parts;
  parts.astat = astat;
  reply(xprt, parts);
}

// Logs why a descriptor of the read set made select fail.
void checkReadSet(const fd_set& set, int maxsock) {
  for (int fd = 0; fd < maxsock; ++fd) {
    if (!FD_ISSET(fd, &set)) continue;
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
      c_logmsg(kComponent, 2, "FD%d closed meanwhile in %s", fd, "readfds");
      continue;
    }
    int type = 0;
    socklen_t len = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) < 0)
      c_logmsg(kComponent, 2, "bad FD%d set in %s", fd, "readfds");
  }
}

}  // namespace

RpcService::RpcService() : xports{} { FD_ZERO(&fdset); }

RpcService::~RpcService() {
  for (SVCXPRT*& xprt : xports) {
    if (xprt == nullptr) continue;
    SVCXPRT* gone = xprt;
    xprt = nullptr;
    gone->xp_ops->xp_destroy(gone);
  }
}

bool_t svc_register(SVCXPRT* xprt, u_long prog, u_long vers, svc_dispatch_t dispatch, u_long,
                    void* context) {
  // The protocol is not announced anywhere: there is no port mapper.
  RpcService& svc = *xprt->xp_svc;
  if (Callout* c = findCallout(svc, prog, vers))
    return c->dispatch == dispatch && c->context == context ? TRUE : FALSE;
  svc.callouts.push_back(Callout{prog, vers, dispatch, context});
  return TRUE;
}

void svc_unregister(RpcService& svc, u_long prog, u_long vers) {
  auto& list = svc.callouts;
  for (auto it = list.begin(); it != list.end(); ++it) {
    if (it->prog == prog && it->vers == vers) {
      list.erase(it);
      return;
    }
  }
}

void xprt_register(SVCXPRT* xprt) {
  const int sock = xprt->xp_sock;
  if (sock < 0) return;
  if (sock >= NOFILE) {
    c_logmsg(kComponent, 2, "exceeded NOFILE=%d!!", NOFILE);
    c_logmsg(kComponent, 10, "close FD%d", sock);
    close(sock);
    xprt->xp_sock = -1;
    return;
  }
  RpcService& svc = *xprt->xp_svc;
  svc.xports[sock] = xprt;
  c_logmsg(kComponent, 10, "set FD%d", sock);
  FD_SET(sock, &svc.fdset);
  if (sock + 1 > svc.maxsock) svc.maxsock = sock + 1;
}

void xprt_unregister(SVCXPRT* xprt) {
  const int sock = xprt->xp_sock;
  RpcService& svc = *xprt->xp_svc;
  if (sock < 0 || sock >= NOFILE || svc.xports[sock] != xprt) return;
  svc.xports[sock] = nullptr;
  c_logmsg(kComponent, 10, "clr FD%d", sock);
  FD_CLR(sock, &svc.fdset);
  while (svc.maxsock > 0 && svc.xports[svc.maxsock - 1] == nullptr) --svc.maxsock;
}

SVCXPRT* svc_xprt_of(const RpcService& svc, int fd) {
  return fd >= 0 && fd < NOFILE ? svc.xports[fd] : nullptr;
}

void svc_destroy(SVCXPRT* xprt) {
  if (xprt == nullptr) return;
  xprt_unregister(xprt);
  xprt->xp_ops->xp_destroy(xprt);
}

void svc_set_sender_check(SVCXPRT* xprt, svc_sender_check_t check, void* context) {
  xprt->xp_check = check;
  xprt->xp_check_context = context;
}

void svc_run(RpcService& svc) {
  svc.running = true;
  while (svc.running && !stopRequested()) {
    fd_set readfds = svc.fdset;
    c_logmsg(kComponent, 10, "before select %lx, maxSock=%d",
             static_cast<unsigned long>(readfds.fds_bits[0]), svc.maxsock);
    // A stop request wakes the loop, which then ends.
    const int wake = stopWakeFd();
    bool watchStop = wake >= 0 && wake < FD_SETSIZE;
    if (watchStop) FD_SET(wake, &readfds);
    const int n = select(watchStop ? std::max(svc.maxsock, wake + 1) : svc.maxsock, &readfds,
                         nullptr, nullptr, nullptr);
    if (n < 0) {
      if (errno == EINTR) continue;
      perror("svc: - Select failed");
      checkReadSet(svc.fdset, svc.maxsock);
      break;
    }
    if (n == 0) continue;
    if (watchStop && FD_ISSET(wake, &readfds)) {
      FD_CLR(wake, &readfds);
      if (stopRequested()) break;
    }
    c_logmsg(kComponent, 10, "after select %lx", static_cast<unsigned long>(readfds.fds_bits[0]));
    svc_getreqset(svc, &readfds);
  }
}

void terminateSvcrun(RpcService& svc) {
  c_logmsg(kComponent, 10, "terminate on JVM exit");
  svc.running = false;
}

void svc_getreqset(RpcService& svc, fd_set* readfds) {
  const int limit = svc.maxsock;
  for (int fd = 0; fd < limit; ++fd)
    if (FD_ISSET(fd, readfds)) svc_getreq_common(svc, fd);
}

void svc_getreq_common(RpcService& svc, int fd) {
  SVCXPRT* xprt = svc_xprt_of(svc, fd);
  if (xprt == nullptr) return;
  rpc_call_hdr hdr;
  if (!xprt->xp_ops->xp_recv(xprt, &hdr)) return;
  if (xprt->xp_check != nullptr && !xprt->xp_check(xprt)) return;
  svc_dispatch_request(xprt, &hdr);
}

void svc_dispatch_request(SVCXPRT* xprt, rpc_call_hdr* hdr) {
  xprt->xp_xid = hdr->xid;
  if (hdr->rpcvers != RPC_MSG_VERSION) {
    rpc_reply_parts parts;
    parts.stat = MSG_DENIED;
    parts.rstat = RPC_MISMATCH;
    parts.low = parts.high = RPC_MSG_VERSION;
    reply(xprt, parts);
    return;
  }
  const enum_t flavor = hdr->cred.oa_flavor;
  if (flavor != AUTH_NONE && flavor != AUTH_SYS && flavor != AUTH_SHORT) {
    svcerr_auth(xprt, AUTH_REJECTEDCRED);
    return;
  }
  RpcService& svc = *xprt->xp_svc;
  if (Callout* c = findCallout(svc, hdr->prog, hdr->vers)) {
    svc_req req;
    req.rq_prog = hdr->prog;
    req.rq_vers = hdr->vers;
    req.rq_proc = hdr->proc;
    req.rq_cred = hdr->cred;
    req.rq_xprt = xprt;
    req.rq_context = c->context;
    c->dispatch(&req, xprt);
    return;
  }
  // The program is known in other versions: tell the caller which.
  bool progFound = false;
  u_long low = ~0ul, high = 0;
  for (const Callout& c : svc.callouts) {
    if (c.prog != hdr->prog) continue;
    progFound = true;
    if (c.vers < low) low = c.vers;
    if (c.vers > high) high = c.vers;
  }
  if (progFound)
    svcerr_progvers(xprt, low, high);
  else
    svcerr_noprog(xprt);
}

bool_t svc_sendreply(SVCXPRT* xprt, xdrproc_t xresults, void* results) {
  rpc_reply_parts parts;
  parts.astat = SUCCESS;
  parts.results = xresults;
  parts.where = results;
  return reply(xprt, parts);
}

void svcerr_noproc(SVCXPRT* xprt) { acceptedError(xprt, PROC_UNAVAIL); }
void svcerr_decode(SVCXPRT* xprt) { acceptedError(xprt, GARBAGE_ARGS); }
void svcerr_systemerr(SVCXPRT* xprt) { acceptedError(xprt, SYSTEM_ERR); }
void svcerr_noprog(SVCXPRT* xprt) { acceptedError(xprt, PROG_UNAVAIL); }

void svcerr_progvers(SVCXPRT* xprt, u_long low, u_long high) {
  rpc_reply_parts parts;
  parts.astat = PROG_MISMATCH;
  parts.low = static_cast<u_int>(low);
  parts.high = static_cast<u_int>(high);
  reply(xprt, parts);
}

void svcerr_auth(SVCXPRT* xprt, auth_stat why) {
  rpc_reply_parts parts;
  parts.stat = MSG_DENIED;
  parts.rstat = AUTH_ERROR;
  parts.why = why;
  reply(xprt, parts);
}

void svcerr_weakauth(SVCXPRT* xprt) { svcerr_auth(xprt, AUTH_TOOWEAK); }

bool_t svc_getargs(SVCXPRT* xprt, xdrproc_t xargs, void* argsp) {
  return xprt->xp_ops->xp_getargs(xprt, xargs, argsp);
}

bool_t svc_freeargs(SVCXPRT* xprt, xdrproc_t xargs, void* argsp) {
  return xprt->xp_ops->xp_freeargs(xprt, xargs, argsp);
}
