// The UDP client of the ONC RPC runtime.
//
// A CLIENT sends calls to one program/version at one address over UDP, with
// AUTH_NONE credentials. A call is retransmitted every retransmission
// interval (given at creation) until a reply with the call's xid arrives or
// the total time-out (given per call, or fixed with CLSET_TIMEOUT) has passed.
// A total time-out of zero sends the call once and returns RPC_TIMEDOUT at
// once, without waiting for a reply. Nothing is registered with or asked of a
// port mapper: the address must carry the port.
//
// Each call has a fresh random xid. Only a datagram from the server's address
// and port with that xid is taken as the reply; one whose body does not decode
// is dropped (and logged), and the call waits on, as it does for datagrams of
// other senders: a local process that cannot see the call cannot answer it.
//
// A CLIENT is used by one thread at a time. The creation error is kept in
// rpc_createerr, one per thread.
#ifndef RPC_CLNT_H_
#define RPC_CLNT_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "rpc/RpcTypes.h"
#include "rpc/Xdr.h"

enum clnt_stat : int {
  RPC_SUCCESS = 0,
  RPC_CANTENCODEARGS = 1,
  RPC_CANTDECODERES = 2,
  RPC_CANTSEND = 3,
  RPC_CANTRECV = 4,
  RPC_TIMEDOUT = 5,
  RPC_VERSMISMATCH = 6,
  RPC_AUTHERROR = 7,
  RPC_PROGUNAVAIL = 8,
  RPC_PROGVERSMISMATCH = 9,
  RPC_PROCUNAVAIL = 10,
  RPC_CANTDECODEARGS = 11,
  RPC_SYSTEMERROR = 12,
  RPC_UNKNOWNHOST = 13,
  RPC_PMAPFAILURE = 14,  // never produced; has no text of its own
  RPC_PROGNOTREGISTERED = 15,
  RPC_FAILED = 16,
  RPC_UNEXPECTEDFD = 17
};

struct rpc_err {
  clnt_stat re_status;
  union {
    int RE_errno;      // RPC_CANTSEND, RPC_CANTRECV
    auth_stat RE_why;  // RPC_AUTHERROR
    struct {
      u_long low;  // RPC_VERSMISMATCH, RPC_PROGVERSMISMATCH
      u_long high;
    } RE_vers;
    struct {
      long s1;  // anything else
      long s2;
    } RE_lb;
  } ru;
};
#define re_errno ru.RE_errno
#define re_why ru.RE_why
#define re_vers ru.RE_vers
#define re_lb ru.RE_lb

struct rpc_createerr_t {
  clnt_stat cf_stat;
  rpc_err cf_error;
};
// Why the last clntudp_create failed.
extern thread_local rpc_createerr_t rpc_createerr;

struct CLIENT;  // opaque

// Default buffer sizes of the UDP client.
#define CLNTUDP_SENDSZ 8800
#define CLNTUDP_RECVSZ 9800

// Creates a client for prog/vers at raddr (IPv4 or IPv6; the port must be
// set). wait is the retransmission interval. *sockp < 0 (RPC_ANYSOCK): the
// client makes its own socket, stores it in *sockp and closes it on destroy;
// otherwise the given socket is used and left open. Returns null on failure,
// with the reason in rpc_createerr.
CLIENT* clntudp_bufcreate(const struct sockaddr* raddr, u_long prog, u_long vers,
                          struct timeval wait, int* sockp, u_int sendsz, u_int recvsz);
CLIENT* clntudp_create(const struct sockaddr* raddr, u_long prog, u_long vers, struct timeval wait,
                       int* sockp);
inline CLIENT* clntudp_create(const struct sockaddr_in* raddr, u_long prog, u_long vers,
                              struct timeval wait, int* sockp) {
  return clntudp_create(reinterpret_cast<const sockaddr*>(raddr), prog, vers, wait, sockp);
}
inline CLIENT* clntudp_create(const struct sockaddr_in6* raddr, u_long prog, u_long vers,
                              struct timeval wait, int* sockp) {
  return clntudp_create(reinterpret_cast<const sockaddr*>(raddr), prog, vers, wait, sockp);
}

// Calls procedure proc: encodes *argsp with xargs, and on success decodes the
// results into *resp with xres. Returns RPC_SUCCESS or the failure; details
// through clnt_geterr.
clnt_stat clnt_call(CLIENT* cl, u_long proc, xdrproc_t xargs, void* argsp, xdrproc_t xres,
                    void* resp, struct timeval timeout);
// The error of the last call.
void clnt_geterr(CLIENT* cl, rpc_err* errp);
// Frees what a call decoded into *resp.
bool_t clnt_freeres(CLIENT* cl, xdrproc_t xres, void* resp);
void clnt_destroy(CLIENT* cl);

struct ClientDestroy {
  void operator()(CLIENT* cl) const { clnt_destroy(cl); }
};
// A client that is destroyed when it goes away.
using ClientPtr = std::unique_ptr<CLIENT, ClientDestroy>;

// clnt_control requests.
#define CLSET_TIMEOUT 1        // struct timeval: total time-out for every call
#define CLGET_TIMEOUT 2        // struct timeval
#define CLGET_SERVER_ADDR 3    // struct sockaddr_storage
#define CLSET_RETRY_TIMEOUT 4  // struct timeval
#define CLGET_RETRY_TIMEOUT 5  // struct timeval
#define CLGET_FD 6             // int
#define CLSET_FD_CLOSE 8       // close the socket on destroy
#define CLSET_FD_NCLOSE 9      // leave it open
#define CLGET_XID 10           // u_int32_t: xid of the last call
#define CLSET_XID 11           // u_int32_t: the xid of the next call
#define CLGET_VERS 12          // u_long
#define CLSET_VERS 13          // u_long
#define CLGET_PROG 14          // u_long
#define CLSET_PROG 15          // u_long
// Returns TRUE when the request is known and info is not null.
bool_t clnt_control(CLIENT* cl, u_int request, void* info);

// Status texts ("RPC: Timed out", ...).
const char* clnt_sperrno(clnt_stat stat);
// "<s>: <status text>[<detail>]" of the client's last error, without a newline.
// The text is kept in the client until its next clnt_sperror or its end.
const char* clnt_sperror(CLIENT* cl, const char* s);
// The same for the creation error in rpc_createerr; there is no client to
// keep it, so the caller gets its own copy.
std::string clnt_spcreateerror(const char* s);
// Print the texts above, with a newline, to standard error.
void clnt_perror(CLIENT* cl, const char* s);
void clnt_pcreateerror(const char* s);
void clnt_perrno(clnt_stat stat);

#endif  // RPC_CLNT_H_
