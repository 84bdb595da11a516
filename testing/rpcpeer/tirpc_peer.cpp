// tirpc_peer: a client and a server of the test program built on the
// system's ONC RPC library (libtirpc), to check our runtime against an
// independent implementation.
//
//   tirpc_peer serve
//       serves TESTPROG/TESTVERS over UDP on an ephemeral port of all
//       addresses, prints "PORT <n>" and runs until killed.
//   tirpc_peer call <port> <prog> <vers> <proc> <result> <arg>...
//       calls 127.0.0.1:<port> once (total time-out 5 s); result is void,
//       int or str; each arg is int:<n> or str:<text>. Prints "OK <result>"
//       or "ERR <clnt_sperror text>".
#include <rpc/rpc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define TESTPROG_NO_SOCKET
#include "testing/rpcpeer/TestProg.h"

namespace {

struct Arg {
  bool isInt;
  int number;
  char* text;
};

std::vector<Arg> gArgs;

bool_t encodeArgs(XDR* x, void*) {
  for (Arg& a : gArgs)
    if (!(a.isInt ? xdr_int(x, &a.number) : xdr_wrapstring(x, &a.text))) return FALSE;
  return TRUE;
}

void dispatch(struct svc_req* rq, SVCXPRT* xprt) {
  switch (rq->rq_proc) {
    case TESTPROC_NULL:
      svc_sendreply(xprt, (xdrproc_t)xdr_void, nullptr);
      return;
    case TESTPROC_ADD: {
      int ab[2] = {0, 0};
      struct Pair {
        static bool_t xdr(XDR* x, int* p) { return xdr_int(x, &p[0]) && xdr_int(x, &p[1]); }
      };
      if (!svc_getargs(xprt, (xdrproc_t)Pair::xdr, (char*)ab)) {
        svcerr_decode(xprt);
        return;
      }
      int sum = ab[0] + ab[1];
      svc_sendreply(xprt, (xdrproc_t)xdr_int, (char*)&sum);
      return;
    }
    case TESTPROC_ECHO: {
      char* text = nullptr;
      if (!svc_getargs(xprt, (xdrproc_t)xdr_wrapstring, (char*)&text)) {
        svcerr_decode(xprt);
        return;
      }
      svc_sendreply(xprt, (xdrproc_t)xdr_wrapstring, (char*)&text);
      svc_freeargs(xprt, (xdrproc_t)xdr_wrapstring, (char*)&text);
      return;
    }
    default:
      svcerr_noproc(xprt);
  }
}

int serve() {
  SVCXPRT* xprt = svcudp_create(RPC_ANYSOCK);
  if (xprt == nullptr) {
    fprintf(stderr, "svcudp_create failed\n");
    return 1;
  }
  // Protocol 0: not announced to a port mapper.
  if (!svc_register(xprt, TESTPROG, TESTVERS, dispatch, 0)) {
    fprintf(stderr, "svc_register failed\n");
    return 1;
  }
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(xprt->xp_fd, reinterpret_cast<sockaddr*>(&a), &len);
  printf("PORT %d\n", ntohs(a.sin_port));
  fflush(stdout);
  svc_run();
  return 1;
}

int call(int argc, char** argv) {
  if (argc < 7) return 2;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const u_long prog = strtoul(argv[3], nullptr, 0), vers = strtoul(argv[4], nullptr, 0);
  const u_long proc = strtoul(argv[5], nullptr, 0);
  const std::string result = argv[6];
  for (int i = 7; i < argc; ++i) {
    if (strncmp(argv[i], "int:", 4) == 0)
      gArgs.push_back({true, atoi(argv[i] + 4), nullptr});
    else if (strncmp(argv[i], "str:", 4) == 0)
      gArgs.push_back({false, 0, argv[i] + 4});
  }
  int sock = RPC_ANYSOCK;
  timeval wait = {1, 0};
  CLIENT* cl = clntudp_create(&a, prog, vers, wait, &sock);
  if (cl == nullptr) {
    printf("ERR %s\n", clnt_spcreateerror("create"));
    return 1;
  }
  timeval total = {5, 0};
  int number = 0;
  char* text = nullptr;
  xdrproc_t xres = (xdrproc_t)xdr_void;
  void* res = nullptr;
  if (result == "int") {
    xres = (xdrproc_t)xdr_int;
    res = &number;
  } else if (result == "str") {
    xres = (xdrproc_t)xdr_wrapstring;
    res = &text;
  }
  const clnt_stat st = clnt_call(cl, proc, (xdrproc_t)encodeArgs, nullptr, xres, (char*)res, total);
  if (st != RPC_SUCCESS)
    printf("ERR %s\n", clnt_sperror(cl, "call"));
  else if (result == "int")
    printf("OK %d\n", number);
  else if (result == "str")
    printf("OK %s\n", text);
  else
    printf("OK\n");
  fflush(stdout);
  if (st == RPC_SUCCESS) clnt_freeres(cl, xres, (char*)res);
  clnt_destroy(cl);
  return st == RPC_SUCCESS ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "serve") == 0) return serve();
  if (argc >= 2 && strcmp(argv[1], "call") == 0) return call(argc, argv);
  fprintf(stderr, "usage: tirpc_peer serve | call <port> <prog> <vers> <proc> <result> <arg>...\n");
  return 2;
}
