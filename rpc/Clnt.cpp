#include "rpc/Clnt.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/Resolver.h"
#include "rpc/RpcMsg.h"

// A failed create returns no object that could carry its reason, so the
// reason waits here for the thread that asked, as in ONC RPC.
thread_local rpc_createerr_t rpc_createerr;

namespace {

const char kComponent[] = "clnt_udp";
const int64_t kMaxWaitUs = int64_t{3600} * 1000000;

}  // namespace

struct CLIENT {
  int sock = -1;
  bool closeSock = false;
  sockaddr_storage raddr{};
  socklen_t rlen = 0;
  timeval retry{};  // retransmission interval
  timeval total{};  // total time-out set by CLSET_TIMEOUT
  bool totalSet = false;
  u_long prog = 0;
  u_long vers = 0;
  uint32_t xid = 0;       // of the last call
  bool xidGiven = false;  // CLSET_XID: the next call uses xid + 1
  rpc_err err{};
  std::vector<char> sendBuf;
  std::vector<char> recvBuf;
  u_int replyLen = 0;  // bytes of the last reply (for clnt_freeres)
  std::string errorText;  // what clnt_sperror returned last

  ~CLIENT() {
    if (closeSock && sock >= 0) close(sock);
  }
};

namespace {

// Keeps microseconds below one second (a caller may give 2 s as 0 s + 2000000 us).
timeval normalise(timeval tv) {
  if (tv.tv_usec < 0) tv.tv_usec = 0;
  if (tv.tv_sec < 0) tv.tv_sec = 0;
  tv.tv_sec += tv.tv_usec / 1000000;
  tv.tv_usec %= 1000000;
  return tv;
}

int64_t toMicros(const timeval& tv) {
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

int64_t nowMicros() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

socklen_t addrLen(const sockaddr* sa) {
  return sa->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// "host:port" for messages; "[host]:port" for IPv6.
std::string addrText(const sockaddr* sa) {
  char text[NI_MAXHOST + NI_MAXSERV + 4];
  return addressText(sa, 1, text, sizeof text);
}

clnt_stat setStatus(CLIENT* cl, clnt_stat stat) {
  cl->err.re_status = stat;
  return stat;
}

clnt_stat setErrno(CLIENT* cl, clnt_stat stat, int err) {
  cl->err.re_status = stat;
  cl->err.re_errno = err;
  return stat;
}

// Turns a decoded reply header into the call's status.
void replyToError(const rpc_reply_parts& parts, rpc_err* err) {
  if (parts.stat == MSG_ACCEPTED) {
    switch (parts.astat) {
      case SUCCESS:
        err->re_status = RPC_SUCCESS;
        return;
      case PROG_UNAVAIL:
        err->re_status = RPC_PROGUNAVAIL;
        return;
      case PROG_MISMATCH:
        err->re_status = RPC_PROGVERSMISMATCH;
        err->re_vers.low = parts.low;
        err->re_vers.high = parts.high;
        return;
      case PROC_UNAVAIL:
        err->re_status = RPC_PROCUNAVAIL;
        return;
      case GARBAGE_ARGS:
        err->re_status = RPC_CANTDECODEARGS;
        return;
      case SYSTEM_ERR:
        err->re_status = RPC_SYSTEMERROR;
        return;
    }
    err->re_status = RPC_FAILED;
    err->re_lb.s1 = MSG_ACCEPTED;
    err->re_lb.s2 = parts.astat;
    return;
  }
  switch (parts.rstat) {
    case RPC_MISMATCH:
      err->re_status = RPC_VERSMISMATCH;
      err->re_vers.low = parts.low;
      err->re_vers.high = parts.high;
      return;
    case AUTH_ERROR:
      err->re_status = RPC_AUTHERROR;
      err->re_why = parts.why;
      return;
  }
  err->re_status = RPC_FAILED;
  err->re_lb.s1 = MSG_DENIED;
  err->re_lb.s2 = parts.rstat;
}

void createError(clnt_stat stat, int err) {
  rpc_createerr.cf_stat = stat;
  rpc_createerr.cf_error.re_status = stat;
  rpc_createerr.cf_error.re_errno = err;
}

}  // namespace

CLIENT* clntudp_bufcreate(const sockaddr* raddr, u_long prog, u_long vers, timeval wait, int* sockp,
                          u_int sendsz, u_int recvsz) {
  if (raddr == nullptr || (raddr->sa_family != AF_INET && raddr->sa_family != AF_INET6)) {
    createError(RPC_UNKNOWNHOST, 0);
    return nullptr;
  }
  const socklen_t rlen = addrLen(raddr);
  const in_port_t port = raddr->sa_family == AF_INET6
                             ? reinterpret_cast<const sockaddr_in6*>(raddr)->sin6_port
                             : reinterpret_cast<const sockaddr_in*>(raddr)->sin_port;
  if (port == 0) {
    // There is no port mapper to ask.
    createError(RPC_PROGNOTREGISTERED, 0);
    return nullptr;
  }
  auto cl = std::make_unique<CLIENT>();
  memcpy(&cl->raddr, raddr, rlen);
  cl->rlen = rlen;
  cl->retry = normalise(wait);
  cl->prog = prog;
  cl->vers = vers;
  cl->sendBuf.resize(sendsz ? sendsz : CLNTUDP_SENDSZ);
  cl->recvBuf.resize(recvsz ? recvsz : CLNTUDP_RECVSZ);

  int sock = sockp ? *sockp : RPC_ANYSOCK;
  if (sock < 0) {
    sock = socket(raddr->sa_family, SOCK_DGRAM, IPPROTO_UDP);
    if (sock < 0) {
      const int e = errno;
      c_logmsg(kComponent, 2, "cannot create socket, errno=%d(%s)", e, strerror(e));
      createError(RPC_SYSTEMERROR, e);
      return nullptr;
    }
    cl->closeSock = true;
    if (sockp) *sockp = sock;
  }
  cl->sock = sock;
  // Waiting is done with poll; reads must never block after a spurious wake-up.
  const int flags = fcntl(sock, F_GETFL);
  if (flags >= 0) fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  rpc_createerr.cf_stat = RPC_SUCCESS;
  return cl.release();
}

CLIENT* clntudp_create(const sockaddr* raddr, u_long prog, u_long vers, timeval wait, int* sockp) {
  return clntudp_bufcreate(raddr, prog, vers, wait, sockp, CLNTUDP_SENDSZ, CLNTUDP_RECVSZ);
}

namespace {

// A fresh xid for every call: a sender that cannot see the call cannot guess it.
bool randomXid(uint32_t* xid) {
  for (;;) {
    const ssize_t n = getrandom(xid, sizeof *xid, 0);
    if (n == static_cast<ssize_t>(sizeof *xid)) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

// Encodes the call into the send buffer; its length, or 0 when it does not fit.
size_t encodeCall(CLIENT* cl, uint32_t xid, u_long proc, xdrproc_t xargs, void* argsp) {
  XDR out;
  xdrmem_create(&out, cl->sendBuf.data(), static_cast<u_int>(cl->sendBuf.size()), XDR_ENCODE);
  if (!rpcmsg_encode_call(&out, xid, static_cast<u_int>(cl->prog), static_cast<u_int>(cl->vers),
                          static_cast<u_int>(proc)) ||
      (xargs != nullptr && !xargs(&out, argsp))) {
    return 0;
  }
  return xdr_getpos(&out);
}

// Whether a datagram came from the address the calls go to: replies are
// taken from the server only, whatever xid another sender puts in.
bool fromServer(const CLIENT* cl, const sockaddr_storage& from, socklen_t fromLen) {
  if (fromLen < cl->rlen || from.ss_family != cl->raddr.ss_family) return false;
  if (from.ss_family == AF_INET6) {
    const auto& a = reinterpret_cast<const sockaddr_in6&>(from);
    const auto& b = reinterpret_cast<const sockaddr_in6&>(cl->raddr);
    return a.sin6_port == b.sin6_port &&
           memcmp(&a.sin6_addr, &b.sin6_addr, sizeof a.sin6_addr) == 0;
  }
  const auto& a = reinterpret_cast<const sockaddr_in&>(from);
  const auto& b = reinterpret_cast<const sockaddr_in&>(cl->raddr);
  return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

// One call in progress: what its datagrams are checked against.
struct PendingCall {
  uint32_t xid;
  xdrproc_t xres;
  void* resp;
  bool strangerLogged;  // a datagram of another sender was logged for this call
};

// Reads one datagram. True when it ends the call, with the status in *stat:
// the reply, or a failed receive. False when the call waits on: nothing was
// there, or the datagram came from another sender, answers another call or
// does not decode (none of them can be the server's answer to this call).
bool readReply(CLIENT* cl, PendingCall* call, clnt_stat* stat) {
  const sockaddr* raddr = reinterpret_cast<const sockaddr*>(&cl->raddr);
  c_logmsg(kComponent, 10, "clnt read sock=FD%d buf=%x len=%x", cl->sock,
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(cl->recvBuf.data())),
           static_cast<unsigned>(cl->recvBuf.size()));
  sockaddr_storage from{};
  socklen_t fromLen = sizeof from;
  const ssize_t n = recvfrom(cl->sock, cl->recvBuf.data(), cl->recvBuf.size(), 0,
                             reinterpret_cast<sockaddr*>(&from), &fromLen);
  c_logmsg(kComponent, 10, "returns %d", static_cast<int>(n));
  if (n < 0) {
    const int e = errno;
    if (e == EINTR || e == EAGAIN || e == EWOULDBLOCK) return false;
    c_logmsg(kComponent, 2, "read on FD%d, addr %s returns %d, errno %d", cl->sock,
             addrText(raddr).c_str(), static_cast<int>(n), e);
    *stat = setErrno(cl, RPC_CANTRECV, e);
    return true;
  }
  if (!fromServer(cl, from, fromLen)) {
    if (!call->strangerLogged) {
      call->strangerLogged = true;
      c_logmsg(kComponent, 2, "datagram from %s dropped: the call went to %s",
               addrText(reinterpret_cast<const sockaddr*>(&from)).c_str(), addrText(raddr).c_str());
    }
    return false;
  }
  XDR in;
  xdrmem_create(&in, cl->recvBuf.data(), static_cast<u_int>(n), XDR_DECODE);
  uint32_t rxid = 0;
  u_int type = 0;
  // Too short for an xid, or a late reply to an earlier call.
  if (!xdr_u_int(&in, &rxid) || rxid != call->xid) return false;
  rpc_reply_parts parts;
  rpc_err err{};
  if (xdr_u_int(&in, &type) && type == REPLY && rpcmsg_decode_reply_body(&in, &parts)) {
    replyToError(parts, &err);
    if (err.re_status != RPC_SUCCESS || call->xres == nullptr || call->xres(&in, call->resp)) {
      cl->err = err;
      cl->replyLen = static_cast<u_int>(n);
      *stat = err.re_status;
      return true;
    }
    xdr_free(call->xres, call->resp);  // what the broken results left behind
  }
  c_logmsg(kComponent, 2, "reply from %s with xid %x does not decode (%d bytes), dropped",
           addrText(raddr).c_str(), call->xid, static_cast<int>(n));
  return false;
}

// Waits for the reply until resendAt. True when the call has ended (status
// in *stat): replied, failed, or past the deadline; false when it is to be sent again.
bool awaitReply(CLIENT* cl, PendingCall* call, int64_t resendAt, int64_t deadline,
                const timeval& total, clnt_stat* stat) {
  for (;;) {
    const int64_t now = nowMicros();
    if (now >= deadline) {
      c_logmsg(kComponent, 2, "clnt timeout on FD%d, addr %s  was %d,%d", cl->sock,
               addrText(reinterpret_cast<const sockaddr*>(&cl->raddr)).c_str(),
               static_cast<int>(total.tv_sec), static_cast<int>(total.tv_usec));
      *stat = setStatus(cl, RPC_TIMEDOUT);
      return true;
    }
    if (now >= resendAt) return false;
    int64_t waitUs = (resendAt < deadline ? resendAt : deadline) - now;
    if (waitUs > kMaxWaitUs) waitUs = kMaxWaitUs;  // poll takes an int of milliseconds
    pollfd pfd{cl->sock, POLLIN, 0};
    const int ready = poll(&pfd, 1, static_cast<int>((waitUs + 999) / 1000));
    if (ready < 0) {
      if (errno == EINTR) continue;
      const int e = errno;
      c_logmsg(kComponent, 2, "select on FD%d failed, errno=%d", cl->sock, e);
      *stat = setErrno(cl, RPC_CANTRECV, e);
      return true;
    }
    if (ready > 0 && readReply(cl, call, stat)) return true;
  }
}

}  // namespace

clnt_stat clnt_call(CLIENT* cl, u_long proc, xdrproc_t xargs, void* argsp, xdrproc_t xres,
                    void* resp, timeval utimeout) {
  cl->err = rpc_err{};
  const timeval total = normalise(cl->totalSet ? cl->total : utimeout);
  const int64_t totalUs = toMicros(total);
  const int64_t retryUs = toMicros(cl->retry) > 0 ? toMicros(cl->retry) : totalUs;

  uint32_t xid = cl->xid + 1;
  if (!cl->xidGiven && !randomXid(&xid)) {
    const int e = errno;
    c_logmsg(kComponent, 2, "getrandom failed, errno=%d(%s)", e, strerror(e));
    return setErrno(cl, RPC_SYSTEMERROR, e);
  }
  cl->xid = xid;
  cl->xidGiven = false;
  const size_t outLen = encodeCall(cl, xid, proc, xargs, argsp);
  if (outLen == 0) {
    c_logmsg(kComponent, 2, "error RPC_CANTENCODEARGS");
    return setStatus(cl, RPC_CANTENCODEARGS);
  }
  const sockaddr* raddr = reinterpret_cast<const sockaddr*>(&cl->raddr);
  PendingCall call{xid, xres, resp, false};
  const int64_t deadline = nowMicros() + totalUs;
  for (;;) {
    const ssize_t sent = sendto(cl->sock, cl->sendBuf.data(), outLen, 0, raddr, cl->rlen);
    if (sent != static_cast<ssize_t>(outLen)) {
      const int e = sent < 0 ? errno : EMSGSIZE;
      c_logmsg(kComponent, 2, "sendto returns errno %d", e);
      return setErrno(cl, RPC_CANTSEND, e);
    }
    if (totalUs == 0) return setStatus(cl, RPC_TIMEDOUT);  // a message without reply
    clnt_stat stat;
    if (awaitReply(cl, &call, nowMicros() + retryUs, deadline, total, &stat)) return stat;
  }
}

void clnt_geterr(CLIENT* cl, rpc_err* errp) { *errp = cl->err; }

bool_t clnt_freeres(CLIENT*, xdrproc_t xres, void* resp) {
  xdr_free(xres, resp);
  return TRUE;
}

void clnt_destroy(CLIENT* cl) { delete cl; }

bool_t clnt_control(CLIENT* cl, u_int request, void* info) {
  switch (request) {
    case CLSET_FD_CLOSE:
      cl->closeSock = true;
      return TRUE;
    case CLSET_FD_NCLOSE:
      cl->closeSock = false;
      return TRUE;
  }
  if (info == nullptr) return FALSE;
  switch (request) {
    case CLSET_TIMEOUT:
      cl->total = normalise(*static_cast<timeval*>(info));
      cl->totalSet = true;
      return TRUE;
    case CLGET_TIMEOUT:
      *static_cast<timeval*>(info) = cl->total;
      return TRUE;
    case CLGET_SERVER_ADDR:
      memset(info, 0, sizeof(sockaddr_storage));
      memcpy(info, &cl->raddr, cl->rlen);
      return TRUE;
    case CLSET_RETRY_TIMEOUT:
      cl->retry = normalise(*static_cast<timeval*>(info));
      return TRUE;
    case CLGET_RETRY_TIMEOUT:
      *static_cast<timeval*>(info) = cl->retry;
      return TRUE;
    case CLGET_FD:
      *static_cast<int*>(info) = cl->sock;
      return TRUE;
    case CLGET_XID:
      *static_cast<uint32_t*>(info) = cl->xid;
      return TRUE;
    case CLSET_XID:
      cl->xid = *static_cast<uint32_t*>(info) - 1;
      cl->xidGiven = true;
      return TRUE;
    case CLGET_VERS:
      *static_cast<u_long*>(info) = cl->vers;
      return TRUE;
    case CLSET_VERS:
      cl->vers = *static_cast<u_long*>(info);
      return TRUE;
    case CLGET_PROG:
      *static_cast<u_long*>(info) = cl->prog;
      return TRUE;
    case CLSET_PROG:
      cl->prog = *static_cast<u_long*>(info);
      return TRUE;
  }
  return FALSE;
}

// ---- error texts ----

namespace {

const char* authText(auth_stat why) {
  switch (why) {
    case AUTH_OK:
      return "Authentication OK";
    case AUTH_BADCRED:
      return "Invalid client credential";
    case AUTH_REJECTEDCRED:
      return "Server rejected credential";
    case AUTH_BADVERF:
      return "Invalid client verifier";
    case AUTH_REJECTEDVERF:
      return "Server rejected verifier";
    case AUTH_TOOWEAK:
      return "Client credential too weak";
    case AUTH_INVALIDRESP:
      return "Invalid server verifier";
    case AUTH_FAILED:
      return "Failed (unspecified error)";
  }
  return nullptr;
}

std::string errnoText(int err) {
  char buf[256];
  const char* t = strerror_r(err, buf, sizeof buf);
  return t ? t : "";
}

std::string format(const char* fmt, ...) CLOCKETTE_PRINTF(1, 2);
std::string format(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

// "<s>: <text><detail>"; the detail depends on the status.
std::string errorText(const char* s, const rpc_err& e) {
  std::string out = format("%s: %s", s ? s : "", clnt_sperrno(e.re_status));
  switch (e.re_status) {
    case RPC_SUCCESS:
    case RPC_CANTENCODEARGS:
    case RPC_CANTDECODERES:
    case RPC_TIMEDOUT:
    case RPC_PROGUNAVAIL:
    case RPC_PROCUNAVAIL:
    case RPC_CANTDECODEARGS:
    case RPC_SYSTEMERROR:
    case RPC_UNKNOWNHOST:
    case RPC_PROGNOTREGISTERED:
    case RPC_FAILED:
      break;
    case RPC_CANTSEND:
    case RPC_CANTRECV:
      out += "; errno = " + errnoText(e.re_errno);
      break;
    case RPC_VERSMISMATCH:
    case RPC_PROGVERSMISMATCH:
      out += format("; low version = %u, high version = %u", static_cast<unsigned>(e.re_vers.low),
                    static_cast<unsigned>(e.re_vers.high));
      break;
    case RPC_AUTHERROR: {
      out += "; why = ";
      const char* t = authText(e.re_why);
      out += t ? std::string(t)
               : format("(unknown authentication error - %d)", static_cast<int>(e.re_why));
      break;
    }
    default:
      out += format("; s1 = %u, s2 = %u", static_cast<unsigned>(e.re_lb.s1),
                    static_cast<unsigned>(e.re_lb.s2));
      break;
  }
  return out;
}

}  // namespace

const char* clnt_sperrno(clnt_stat stat) {
  switch (stat) {
    case RPC_SUCCESS:
      return "RPC: Success";
    case RPC_CANTENCODEARGS:
      return "RPC: Can't encode arguments";
    case RPC_CANTDECODERES:
      return "RPC: Can't decode result";
    case RPC_CANTSEND:
      return "RPC: Unable to send";
    case RPC_CANTRECV:
      return "RPC: Unable to receive";
    case RPC_TIMEDOUT:
      return "RPC: Timed out";
    case RPC_VERSMISMATCH:
      return "RPC: Incompatible versions of RPC";
    case RPC_AUTHERROR:
      return "RPC: Authentication error";
    case RPC_PROGUNAVAIL:
      return "RPC: Program unavailable";
    case RPC_PROGVERSMISMATCH:
      return "RPC: Program/version mismatch";
    case RPC_PROCUNAVAIL:
      return "RPC: Procedure unavailable";
    case RPC_CANTDECODEARGS:
      return "RPC: Server can't decode arguments";
    case RPC_SYSTEMERROR:
      return "RPC: Remote system error";
    case RPC_UNKNOWNHOST:
      return "RPC: Unknown host";
    case RPC_PROGNOTREGISTERED:
      return "RPC: Program not registered";
    case RPC_FAILED:
      return "RPC: Failed (unspecified error)";
    case RPC_UNEXPECTEDFD:
      return "RPC: coroutine resumed from unexpected FD";
    case RPC_PMAPFAILURE:  // deliberately without a text of its own
      break;
  }
  return "RPC: (unknown error code)";
}

const char* clnt_sperror(CLIENT* cl, const char* s) {
  cl->errorText = errorText(s, cl->err);
  return cl->errorText.c_str();
}

std::string clnt_spcreateerror(const char* s) {
  rpc_err e = rpc_createerr.cf_error;
  e.re_status = rpc_createerr.cf_stat;
  return errorText(s, e);
}

void clnt_perror(CLIENT* cl, const char* s) { fprintf(stderr, "%s\n", clnt_sperror(cl, s)); }

void clnt_pcreateerror(const char* s) { fprintf(stderr, "%s\n", clnt_spcreateerror(s).c_str()); }

void clnt_perrno(clnt_stat stat) { fprintf(stderr, "%s", clnt_sperrno(stat)); }
