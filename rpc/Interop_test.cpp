// Our runtime against the system's ONC RPC library: a libtirpc client calls
// our service, and our client calls a libtirpc server (tirpc_peer).
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "rpc/Clnt.h"
#include "testing/ChildProcess.h"
#include "testing/rpcpeer/ServiceLoop.h"
#include "testing/rpcpeer/TestProg.h"

using rpc_test::ServiceLoop;
using rpc_test::UdpSocket;
using rpc_test::xdrPair;

namespace {

const std::string kPeer = std::string(CLOCKETTE_BINARY_DIR) + "/testing/tirpc_peer";

std::string peerCall(int port, u_long prog, u_long vers, u_long proc, const std::string& result,
                     std::vector<std::string> args) {
  std::vector<std::string> argv = {kPeer,
                                   "call",
                                   std::to_string(port),
                                   std::to_string(prog),
                                   std::to_string(vers),
                                   std::to_string(proc),
                                   result};
  argv.insert(argv.end(), args.begin(), args.end());
  testing_support::ChildResult r = testing_support::runChild(argv);
  std::string out = r.out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST(Interop, TirpcClientCallsOurService) {
  ServiceLoop svc;
  svc.start();
  const int port = svc.port();
  struct Case {
    u_long prog, vers, proc;
    const char* result;
    std::vector<std::string> args;
    const char* expected;
  } cases[] = {
      {TESTPROG, TESTVERS, TESTPROC_NULL, "void", {}, "OK"},
      {TESTPROG, TESTVERS, TESTPROC_ADD, "int", {"int:2", "int:40"}, "OK 42"},
      {TESTPROG,
       TESTVERS,
       TESTPROC_ECHO,
       "str",
       {"str:a text with blanks"},
       "OK a text with blanks"},
      {TESTPROG, TESTVERS, 9, "void", {}, "ERR call: RPC: Procedure unavailable"},
      {TESTPROG, TESTVERS, 3, "void", {}, "ERR call: RPC: Remote system error"},
      {TESTPROG,
       TESTVERS,
       TESTPROC_ECHO,
       "str",
       {"int:2147483647"},
       "ERR call: RPC: Server can't decode arguments"},
      {TESTPROG,
       TESTVERS + 1,
       0,
       "void",
       {},
       "ERR call: RPC: Program/version mismatch; low version = 1, high version = 1"},
      {TESTPROG + 1, TESTVERS, 0, "void", {}, "ERR call: RPC: Program unavailable"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, peerCall(port, c.prog, c.vers, c.proc, c.result, c.args));
}

TEST(Interop, OurClientCallsATirpcServer) {
  testing_support::BackgroundChild server({kPeer, "serve"});
  std::string line;
  ASSERT_TRUE(server.readLine(&line)) << server.stderrText();
  ASSERT_EQ(0u, line.rfind("PORT ", 0)) << line;
  const int port = std::stoi(line.substr(5));
  const sockaddr_in addr = UdpSocket::loopback(port);
  auto client = [&](u_long prog, u_long vers) {
    int sock = RPC_ANYSOCK;
    return ClientPtr(clntudp_create(&addr, prog, vers, {1, 0}, &sock));
  };
  const timeval total = {5, 0};

  auto cl = client(TESTPROG, TESTVERS);
  ASSERT_TRUE(cl);
  EXPECT_EQ(RPC_SUCCESS, clnt_call(cl.get(), TESTPROC_NULL, xdr_proc<xdr_void>, nullptr,
                                   xdr_proc<xdr_void>, nullptr, total));
  int ab[2] = {-5, 47}, sum = 0;
  EXPECT_EQ(RPC_SUCCESS, clnt_call(cl.get(), TESTPROC_ADD, xdr_proc<xdrPair>, ab, xdr_proc<xdr_int>,
                                   &sum, total));
  EXPECT_EQ(42, sum);
  char* in = const_cast<char*>("odd length");
  char* out = nullptr;
  ASSERT_EQ(RPC_SUCCESS, clnt_call(cl.get(), TESTPROC_ECHO, xdr_proc<xdr_wrapstring>, &in,
                                   xdr_proc<xdr_wrapstring>, &out, total));
  EXPECT_STREQ("odd length", out);
  clnt_freeres(cl.get(), xdr_proc<xdr_wrapstring>, &out);

  // One error reply; Clnt_test decodes every status from exact bytes.
  auto otherVers = client(TESTPROG, TESTVERS + 1);
  EXPECT_EQ(RPC_PROGVERSMISMATCH, clnt_call(otherVers.get(), 0, xdr_proc<xdr_void>, nullptr,
                                            xdr_proc<xdr_void>, nullptr, total));
  rpc_err err;
  clnt_geterr(otherVers.get(), &err);
  EXPECT_EQ(1u, err.re_vers.low);
  EXPECT_EQ(1u, err.re_vers.high);
}

}  // namespace
