// The requester against the test Timestamp Server (tools/testtsa) running as a
// separate process on loopback: every transport, the digests, Basic
// authorization, each broken-server behaviour and the time-outs.
#include "tstl/tsrequest.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/ts.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>

#include "base/Log.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "tools/testtsa/CertMaker.h"
#include "tstl/CAsn1messageImprint.h"
#include "tstl/CAsn1string.h"
#include "tstl/Der.h"

namespace {

using testing_support::ChildOptions;
using testing_support::fileExists;
using testing_support::LogCapture;
using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::TestTsa;
using testing_support::TestTsaOptions;
using testing_support::testTsaProgram;
using testing_support::writeFile;

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() { unsetenv(name_); }

 private:
  const char* name_;
};

std::string decodeBase64(const std::string& text) {
  std::string out(text.size(), '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) return std::string();
  size_t pad = 0;
  while (pad < text.size() && pad < 2 && text[text.size() - 1 - pad] == '=') ++pad;
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

// The hash algorithm OpenSSL reads from the TSTInfo of a DER TimeStampResp.
int imprintNidOf(const std::string& der) {
  const auto* p = reinterpret_cast<const unsigned char*>(der.data());
  TS_RESP* resp = d2i_TS_RESP(nullptr, &p, static_cast<long>(der.size()));
  if (resp == nullptr) return NID_undef;
  int nid = NID_undef;
  if (TS_TST_INFO* info = TS_RESP_get_tst_info(resp)) {
    const ASN1_OBJECT* obj = nullptr;
    X509_ALGOR_get0(&obj, nullptr, nullptr,
                    TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(info)));
    nid = OBJ_obj2nid(obj);
  }
  TS_RESP_free(resp);
  return nid;
}

// A loopback TCP port that nobody listens on.
uint16_t unusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

int portFor(const TestTsa& tsa, const std::string& protocol) {
  if (protocol == "http") return tsa.httpPort();
  if (protocol == "https") return tsa.httpsPort();
  return tsa.tcpPort();
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class TsRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log::setLevel(8, 1);
    ASSERT_EQ(initTimeStamper(), 0);
    source_ = dir_.file("document.pdf");
    target_ = dir_.file("document.tst");
    writeFile(source_, "%PDF-1.4 something worth a timestamp\n");
  }
  void TearDown() override {
    initStamperAuth(nullptr, nullptr);  // clears the credentials
    for (int level = 5; level <= Log::kMaxLevel; ++level) Log::setLevel(level, 0);
  }

  // A server with its certificates in this test's directory (shared by the
  // servers of one test, so the keys are made once).
  std::unique_ptr<TestTsa> startTsa(TestTsaOptions options = {}) {
    options.dir = dir_.file("pki");
    if (!fileExists(options.dir)) testing_support::makeDir(options.dir);
    auto tsa = std::make_unique<TestTsa>(testTsaProgram(), options);
    EXPECT_TRUE(tsa->ready());
    return tsa;
  }

  // Checks target: one line of BASE64, decoding to a response that OpenSSL
  // verifies against the data, the CA and the TSA certificate. Returns the DER.
  std::string expectVerifiedTimestamp(const TestTsa& tsa, const std::string& data) {
    std::string text = readFile(target_);
    EXPECT_TRUE(std::regex_match(text, std::regex("[A-Za-z0-9+/]+={0,2}"))) << text;
    std::string der = decodeBase64(text);
    EXPECT_EQ(testing_support::verifyTimestampResponse(der, data, tsa.caFile(), tsa.tsaCertFile()),
              "");
    return der;
  }

  TempDir dir_;
  std::string source_;
  std::string target_;
};

struct TransportCase {
  const char* protocol;
  const char* host;
  const char* path;  // nullptr: the default
  size_t dataSize;   // bytes of the stamped file
  const char* serverSees;
};

TEST_F(TsRequestTest, StampsOverEachTransportAndOpenSslVerifiesTheFile) {
  const TransportCase cases[] = {
      {"http", "127.0.0.1", "tsa/stamp", 37, "transport=http path=/</tsa/stamp "},
      {"http", "localhost", nullptr, 0, "transport=http path=/<// "},
      {"https", "localhost", "tsa", 1024, "transport=https path=/</tsa "},
      {"https", "127.0.0.1", nullptr, 3000, "transport=https path=/<// "},
      {"tcp", "127.0.0.1", nullptr, 2048, "transport=tcp flag=0 "},
      {"tcp", "localhost", nullptr, 1, "transport=tcp flag=0 "},
  };
  auto tsa = startTsa();
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.protocol) + " " + c.host + " size " + std::to_string(c.dataSize));
    std::string data;
    for (size_t i = 0; i < c.dataSize; ++i) data += static_cast<char>('a' + i % 23);
    writeFile(source_, data);
    unlink(target_.c_str());
    initTsServer(c.host, static_cast<uint16_t>(portFor(*tsa, c.protocol)), c.protocol, c.path);
    LogCapture log;
    ASSERT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0) << log.text();
    std::string der = expectVerifiedTimestamp(*tsa, source_);
    EXPECT_EQ(imprintNidOf(der), NID_sha256);
    EXPECT_TRUE(log.contains("Timestamp for document " + source_ + " written to " + target_));
  }
  std::string requests = tsa->stop();
  for (const auto& c : cases)
    EXPECT_NE(requests.find(c.serverSees), std::string::npos) << c.serverSees;
  EXPECT_NE(requests.find("content_type=application/timestamp-query"), std::string::npos);
}

// The digest is chosen once per process, so each choice runs in a child
// process: this test binary again, with only the child test below selected.
TEST(TsRequestChild, StampWithDigestFromEnvironment) {
  const char* port = getenv("TSREQ_CHILD_PORT");
  if (port == nullptr) GTEST_SKIP() << "runs as a child of EachHashAlgorithm";
  for (int level = 5; level <= 10; ++level) Log::setLevel(level, 1);
  Log::setLogFile(getenv("TSREQ_CHILD_LOG"));
  ASSERT_EQ(initTimeStamper(), 0);
  initTsServer("127.0.0.1", static_cast<uint16_t>(atoi(port)), "http", nullptr);
  EXPECT_EQ(getDigest(), atoi(getenv("TSREQ_CHILD_NID")));
  EXPECT_EQ(requestTimestamp(getenv("TSREQ_CHILD_SOURCE"), getenv("TSREQ_CHILD_TARGET")), 0);
}

TEST_F(TsRequestTest, EachHashAlgorithm) {
  struct Case {
    const char* hashalg;  // nullptr: unset
    int nid;
    bool unknown;
  };
  const Case cases[] = {
      {nullptr, NID_sha256, false},        {"SHA256", NID_sha256, false},
      {"SHA1", NID_sha1, false},           {"SHA512", NID_sha512, false},
      {"RIPEMD160", NID_ripemd160, false}, {"sha256", NID_sha256, true},
      {"MD5", NID_sha256, true},           {"SHA384", NID_sha384, false},
      {"SHA3-256", NID_sha3_256, false},   {"SHA3-512", NID_sha3_512, false},
  };
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(n, 0);
  self[n] = '\0';
  auto tsa = startTsa();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hashalg ? c.hashalg : "(unset)");
    unlink(target_.c_str());
    std::string logFile = dir_.file("child.log");
    ChildOptions options;
    options.env = {{"TSREQ_CHILD_PORT", std::to_string(tsa->httpPort())},
                   {"TSREQ_CHILD_NID", std::to_string(c.nid)},
                   {"TSREQ_CHILD_SOURCE", source_},
                   {"TSREQ_CHILD_TARGET", target_},
                   {"TSREQ_CHILD_LOG", logFile},
                   {"TS_HASHALG", c.hashalg ? c.hashalg : testing_support::kUnset}};
    auto r = runChild({self, "--gtest_filter=TsRequestChild.*"}, options);
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    ASSERT_NE(r.out.find("[  PASSED  ] 1 test"), std::string::npos) << r.out;
    std::string der = expectVerifiedTimestamp(*tsa, source_);
    EXPECT_EQ(imprintNidOf(der), c.nid);
    std::string unknownMessage = std::string("Message Digest '") + (c.hashalg ? c.hashalg : "") +
                                 "' unknown .. defaulting to SHA256";
    EXPECT_EQ(readFile(logFile).find(unknownMessage) != std::string::npos, c.unknown);
    unlink(logFile.c_str());
  }
}

TEST_F(TsRequestTest, BasicAuthorizationIsSentAndRequired) {
  TestTsaOptions options;
  options.requireAuth = true;
  options.login = "stamp-user";
  options.password = "s3cret-pass";
  auto tsa = startTsa(options);
  for (const char* protocol : {"http", "https"}) {
    SCOPED_TRACE(protocol);
    initTsServer("127.0.0.1", static_cast<uint16_t>(portFor(*tsa, protocol)), protocol, "x");
    ASSERT_EQ(initStamperAuth("stamp-user", "s3cret-pass"), 0);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0);
    expectVerifiedTimestamp(*tsa, source_);
    unlink(target_.c_str());

    ASSERT_EQ(initStamperAuth("stamp-user", "wrong"), 0);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), -2);
    EXPECT_FALSE(fileExists(target_));

    LogCapture log;
    EXPECT_EQ(initStamperAuth(nullptr, "s3cret-pass"), -1);  // also clears the credentials
    EXPECT_TRUE(log.contains("Parameter is null"));
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), -2);
    EXPECT_TRUE(log.contains("HTTP error-code = 401 (login needed\n)")) << log.text();
    EXPECT_FALSE(fileExists(target_));
  }
  std::string requests = tsa->stop();
  EXPECT_NE(requests.find("transport=https path=/</x bytes="), std::string::npos);
  EXPECT_NE(requests.find("auth=ok"), std::string::npos);
  EXPECT_NE(requests.find("auth=bad"), std::string::npos);
  EXPECT_NE(requests.find("auth=none"), std::string::npos);
}

TEST_F(TsRequestTest, EmptyLoginAndPasswordStillSendTheHeader) {
  TestTsaOptions options;
  options.requireAuth = true;  // demands "Basic Og==", the BASE64 of ":"
  auto tsa = startTsa(options);
  initTsServer("127.0.0.1", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr);
  ASSERT_EQ(initStamperAuth("", ""), 0);
  EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0);
  EXPECT_NE(tsa->stop().find("auth=ok"), std::string::npos);
}

TEST_F(TsRequestTest, CredentialsNeverReachTheLog) {
  auto tsa = startTsa();
  for (int level = 0; level <= Log::kMaxLevel; ++level) Log::setLevel(level, 1);
  ScopedEnv debug("CURL_DEBUG", "1");
  LogCapture log;
  initTsServer("localhost", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr);
  ASSERT_EQ(initStamperAuth("stamp-user", "s3cret-pass"), 0);
  ASSERT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0);
  std::string text = log.text();
  EXPECT_NE(text.find("TimestampRequester Authentication credentials set: ********"),
            std::string::npos);
  EXPECT_NE(text.find("HEADER_OUT"), std::string::npos) << "curl's trace is on";
  EXPECT_NE(text.find("Authorization: Basic ********"), std::string::npos);
  // The plain secret, its BASE64 (c3RhbXAtdXNlcjpzM2NyZXQtcGFzcw==) and pieces of it.
  for (const char* secret : {"s3cret-pass", "c3RhbXAtdXNlcjpzM2NyZXQtcGFzcw", "zM2NyZXQtcGFzcw"}) {
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  }
}

struct FaultCase {
  const char* fault;
  const char* protocol;
  int exchangeResult;  // of the exchange alone
  int fileResult;      // of the per-file request
  const char* message;
};

TEST_F(TsRequestTest, BrokenServersGiveTheirResultCodesAndLeaveNoFile) {
  const FaultCase cases[] = {
      {"http500", "http", -5, -2, "HTTP error-code = 500 (test server fault: internal error)"},
      {"reject", "http", 0, -3, "Timestamp server returned unexpected status 2"},
      {"reject", "tcp", 0, -3, "request rejected by the test server"},
      {"notworking", "http", -9, -2, "timestamp server 127.0.0.1 is currently not working"},
      {"notworking", "tcp", -9, -2, "timestamp server 127.0.0.1 is currently not working"},
      {"body4096", "https", -7, -2, "timestamp received is larger than 4096 bytes!?"},
      {"body4096", "tcp", -7, -2, "timestamp received is larger than 4096 bytes!?"},
      {"bodylarge", "http", -4, -2, "curl returns error 23("},
      {"bodylarge", "tcp", -7, -2, "timestamp received is larger than 4096 bytes!?"},
      {"badflag", "tcp", -10, -2,
       "timestamp server 127.0.0.1 did not respond with a valid timestamp"},
      {"garbage", "http", 0, -3, "Parsing timestamp status info failed"},
      {"garbage", "tcp", 0, -3, "Parsing timestamp status info failed"},
      {"empty", "http", -8, -2, "no data received. errno = "},
      {"empty", "tcp", -8, -2, "no data received. errno = "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.fault) + " over " + c.protocol);
    TestTsaOptions options;
    options.fault = c.fault;
    auto tsa = startTsa(options);
    initTsServer("127.0.0.1", static_cast<uint16_t>(portFor(*tsa, c.protocol)), c.protocol,
                 nullptr);
    LogCapture log;
    CAsn1messageImprint imprint;
    ASSERT_EQ(computeHash(source_.c_str(), getDigest(), &imprint), 0);
    CAsn1string response(kTagOctetString);
    EXPECT_EQ(requestTimestamp(&imprint, &response), c.exchangeResult);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), c.fileResult);
    EXPECT_FALSE(fileExists(target_));
    EXPECT_TRUE(log.contains(c.message)) << log.text();
  }
}

TEST_F(TsRequestTest, HangingServerIsCutOffByTheTotalTimeout) {
  TestTsaOptions options;
  options.fault = "hang";
  auto tsa = startTsa(options);
  ScopedEnv timeout("TS_TIMEOUT", "2");
  const struct {
    const char* protocol;
    int result;
    const char* message;
  } cases[] = {
      {"http", -4, "curl returns error 28("},
      {"https", -4, "curl returns error 28("},
      {"tcp", -8, "no data received. errno = 110(Connection timed out)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.protocol);
    initTsServer("127.0.0.1", static_cast<uint16_t>(portFor(*tsa, c.protocol)), c.protocol,
                 nullptr);
    LogCapture log;
    CAsn1messageImprint imprint;
    ASSERT_EQ(computeHash(source_.c_str(), getDigest(), &imprint), 0);
    CAsn1string response(kTagOctetString);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(requestTimestamp(&imprint, &response), c.result);
    double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 1.5);
    EXPECT_LT(elapsed, 6.0);
    EXPECT_TRUE(log.contains(c.message)) << log.text();
  }
}

TEST_F(TsRequestTest, TimeoutVariablesOutOfRangeFallBackToTheDefaults) {
  // Values whose milliseconds overflow an int would leave libcurl with no
  // time-out at all and make poll wait for ever.
  const struct {
    const char* value;
    long effective;
    bool refused;
  } cases[] = {{"7", 7, false},       {"2147483", 2147483, false},
               {"2147484", 60, true}, {"99999999999999999999", 60, true},
               {"0", 60, true},       {"-5", 60, true},
               {"12s", 60, true},     {"", 60, false}};
  Log::setLevel(9, 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    ScopedEnv timeout("TS_TIMEOUT", c.value);
    LogCapture log;
    initTsServer("127.0.0.1", 1, "tcp", nullptr);
    EXPECT_TRUE(
        log.contains("connect time-out 10 s, total time-out " + std::to_string(c.effective) + " s"))
        << log.text();
    EXPECT_EQ(log.contains("TS_TIMEOUT '" + std::string(c.value) +
                           "' is no number of seconds from 1 to 2147483, using 60"),
              c.refused)
        << log.text();
  }
}

TEST_F(TsRequestTest, RefusedConnectionIsRetriedWithinTheConnectTimeout) {
  ScopedEnv timeout("TS_CONNECT_TIMEOUT", "3");
  uint16_t port = unusedPort();
  for (const char* protocol : {"tcp", "http"}) {
    SCOPED_TRACE(protocol);
    initTsServer("127.0.0.1", port, protocol, nullptr);
    LogCapture log;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), -2);
    double elapsed = secondsSince(start);
    EXPECT_FALSE(fileExists(target_));
    if (std::string(protocol) == "tcp") {
      EXPECT_GE(elapsed, 1.5) << "refused connections are tried again";
      EXPECT_LT(elapsed, 5.0);
      EXPECT_TRUE(log.contains("cannot connect to timestamp server host 127.0.0.1, port " +
                               std::to_string(port) +
                               ", addr 127.0.0.1, errno=111(Connection refused)"))
          << log.text();
      EXPECT_TRUE(log.contains("openSocket failed"));
    } else {
      EXPECT_TRUE(log.contains("curl returns error 7(")) << log.text();
    }
  }
  LogCapture log;
  initTsServer("no-such-host.invalid", port, "tcp", nullptr);
  EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), -2);
  EXPECT_TRUE(log.contains("timestamp server host no-such-host.invalid unknown"));
}

TEST_F(TsRequestTest, BracketedIpv6Address) {
  TestTsaOptions options;
  options.bindAddress = "::1";
  options.dir = dir_.path();
  auto tsa = std::make_unique<TestTsa>(testTsaProgram(), options);
  if (!tsa->ready()) GTEST_SKIP() << "no IPv6 loopback here: " << tsa->stop();
  for (const char* protocol : {"tcp", "http"}) {
    SCOPED_TRACE(protocol);
    initTsServer("[::1]", static_cast<uint16_t>(portFor(*tsa, protocol)), protocol, nullptr);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0);
    expectVerifiedTimestamp(*tsa, source_);
    unlink(target_.c_str());
  }
  ScopedEnv timeout("TS_CONNECT_TIMEOUT", "1");
  LogCapture log;
  initTsServer("[::1]", static_cast<uint16_t>(tsa->httpPort() == 1 ? 2 : 1), "tcp", nullptr);
  EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), -2);
  EXPECT_TRUE(log.contains(", addr [::1], errno=111(Connection refused)")) << log.text();
}

TEST_F(TsRequestTest, HostVerificationFollowsTsVerfhost) {
  // The TLS certificate names localhost, 127.0.0.1 and ::1, not 127.0.0.2.
  TestTsaOptions options;
  options.bindAddress = "127.0.0.2";
  auto tsa = startTsa(options);
  const struct {
    const char* value;  // nullptr: unset
    int result;
  } cases[] = {{nullptr, 0}, {"off", 0}, {"On", 0},   {"true", 0}, {"on", -2},
               {"ON", -2},   {"1", -2},  {"yes", -2}, {"Y", -2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    ScopedEnv verify("TS_VERFHOST", c.value);
    initTsServer("127.0.0.2", static_cast<uint16_t>(tsa->httpsPort()), "https", nullptr);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), c.result);
    unlink(target_.c_str());
  }
}

// What OpenSSL reads from a stored answer: nonce (hex, empty without), policy
// and the number of certificates in the token.
struct StoredFacts {
  std::string nonceHex;
  std::string policy;
  int certs = -1;
};
StoredFacts storedFacts(const std::string& der) {
  StoredFacts f;
  const auto* p = reinterpret_cast<const unsigned char*>(der.data());
  TS_RESP* resp = d2i_TS_RESP(nullptr, &p, static_cast<long>(der.size()));
  TS_TST_INFO* info = resp != nullptr ? TS_RESP_get_tst_info(resp) : nullptr;
  if (info != nullptr) {
    if (const ASN1_INTEGER* nonce = TS_TST_INFO_get_nonce(info)) {
      BIGNUM* bn = ASN1_INTEGER_to_BN(nonce, nullptr);
      char* hex = BN_bn2hex(bn);
      f.nonceHex = hex;
      OPENSSL_free(hex);
      BN_free(bn);
    }
    char text[128];
    OBJ_obj2txt(text, sizeof text, TS_TST_INFO_get_policy_id(info), 1);
    f.policy = text;
    const STACK_OF(X509)* certs = TS_RESP_get_token(resp)->d.sign->cert;
    f.certs = certs != nullptr ? sk_X509_num(certs) : 0;
  }
  TS_RESP_free(resp);
  return f;
}

TEST_F(TsRequestTest, TokenSettingsAgainstTheTestServer) {
  auto tsa = startTsa();
  testtsa::CertAuthority otherCa;
  const std::string otherCaFile = dir_.file("other-ca.pem");
  ASSERT_TRUE(otherCa.writeCaPem(otherCaFile));
  const std::string ca = tsa->caFile();
  const std::string tsaCert = tsa->tsaCertFile();
  struct Case {
    const char* name;
    std::vector<std::pair<const char*, std::string>> env;
    int result;
    const char* logged;  // part of the log; "" = nothing in particular
    bool nonce;          // the stored token carries a nonce
    int certs;           // certificates in the stored token
  } cases[] = {
      {"plain", {}, 0, "signature not checked", false, 0},
      {"certReq", {{"TS_CERTREQ", "on"}}, 0, "signature checked, chain not checked", false, 2},
      {"nonce", {{"TS_NONCE", "yes"}}, 0, "", true, 0},
      {"policy", {{"TS_POLICY", "1.2.3.4.1"}}, 0, "", false, 0},
      {"another policy", {{"TS_POLICY", "1.2.3.4.9"}}, -3, "unexpected status 2", false, -1},
      {"anchors, certReq",
       {{"TS_TRUST_CA", ca}, {"TS_CERTREQ", "on"}},
       0,
       "chain checked",
       false,
       2},
      {"anchors, TSA certificate file",
       {{"TS_TRUST_CA", ca}, {"TS_TSA_CERTS", tsaCert}},
       0,
       "chain checked",
       false,
       0},
      {"anchors, no signer",
       {{"TS_TRUST_CA", ca}},
       -3,
       "Timestamp refused: the signer certificate is neither",
       false,
       -1},
      {"another anchor",
       {{"TS_TRUST_CA", otherCaFile}, {"TS_CERTREQ", "on"}},
       -3,
       "does not chain to a trust anchor",
       false,
       -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::unique_ptr<ScopedEnv>> env;
    for (const auto& [name, value] : c.env)
      env.push_back(std::make_unique<ScopedEnv>(name, value.c_str()));
    ASSERT_EQ(initTsServer("127.0.0.1", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr),
              0);
    Log::setLevel(9, 1);
    LogCapture log;
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), c.result) << log.text();
    Log::setLevel(9, 0);
    EXPECT_TRUE(log.contains(c.logged)) << log.text();
    if (c.result != 0) {
      EXPECT_TRUE(log.contains("Parsing timestamp failed"));
      EXPECT_FALSE(fileExists(target_));
      continue;
    }
    const StoredFacts facts = storedFacts(expectVerifiedTimestamp(*tsa, source_));
    EXPECT_EQ(!facts.nonceHex.empty(), c.nonce) << facts.nonceHex;
    EXPECT_EQ(facts.policy, "1.2.3.4.1");  // the test server's
    EXPECT_EQ(facts.certs, c.certs);
    unlink(target_.c_str());
  }
  for (const char* bad : {"TS_TRUST_CA", "TS_TSA_CERTS", "TS_CAFILE"}) {
    ScopedEnv env(bad, dir_.file("missing.pem").c_str());
    LogCapture log;
    EXPECT_EQ(initTsServer("127.0.0.1", 1, "http", nullptr), -1) << bad;
    EXPECT_TRUE(log.contains("missing.pem")) << log.text();
  }
  ScopedEnv policy("TS_POLICY", "no-oid");
  EXPECT_EQ(initTsServer("127.0.0.1", 1, "http", nullptr), -1);
  unsetenv("TS_POLICY");
  initTsServer("127.0.0.1", 1, "http", nullptr);
}

TEST_F(TsRequestTest, ResponseLimitFollowsTsResponseLimit) {
  TestTsaOptions options;
  options.fault = "bodylarge";  // a granted answer padded to 8192 bytes
  auto tsa = startTsa(options);
  const struct {
    const char* limit;  // nullptr: unset
    int result;
    const char* logged;
  } cases[] = {
      {nullptr, -2, "curl returns error 23"},
      {"8192", -2, "timestamp received is larger than 8192 bytes!?"},
      {"16384", 0, ""},
      {"1048577", -2, "TS_RESPONSE_LIMIT '1048577' is no number of bytes from 1024 to 1048576"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit ? c.limit : "(unset)");
    ScopedEnv limit("TS_RESPONSE_LIMIT", c.limit);
    LogCapture log;
    initTsServer("127.0.0.1", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr);
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), c.result);
    EXPECT_TRUE(log.contains(c.logged)) << log.text();
    unlink(target_.c_str());
  }
}

TEST_F(TsRequestTest, TlsChainCheckWithTsCafile) {
  // The TLS certificate names localhost, 127.0.0.1 and ::1, not 127.0.0.2.
  TestTsaOptions options;
  options.bindAddress = "127.0.0.2";
  auto tsa = startTsa(options);
  testtsa::CertAuthority otherCa;
  ASSERT_TRUE(otherCa.writeCaPem(dir_.file("other-ca.pem")));
  auto tsaLocal = startTsa();
  const struct {
    const char* name;
    const TestTsa& server;
    const char* host;
    std::string caFile;
    int result;
  } cases[] = {
      {"server's CA", *tsaLocal, "127.0.0.1", tsaLocal->caFile(), 0},
      {"another CA", *tsaLocal, "localhost", dir_.file("other-ca.pem"), -2},
      {"name mismatch", *tsa, "127.0.0.2", tsa->caFile(), -2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedEnv caFile("TS_CAFILE", c.caFile.c_str());
    initTsServer(c.host, static_cast<uint16_t>(c.server.httpsPort()), "https", nullptr);
    LogCapture log;
    EXPECT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), c.result) << log.text();
    unlink(target_.c_str());
  }
}

TEST_F(TsRequestTest, CredentialsOverAnUncheckedConnectionDrawOneWarning) {
  const std::string ca = dir_.file("ca.pem");
  writeFile(ca, "");
  const struct {
    const char* protocol;
    const char* caFile;  // nullptr: unset
    const char* login;
    const char* warning;  // nullptr: none
  } cases[] = {
      {"http", nullptr, "user", "over plain HTTP"},
      {"https", nullptr, "user", "over HTTPS without a checked server certificate"},
      {"https", ca.c_str(), "user", nullptr},
      {"http", nullptr, "", nullptr},
      {"tcp", nullptr, "user", nullptr},
  };
  for (const auto& c : cases) {
    ScopedEnv caFile("TS_CAFILE", c.caFile);
    initTsServer("127.0.0.1", 1, c.protocol, nullptr);
    LogCapture log;
    initStamperAuth(c.login, "");
    const std::string text = log.text();
    const size_t first = text.find("Basic credentials go to the Timestamp Server");
    EXPECT_EQ(first != std::string::npos, c.warning != nullptr) << c.protocol << text;
    if (first != std::string::npos) {
      EXPECT_EQ(text.find("Basic credentials go", first + 1), std::string::npos) << text;
    }
    if (c.warning != nullptr) {
      EXPECT_TRUE(log.contains(c.warning)) << log.text();
    }
  }
}

TEST_F(TsRequestTest, OnlyRegularFilesAreHashedAndAtOnce) {
  auto tsa = startTsa();
  initTsServer("127.0.0.1", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr);
  std::string fifo = dir_.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string zero = dir_.file("zero");
  ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
  const struct {
    std::string source;
    std::string text;
  } cases[] = {
      {dir_.file("missing.pdf"),
       "File " + dir_.file("missing.pdf") + " cannot be read: errno=2 (No such file or directory)"},
      {dir_.path(), "File " + dir_.path() + " is no regular file"},
      {fifo, "File " + fifo + " is no regular file"},  // no writer: would block for ever
      {zero, "File " + zero + " is no regular file"},  // would be read for ever
  };
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(requestTimestamp(c.source.c_str(), target_.c_str()), -1) << c.source;
    EXPECT_TRUE(log.contains(c.text)) << c.source;
    EXPECT_TRUE(log.contains("Hashing " + c.source + " failed")) << c.source;
    EXPECT_FALSE(fileExists(target_));
  }
}

TEST_F(TsRequestTest, TheTargetIsReplacedWholeAndNeverWrittenThroughALink) {
  auto tsa = startTsa();
  initTsServer("127.0.0.1", static_cast<uint16_t>(tsa->httpPort()), "http", nullptr);
  std::string elsewhere = dir_.file("elsewhere");
  writeFile(elsewhere, "not to be touched");
  ASSERT_EQ(symlink(elsewhere.c_str(), target_.c_str()), 0);
  // A leftover of a killed attempt, and a link planted at the temporary name.
  std::string temporary = dir_.file(".document.tst.tmp");
  ASSERT_EQ(symlink(elsewhere.c_str(), temporary.c_str()), 0);
  ASSERT_EQ(requestTimestamp(source_.c_str(), target_.c_str()), 0);
  EXPECT_EQ(readFile(elsewhere), "not to be touched");
  struct stat status;
  ASSERT_EQ(lstat(target_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_GT(status.st_size, 100);
  EXPECT_FALSE(fileExists(temporary));

  LogCapture log;
  std::string badTarget = dir_.file("no-such-dir/document.tst");
  EXPECT_EQ(requestTimestamp(source_.c_str(), badTarget.c_str()), -5);
  EXPECT_TRUE(log.contains("Unable to open " + badTarget + " for writing: open('" +
                           dir_.file("no-such-dir/.document.tst.tmp") +
                           "') failed: errno=2 (No such file or directory)"));
}

TEST_F(TsRequestTest, ObjectIdentifiersAreRegisteredOnce) {
  int nid = getOrCreateOID("1.3.6.1.4.1.7359.1.2", "tsPol", "Timestamper Policy");
  EXPECT_NE(nid, 0);
  EXPECT_EQ(getOrCreateOID("1.3.6.1.4.1.7359.1.2", "other", "other"), nid);
  EXPECT_EQ(getOrCreateOID("1.2.840.113549.1.9.16.1.4", "x", "y"), NID_id_smime_ct_TSTInfo);
  LogCapture log;
  EXPECT_EQ(getOrCreateOID("not an oid", "bad", "Bad Object"), 0);
  EXPECT_TRUE(log.contains("Unable to create ASN.1 object 'Bad Object' not an oid ('bad')."));
}

}  // namespace
