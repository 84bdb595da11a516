// testtsa against OpenSSL: every token shape verifies with "openssl ts
// -verify" and shows its fields in "openssl ts -reply -text"; every fault
// token fails there for the reason it was made for.
#include "testing/TestTsa.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

class TestTsaShapes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pki_ = new TempDir(); }
  static void TearDownTestSuite() { delete pki_; }

  // Starts a server with args and asks it for a token for each text in turn
  // (with certReq); the last answer and its data stay as "resp" and "data".
  void stamp(const std::vector<std::string>& args, const std::vector<std::string>& texts) {
    TestTsaOptions options;
    options.dir = pki_->path();
    options.extraArgs = args;
    TestTsa tsa(testTsaProgram(), options);
    ASSERT_TRUE(tsa.ready());
    tsaCert_ = tsa.tsaCertFile();
    for (const std::string& text : texts) {
      writeFile(dir_.file("data"), text);
      writeFile(dir_.file("resp"), requestOverTcp(tsa, dir_.file("data"), true));
    }
  }
  // "" when OpenSSL verifies the last answer; with untrusted the signer
  // certificate file is given too.
  std::string verify(bool untrusted) {
    return verifyTimestampResponse(readFile(dir_.file("resp")), dir_.file("data"),
                                   pki_->file("ca.pem"), untrusted ? tsaCert_ : "");
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
    EXPECT_EQ(verify(false), "");
    std::string shown = text();
    for (const std::string& s : c.shown) EXPECT_TRUE(contains(shown, s)) << shown;
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
    const std::string why = verify(std::string(c.fault) != "nocert");
    EXPECT_TRUE(contains(why, "Verification: FAILED")) << why;
    EXPECT_TRUE(contains(why, c.reason)) << why;
  }
}

}  // namespace
