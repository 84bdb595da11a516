#include "rpc/SvcUdp.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "rpc/RpcMsg.h"

namespace {

const char kComponent[] = "svc_udp";

// Per-transport buffers; the receive stream stays positioned at the
// arguments of the current request until the next one is read.
struct UdpData {
  std::vector<char> recvBuf;
  std::vector<char> sendBuf;
  u_int recvLen = 0;
  XDR in{};
};

UdpData* dataOf(SVCXPRT* xprt) { return static_cast<UdpData*>(xprt->xp_p1); }

// Decodes the call header of the datagram now in the receive buffer.
bool_t decodeCall(SVCXPRT* xprt, rpc_call_hdr* hdr) {
  UdpData* d = dataOf(xprt);
  if (d->recvLen < 4 * sizeof(uint32_t)) return FALSE;  // not even a header start
  xdrmem_create(&d->in, d->recvBuf.data(), d->recvLen, XDR_DECODE);
  d->in.x_refusals = &xprt->xp_svc->decodeRefusals;
  return rpcmsg_decode_call(&d->in, hdr);
}

bool_t udpRecv(SVCXPRT* xprt, rpc_call_hdr* hdr) {
  UdpData* d = dataOf(xprt);
  for (;;) {
    xprt->xp_addrlen = sizeof xprt->xp_raddr;
    // MSG_TRUNC: learn the real length, so an oversized datagram is dropped
    // instead of being decoded from its first part.
    const ssize_t n =
        recvfrom(xprt->xp_sock, d->recvBuf.data(), d->recvBuf.size(), MSG_DONTWAIT | MSG_TRUNC,
                 reinterpret_cast<sockaddr*>(&xprt->xp_raddr), &xprt->xp_addrlen);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      if (e == EBADF || e == ENOTSOCK) {
        // No longer our socket: serving it again would only spin.
        c_logmsg(kComponent, 2, "bad FD%d set in %s", xprt->xp_sock, "readfds");
        xprt_unregister(xprt);
      }
      return FALSE;
    }
    if (static_cast<size_t>(n) > d->recvBuf.size()) {
      c_logmsg(kComponent, 5, "dropped datagram of %d bytes on FD%d", static_cast<int>(n),
               xprt->xp_sock);
      return FALSE;
    }
    d->recvLen = static_cast<u_int>(n);
    return decodeCall(xprt, hdr);
  }
}

bool_t udpGetargs(SVCXPRT* xprt, xdrproc_t xargs, void* argsp) {
  return xargs(&dataOf(xprt)->in, argsp);
}

bool_t udpFreeargs(SVCXPRT*, xdrproc_t xargs, void* argsp) {
  xdr_free(xargs, argsp);
  return TRUE;
}

bool_t udpReply(SVCXPRT* xprt, const rpc_reply_parts* parts) {
  UdpData* d = dataOf(xprt);
  XDR out;
  xdrmem_create(&out, d->sendBuf.data(), static_cast<u_int>(d->sendBuf.size()), XDR_ENCODE);
  if (!rpcmsg_encode_reply(&out, xprt->xp_xid, *parts)) {
    c_logmsg(kComponent, 2, "cannot encode reply on FD%d", xprt->xp_sock);
    return FALSE;
  }
  const size_t len = xdr_getpos(&out);
  const ssize_t n = sendto(xprt->xp_sock, d->sendBuf.data(), len, 0,
                           reinterpret_cast<const sockaddr*>(&xprt->xp_raddr), xprt->xp_addrlen);
  if (n != static_cast<ssize_t>(len)) {
    c_logmsg(kComponent, 5, "sendto on FD%d returns %d, errno %d", xprt->xp_sock,
             static_cast<int>(n), errno);
    return FALSE;
  }
  return TRUE;
}

void udpDestroy(SVCXPRT* xprt) {
  if (xprt->xp_sock >= 0) close(xprt->xp_sock);
  delete dataOf(xprt);
  delete xprt;
}

const svc_xp_ops kUdpOps = {udpRecv, udpGetargs, udpReply, udpFreeargs, udpDestroy};

}  // namespace

SVCXPRT* svcudp_bufcreate(RpcService& svc, int sockIn, u_int sendsz, u_int recvsz) {
  UniqueFd sock(sockIn == RPC_ANYSOCK ? socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP) : sockIn);
  if (sock.get() < 0) return nullptr;
  if (sockIn == RPC_ANYSOCK) {
    // An unbound socket has no port and would never receive a request.
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&any), sizeof any) < 0) {
      const int e = errno;
      c_logmsg(kComponent, 2, "cannot bind socket to port %d, errno=%d(%s)", 0, e, strerror(e));
      return nullptr;
    }
  }
  sockaddr_storage addr;
  socklen_t len = sizeof addr;
  if (getsockname(sock.get(), reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
    const int e = errno;
    c_logmsg(kComponent, 2, "cannot getsockname(), errno=%d(%s)", e, strerror(e));
    c_logmsg(kComponent, 10, "close FD%d", sock.get());
    return nullptr;
  }
  const in_port_t port = addr.ss_family == AF_INET6
                             ? reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port
                             : reinterpret_cast<sockaddr_in*>(&addr)->sin_port;
  c_logmsg(kComponent, 10, "bound FD%d to port %d", sock.get(), ntohs(port));

  auto data = std::make_unique<UdpData>();
  data->recvBuf.resize(recvsz ? recvsz : SVCUDP_BUFSIZE);
  data->sendBuf.resize(sendsz ? sendsz : SVCUDP_BUFSIZE);
  auto xprt = std::make_unique<SVCXPRT>();
  memset(xprt.get(), 0, sizeof(SVCXPRT));
  xprt->xp_sock = sock.release();
  xprt->xp_port = ntohs(port);
  xprt->xp_ops = &kUdpOps;
  xprt->xp_p1 = data.release();
  xprt->xp_svc = &svc;
  xprt_register(xprt.get());
  if (xprt->xp_sock < 0) {  // refused (and closed) by xprt_register
    delete dataOf(xprt.get());
    errno = EMFILE;
    return nullptr;
  }
  return xprt.release();
}

SVCXPRT* svcudp_create(RpcService& svc, const sockaddr* addr) {
  const int family = addr->sa_family;
  const int port = ntohs(family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(addr)->sin6_port
                                            : reinterpret_cast<const sockaddr_in*>(addr)->sin_port);
  UniqueFd sock(socket(family, SOCK_DGRAM, IPPROTO_UDP));
  int e = sock.get() < 0 ? errno : 0;
  if (e == 0 && family == AF_INET6) {
    // The IPv4 service may hold the same port; keep the two apart.
    int on = 1;
    setsockopt(sock.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  const socklen_t len = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (e == 0 && bind(sock.get(), addr, len) < 0) e = errno;
  if (e != 0) {
    if (e == EAFNOSUPPORT || (family == AF_INET6 && e == EADDRNOTAVAIL))
      c_logmsg(kComponent, 2, "no IPV6 support");
    else
      c_logmsg(kComponent, 2, "cannot bind socket to port %d, errno=%d(%s)", port, e, strerror(e));
    errno = e;
    return nullptr;
  }
  c_logmsg(kComponent, 8, "new sock FD%d for port %d", sock.get(), port);
  return svcudp_bufcreate(svc, sock.release(), SVCUDP_BUFSIZE, SVCUDP_BUFSIZE);
}

void svcudp_dispatch(SVCXPRT* xprt, const void* data, size_t len, const sockaddr* from,
                     socklen_t fromlen) {
  UdpData* d = dataOf(xprt);
  if (len > d->recvBuf.size() || fromlen > sizeof xprt->xp_raddr) return;
  if (len) memcpy(d->recvBuf.data(), data, len);
  d->recvLen = static_cast<u_int>(len);
  memset(&xprt->xp_raddr, 0, sizeof xprt->xp_raddr);
  if (fromlen) memcpy(&xprt->xp_raddr, from, fromlen);
  xprt->xp_addrlen = fromlen;
  rpc_call_hdr hdr;
  if (decodeCall(xprt, &hdr)) svc_dispatch_request(xprt, &hdr);
}
