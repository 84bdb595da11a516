// testtsa against OpenSSL: every token shape verifies with "openssl ts
// -verify" and shows its fields in "openssl ts -reply -text"; every fault
// token fails there for the reason it was made for.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

using testing_support::ChildResult;
using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::writeFile;

const std::string kTestTsa = std::string(CLOCKETTE_BINARY_DIR) + "/tools/testtsa/testtsa";

// One request over the raw RFC 3161 TCP transport; the DER answer.
std::string askOverTcp(int port, const std::string& request) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string frame;
  uint32_t length = static_cast<uint32_t>(request.size() + 1);
  for (int shift = 24; shift >= 0; shift -= 8) frame += static_cast<char>(length >> shift);
  frame += '\0';
  frame += request;
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      send(fd, frame.data(), frame.size(), 0) == static_cast<ssize_t>(frame.size())) {
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) answer.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return answer.size() > 5 ? answer.substr(5) : std::string();
}

class TestTsaShapes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pki_ = new TempDir(); }
  static void TearDownTestSuite() { delete pki_; }

  // Starts a server with args and requests a token for each text in turn;
  // the last answer and its data stay in dir_ as "resp" and "data".
  void stamp(const std::vector<std::string>& args, const std::vector<std::string>& texts,
             bool certReq = true) {
    std::vector<std::string> argv = {kTestTsa, "--dir",        pki_->path(), "--http-port",
                                     "-1",     "--https-port", "-1"};
    argv.insert(argv.end(), args.begin(), args.end());
    testing_support::BackgroundChild server(argv);
    std::string line;
    int port = -1;
    while (server.readLine(&line, 60) && line != "ready") {
      if (line.rfind("tcp_port=", 0) == 0) port = std::stoi(line.substr(9));
      if (line.rfind("tsa_cert=", 0) == 0) tsaCert_ = line.substr(9);
    }
    for (const std::string& text : texts) {
      writeFile(dir_.file("data"), text);
      std::vector<std::string> query = {"/usr/bin/openssl", "ts",      "-query", "-data",
                                        dir_.file("data"),  "-sha256", "-out",   dir_.file("req")};
      if (certReq) query.push_back("-cert");
      ASSERT_EQ(runChild(query).exitCode, 0);
      writeFile(dir_.file("resp"), askOverTcp(port, readFile(dir_.file("req"))));
    }
  }
  // openssl ts -verify's output; with untrusted the signer certificate file is given too.
  ChildResult verify(bool untrusted) {
    std::vector<std::string> argv = {"/usr/bin/openssl",  "ts",    "-verify",         "-in",
                                     dir_.file("resp"),   "-data", dir_.file("data"), "-CAfile",
                                     pki_->file("ca.pem")};
    if (untrusted) argv.insert(argv.end(), {"-untrusted", tsaCert_});
    return runChild(argv);
  }
  std::string text() {
    return runChild({"/usr/bin/openssl", "ts", "-reply", "-in", dir_.file("resp"), "-text"}).out;
  }

  static TempDir* pki_;
  TempDir dir_;
  std::string tsaCert_;
};

TempDir* TestTsaShapes::pki_ = nullptr;

TEST_F(TestTsaShapes, RealServerShapesVerifyWithOpenSsl) {
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> shown;  // in openssl ts -reply -text
  } cases[] = {
      {{}, {"Serial number: 0x01\n", "Accuracy: 0x01 seconds", "Ordering: no", "TSA: unspecified"}},
      {{"--serial-bytes", "20", "--key", "rsa-pss", "--intermediate", "--ess", "both"},
       {"Serial number: 0x", "00000001\n"}},
      {{"--key", "ec384", "--intermediate", "--ess", "v2", "--unsigned-attr"}, {}},
      {{"--key", "ec256", "--accuracy", "0,500,20", "--ordering", "--tsa-name", "--time-digits",
        "6"},
       {"Accuracy: unspecified seconds, 0x01F4 millis, 0x14 micros", "Ordering: yes",
        "TSA: DirName:/O=clockette test/CN=clockette test TSA"}},
  };
  for (const Case& c : cases) {
    std::string args;
    for (const std::string& a : c.args) args += a + " ";
    SCOPED_TRACE(args);
    stamp(c.args, {"document " + args});
    ChildResult r = verify(false);
    EXPECT_NE(r.out.find("Verification: OK"), std::string::npos) << r.out << r.err;
    std::string shown = text();
    for (const std::string& s : c.shown) EXPECT_NE(shown.find(s), std::string::npos) << shown;
    if (!c.args.empty() && c.args[0] == "--serial-bytes") {
      size_t at = shown.find("Serial number: 0x") + 17;
      EXPECT_EQ(shown.find('\n', at) - at, 40u) << shown;
    }
  }
}

TEST_F(TestTsaShapes, FaultTokensFailWithOpenSslForTheirReason) {
  struct Case {
    const char* fault;
    const char* reason;
  } cases[] = {
      {"otherimprint", "message imprint mismatch"},
      {"replay", "message imprint mismatch"},  // the answer for "first" to "second"
      {"badsignature", "padding check failed"},
      {"nocert", "signer certificate not found"},
      {"noeku", "unsuitable certificate purpose"},
      {"expired", "certificate has expired"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    stamp({"--fault", c.fault}, {"first", "second"});
    ChildResult r = verify(std::string(c.fault) != "nocert");
    EXPECT_NE(r.out.find("Verification: FAILED"), std::string::npos) << r.out << r.err;
    EXPECT_NE((r.out + r.err).find(c.reason), std::string::npos) << r.out << r.err;
  }
}

}  // namespace
