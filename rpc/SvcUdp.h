// The UDP service transport: one datagram socket, an 8800-byte receive and
// an 8800-byte send buffer, registered in the service loop's read set.
#ifndef RPC_SVCUDP_H_
#define RPC_SVCUDP_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include "rpc/Svc.h"

#define SVCUDP_BUFSIZE 8800

// Creates a datagram socket of addr's family, binds it to addr (IPv6
// sockets are IPv6-only, so an IPv4 and an IPv6 service can share a port)
// and registers the transport in svc. Returns null on failure (errno tells why;
// EAFNOSUPPORT when the system has no IPv6), or when the socket's number
// is NOFILE or more.
SVCXPRT* svcudp_create(RpcService& svc, const struct sockaddr* addr);
inline SVCXPRT* svcudp_create(RpcService& svc, const struct sockaddr_in* addr) {
  return svcudp_create(svc, reinterpret_cast<const sockaddr*>(addr));
}
inline SVCXPRT* svcudp_create(RpcService& svc, const struct sockaddr_in6* addr) {
  return svcudp_create(svc, reinterpret_cast<const sockaddr*>(addr));
}
// Wraps an existing, bound datagram socket (RPC_ANYSOCK: a new IPv4 socket on
// an ephemeral port); the transport owns it from then on, also on failure.
SVCXPRT* svcudp_bufcreate(RpcService& svc, int sock, u_int sendsz, u_int recvsz);

// Serves one datagram as if it had arrived on xprt from `from`: decodes the
// call and dispatches it; replies go to `from` through the transport's
// socket. Datagrams longer than the receive buffer are dropped. For tests
// and fuzzing; svc_run uses the same path.
void svcudp_dispatch(SVCXPRT* xprt, const void* data, size_t len, const struct sockaddr* from,
                     socklen_t fromlen);

#endif  // RPC_SVCUDP_H_
