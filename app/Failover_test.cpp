// Retries and fallback servers through the program: clockette -test as a
// child process against test Timestamp Servers (tools/testtsa) that fail in
// chosen ways, and loopback ports that refuse every connection. The servers
// count the requests they get.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TimestampFile.h"

namespace {

using testing_support::ChildOptions;
using testing_support::ChildResult;
using testing_support::fileExists;
using testing_support::kUnset;
using testing_support::makeDir;
using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::TestTsa;
using testing_support::TestTsaOptions;
using testing_support::testTsaProgram;
using testing_support::verifyTimestampFile;
using testing_support::writeFile;

const std::string kProgram = std::string(CLOCKETTE_BINARY_DIR) + "/app/clockette";

// A loopback port that is bound but never listens: every connection to it is
// refused while the descriptor is open.
int refusingPort(int* fd) {
  *fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  bind(*fd, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(*fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

int requestsIn(const std::string& serverLog) {
  int n = 0;
  for (size_t at = serverLog.find("request transport="); at != std::string::npos;
       at = serverLog.find("request transport=", at + 1)) {
    ++n;
  }
  return n;
}

TEST(FailoverTest, FailuresThatMayPassAreRetriedOrSentOnAndAnswersAreNot) {
  const struct {
    const char* name;
    // "<fault>/<protocol>[*<requests that get the fault>]", the primary first;
    // fault "refuse" is a refusing port, "auth" a server demanding a login.
    std::vector<std::string> peers;
    std::map<std::string, std::string> env;
    int documents;
    bool stamped;
    std::vector<int> requests;  // per peer; -1 for a refusing port
    const char* logged;
    const char* notLogged = nullptr;
  } cases[] = {
      // clang-format off
      {"settings unset: one attempt, as designed", {"http500/http"}, {}, 1, false, {1},
       "HTTP error-code = 500 (test server fault: internal error)", "attempt 1"},
      {"nothing listens: the server named, and curl's own text", {"refuse/http"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, false, {-1}, "/<//: Failed to connect to 127.0.0.1 port "},
      {"nothing listens over tcp", {"refuse/tcp"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, false, {-1}, "Timestamp Server 127.0.0.1:"},
      {"refusing primary, working fallback", {"refuse/http", "/tcp"}, {}, 1, true, {-1, 1},
       "attempt 1 failed (Couldn't connect to server); skipped for 60 s, trying tcp://127.0.0.1:"},
      {"HTTP 500 primary", {"http500/http", "/https"}, {}, 1, true, {1, 1}, "failed (HTTP 500)"},
      {"dead first fallback", {"notworking/tcp", "refuse/tcp", "/http"},
       {{"TS_CONNECT_TIMEOUT", "1"}}, 1, true, {1, -1, 1}, "attempt 1 failed (no connection)"},
      {"a rejection is an answer: no retry, no fallback", {"reject/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "returned unexpected status 2", "attempt 1"},
      {"a token that fails the checks is an answer", {"otherimprint/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "Timestamp refused: the token covers", "attempt 1"},
      {"HTTP 4xx is an answer", {"auth/http", "/http"},
       {{"TS_RETRIES", "2"}}, 1, false, {1, 0}, "HTTP error-code = 401", "attempt 1"},
      {"retries are counted at the server", {"http500/http*2"},
       {{"TS_RETRIES", "3"}}, 1, true, {3}, "answered at attempt 3"},
      {"a time-out fails over", {"hang/http", "/http"},
       {{"TS_TIMEOUT", "2"}, {"TS_FILE_DEADLINE", "20"}}, 1, true, {1, 1}, "(Timeout was reached)"},
      {"the file deadline ends all attempts", {"hang/http", "/http"},
       {{"TS_RETRIES", "3"}, {"TS_FILE_DEADLINE", "2"}}, 1, false, {1, 0},
       "file deadline of 2 s reached"},
      {"a held server is skipped for the next document", {"http500/http", "/tcp"},
       {}, 2, true, {1, 2}, "attempts=1 ok=0 failed=1 held=1, tcp://127.0.0.1:"},
      {"no hold", {"http500/http", "/tcp"},
       {{"TS_FALLBACK_HOLD", "0"}}, 2, true, {2, 2}, "trying tcp"},
      // clang-format on
  };
  TempDir pki;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    for (const char* sub : {"config", "logs", "docs"}) makeDir(dir.file(sub));
    std::vector<std::unique_ptr<TestTsa>> servers;
    std::vector<int> refusing;
    std::string fallback;
    ChildOptions options;
    options.timeoutSeconds = 40;  // well below TS_TIMEOUT's default of 60 s
    options.env = {{"CONFIG", dir.file("config")}, {"TIMESTAMP_HOST", "127.0.0.1"}};
    for (const char* v : {"TIMESTAMP_URL_PATH", "TIMESTAMP_LOGIN", "TIMESTAMP_PASSWORD", "LOGLEVEL",
                          "TS_TIMEOUT", "TS_CONNECT_TIMEOUT", "TS_RETRIES", "TIMESTAMP_FALLBACK",
                          "TS_FALLBACK_HOLD", "TS_FILE_DEADLINE"}) {
      options.env[v] = kUnset;
    }
    for (const std::string& peer : c.peers) {
      std::string fault = peer.substr(0, peer.find('/'));
      std::string protocol = peer.substr(fault.size() + 1, peer.find('*') - fault.size() - 1);
      int port;
      if (fault == "refuse") {
        refusing.push_back(-1);
        port = refusingPort(&refusing.back());
        servers.push_back(nullptr);
      } else {
        TestTsaOptions o;
        o.dir = pki.path();
        o.requireAuth = fault == "auth";
        o.login = "someone";
        o.fault = o.requireAuth ? "" : fault;
        if (peer.find('*') != std::string::npos)
          o.faultCount = atol(peer.c_str() + peer.find('*') + 1);
        servers.push_back(std::make_unique<TestTsa>(testTsaProgram(), o));
        ASSERT_TRUE(servers.back()->ready());
        port = protocol == "http"    ? servers.back()->httpPort()
               : protocol == "https" ? servers.back()->httpsPort()
                                     : servers.back()->tcpPort();
      }
      std::string url = protocol + "://127.0.0.1:" + std::to_string(port);
      if (servers.size() == 1) {
        options.env["TIMESTAMP_PROTOCOL"] = protocol;
        options.env["TIMESTAMP_PORT"] = std::to_string(port);
      } else {
        fallback += (fallback.empty() ? "" : ",") + url;
      }
    }
    if (!fallback.empty()) options.env["TIMESTAMP_FALLBACK"] = fallback;
    for (const auto& e : c.env) options.env[e.first] = e.second;
    for (int d = 0; d < c.documents; ++d) {
      std::string doc = dir.file("docs/" + std::to_string(d));
      makeDir(doc);
      writeFile(doc + "/COMMANDS", "TIMESTAMP_FILE data.txt data.tst\n");
      writeFile(doc + "/data.txt", "data of document " + std::to_string(d));
    }

    ChildResult r = runChild({kProgram, "-test", "-testpath", dir.file("docs"), "-logfile",
                              dir.file("logs/clockette.log")},
                             options);
    std::string log = fileExists(dir.file("logs/clockette.log"))
                          ? readFile(dir.file("logs/clockette.log"))
                          : std::string();
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, c.stamped ? 0 : 1) << r.out << r.err << log;
    EXPECT_NE(log.find(c.logged), std::string::npos) << log;
    EXPECT_EQ(c.notLogged && log.find(c.notLogged) != std::string::npos, false) << log;
    const TestTsa* anyServer = nullptr;
    for (size_t i = 0; i < c.requests.size(); ++i) {
      if (servers[i]) anyServer = servers[i].get();
      EXPECT_EQ(servers[i] ? requestsIn(servers[i]->stop()) : -1, c.requests[i]) << "peer " << i;
    }
    for (int d = 0; d < c.documents; ++d) {
      std::string doc = dir.file("docs/" + std::to_string(d));
      if (c.stamped) {
        EXPECT_EQ(verifyTimestampFile(doc + "/data.tst", doc + "/data.txt", *anyServer), "");
      } else {
        EXPECT_FALSE(fileExists(doc + "/data.tst"));
      }
    }
    for (int fd : refusing) close(fd);
  }
}

}  // namespace
