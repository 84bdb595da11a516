// Our runtime against the system's ONC RPC library: a libtirpc client calls
// our service, and our client calls a libtirpc server (tirpc_peer).
#include <gtest/gtest.h>

#include <string>

#include "rpc/Clnt.h"
#include "testing/ChildProcess.h"
#include "testing/rpcpeer/ServiceLoop.h"
#include "testing/rpcpeer/TestProg.h"

using rpc_test::callAdd;
using rpc_test::ServiceLoop;
using rpc_test::UdpSocket;

namespace {

const std::string kPeer = std::string(CLOCKETTE_BINARY_DIR) + "/testing/tirpc_peer";

std::string peerCall(int port, u_long prog, u_long vers, u_long proc, const char* result,
                     const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kPeer, "call"};
  for (u_long n : {u_long(port), prog, vers, proc}) argv.push_back(std::to_string(n));
  argv.push_back(result);
  argv.insert(argv.end(), args.begin(), args.end());
  std::string out = testing_support::runChild(argv).out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST(Interop, TirpcClientCallsOurService) {
  ServiceLoop svc;
  svc.start();
  const std::string err = "ERR call: RPC: ";
  struct Case {
    u_long progAbove, versAbove, proc;  // program and version above TESTPROG and TESTVERS
    const char* result;
    std::vector<std::string> args;
    std::string expected;
  } cases[] = {
      {0, 0, TESTPROC_NULL, "void", {}, "OK"},
      {0, 0, TESTPROC_ADD, "int", {"int:2", "int:40"}, "OK 42"},
      {0, 0, TESTPROC_ECHO, "str", {"str:a text with blanks"}, "OK a text with blanks"},
      {0, 0, 9, "void", {}, err + "Procedure unavailable"},
      {0, 0, 3, "void", {}, err + "Remote system error"},
      {0, 0, TESTPROC_ECHO, "str", {"int:2147483647"}, err + "Server can't decode arguments"},
      {0, 1, 0, "void", {}, err + "Program/version mismatch; low version = 1, high version = 1"},
      {1, 0, 0, "void", {}, err + "Program unavailable"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, peerCall(svc.port(), TESTPROG + c.progAbove, TESTVERS + c.versAbove,
                                   c.proc, c.result, c.args));
  }
}

TEST(Interop, OurClientCallsATirpcServer) {
  testing_support::BackgroundChild server({kPeer, "serve"});
  std::string line;
  ASSERT_TRUE(server.readLine(&line)) << server.stderrText();
  ASSERT_EQ(0u, line.rfind("PORT ", 0)) << line;
  const int port = std::stoi(line.substr(5));
  const sockaddr_in addr = UdpSocket::loopback(port);
  int sock = RPC_ANYSOCK;
  ClientPtr cl(clntudp_create(&addr, TESTPROG, TESTVERS, {1, 0}, &sock));
  const timeval total = {5, 0};
  ASSERT_TRUE(cl);
  EXPECT_EQ(RPC_SUCCESS, clnt_call(cl.get(), TESTPROC_NULL, xdr_proc<xdr_void>, nullptr,
                                   xdr_proc<xdr_void>, nullptr, total));
  int sum = 0;
  EXPECT_EQ(RPC_SUCCESS, callAdd(cl.get(), -5, 47, &sum, total));
  EXPECT_EQ(42, sum);
  char* in = const_cast<char*>("odd length");
  char* out = nullptr;
  ASSERT_EQ(RPC_SUCCESS, clnt_call(cl.get(), TESTPROC_ECHO, xdr_proc<xdr_wrapstring>, &in,
                                   xdr_proc<xdr_wrapstring>, &out, total));
  EXPECT_STREQ("odd length", out);
  clnt_freeres(cl.get(), xdr_proc<xdr_wrapstring>, &out);
}

}  // namespace
