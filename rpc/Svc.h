// The service side of the ONC RPC runtime: registered programs, the
// descriptor set of the service loop, the loop itself, and the replies.
//
// All of it lives in an RpcService that its owner makes and hands to the
// transports it creates and to svc_run; a transport knows its service
// (xp_svc), so the replies and the registration need no service argument.
// A dispatch routine is registered per (program, version) with svc_register;
// nothing is registered with a port mapper. Transports (SvcUdp.h) put their
// socket into the service's read set of NOFILE (512) descriptors with
// xprt_register; a socket numbered 512 or more is refused and closed.
// svc_run waits on that set and hands each request to its dispatch routine,
// which answers with svc_sendreply or one of the svcerr_* replies.
//
// Single-threaded: the loop and every dispatch run on the thread of svc_run.
// terminateSvcrun may be called from any thread; the loop ends when its
// current wait returns.
#ifndef RPC_SVC_H_
#define RPC_SVC_H_

#include <sys/select.h>
#include <sys/socket.h>

#include <atomic>
#include <vector>

#include "base/RateLimit.h"
#include "rpc/RpcTypes.h"
#include "rpc/Xdr.h"

// Highest descriptor count the service loop serves.
#define NOFILE 512

class RpcService;
struct SVCXPRT;
struct svc_req;
struct rpc_call_hdr;
struct rpc_reply_parts;

// The operations of one kind of transport.
struct svc_xp_ops {
  // Reads one request; TRUE with a decoded call header, FALSE when there is none.
  bool_t (*xp_recv)(SVCXPRT* xprt, rpc_call_hdr* hdr);
  // Decodes the arguments of the current request.
  bool_t (*xp_getargs)(SVCXPRT* xprt, xdrproc_t xargs, void* argsp);
  // Sends a reply to the current request; TRUE when it was sent whole.
  bool_t (*xp_reply)(SVCXPRT* xprt, const rpc_reply_parts* parts);
  // Frees decoded arguments.
  bool_t (*xp_freeargs)(SVCXPRT* xprt, xdrproc_t xargs, void* argsp);
  // Closes the socket and frees the transport.
  void (*xp_destroy)(SVCXPRT* xprt);
};

// Decides whether the current request of a transport (its caller in
// xp_raddr) is served; a request refused is dropped without any reply.
typedef bool_t (*svc_sender_check_t)(SVCXPRT* xprt);

struct SVCXPRT {
  int xp_sock;
  u_short xp_port;  // bound port, host order
  const svc_xp_ops* xp_ops;
  struct sockaddr_storage xp_raddr;  // caller of the current request
  socklen_t xp_addrlen;
  uint32_t xp_xid;              // xid of the current request
  void* xp_p1;                  // transport-private data
  svc_sender_check_t xp_check;  // null: every caller is served
  void* xp_check_context;       // for xp_check; borrowed
  RpcService* xp_svc;           // the service it belongs to; borrowed
};

struct svc_req {
  u_long rq_prog;
  u_long rq_vers;
  u_long rq_proc;
  opaque_auth rq_cred;
  SVCXPRT* rq_xprt;
  void* rq_context;  // what the routine was registered with
};

typedef void (*svc_dispatch_t)(svc_req* rqstp, SVCXPRT* xprt);

// One service loop's state. It must outlive the transports made for it;
// the transports still registered when it goes are closed and freed.
// Change it only through the functions below.
class RpcService {
 public:
  RpcService();
  ~RpcService();
  RpcService(const RpcService&) = delete;
  RpcService& operator=(const RpcService&) = delete;

  struct Callout {
    u_long prog;
    u_long vers;
    svc_dispatch_t dispatch;
    void* context;
  };

  fd_set fdset;             // the loop's read set
  int maxsock = 0;          // highest descriptor of fdset + 1
  SVCXPRT* xports[NOFILE];  // the transport of each descriptor
  std::vector<Callout> callouts;
  std::atomic<bool> running{false};  // cleared by terminateSvcrun
  // Anyone can send requests: the transports decode them with this limit on
  // the log lines of refused lengths (rpc/Xdr.h).
  RateLimit decodeRefusals{20, 60};
};

// Registers dispatch for prog/vers in the transport's service (protocol is
// kept for the record only); each request for it reaches dispatch with
// context in rq_context. FALSE when prog/vers is already registered with
// another routine or context.
bool_t svc_register(SVCXPRT* xprt, u_long prog, u_long vers, svc_dispatch_t dispatch,
                    u_long protocol, void* context = nullptr);
void svc_unregister(RpcService& svc, u_long prog, u_long vers);

// Puts the transport's socket into its service's read set; a socket >=
// NOFILE is logged ("exceeded NOFILE=%d!!"), closed, and never served.
void xprt_register(SVCXPRT* xprt);
void xprt_unregister(SVCXPRT* xprt);
// The transport registered for a descriptor, or null.
SVCXPRT* svc_xprt_of(const RpcService& svc, int fd);
// Unregisters, closes and frees a transport.
void svc_destroy(SVCXPRT* xprt);
// Installs the check of the callers of a transport's requests (null: none)
// and what it checks against (borrowed, as long as the transport serves).
void svc_set_sender_check(SVCXPRT* xprt, svc_sender_check_t check, void* context = nullptr);

// Serves until terminateSvcrun, a stop request (base/Stop.h) or a select
// failure other than EINTR.
void svc_run(RpcService& svc);
// Clears the running flag; logs "terminate on JVM exit" at level 10.
void terminateSvcrun(RpcService& svc);
// Serves the requests waiting on the descriptors of readfds / on one descriptor.
void svc_getreqset(RpcService& svc, fd_set* readfds);
void svc_getreq_common(RpcService& svc, int fd);
// Checks a decoded call header and hands the request to its dispatch routine
// or answers it with the standard error. Used by transports.
void svc_dispatch_request(SVCXPRT* xprt, rpc_call_hdr* hdr);

// Replies. Each returns TRUE when the reply was sent (the svcerr_* are void,
// as in ONC RPC).
bool_t svc_sendreply(SVCXPRT* xprt, xdrproc_t xresults, void* results);
void svcerr_noproc(SVCXPRT* xprt);                             // PROC_UNAVAIL
void svcerr_decode(SVCXPRT* xprt);                             // GARBAGE_ARGS
void svcerr_systemerr(SVCXPRT* xprt);                          // SYSTEM_ERR
void svcerr_noprog(SVCXPRT* xprt);                             // PROG_UNAVAIL
void svcerr_progvers(SVCXPRT* xprt, u_long low, u_long high);  // PROG_MISMATCH
void svcerr_auth(SVCXPRT* xprt, auth_stat why);                // AUTH_ERROR
void svcerr_weakauth(SVCXPRT* xprt);                           // AUTH_TOOWEAK

// Arguments of the current request.
bool_t svc_getargs(SVCXPRT* xprt, xdrproc_t xargs, void* argsp);
bool_t svc_freeargs(SVCXPRT* xprt, xdrproc_t xargs, void* argsp);

#endif  // RPC_SVC_H_
