// clockette-verify as a child process over documents whose timestamp files
// come from real testtsa processes, cross-checked against "openssl ts
// -verify" on the same files.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace {

using namespace testing_support;

const std::string kVerify = std::string(CLOCKETTE_BINARY_DIR) + "/tools/verify/clockette-verify";

std::string base64(const std::string& der) {
  std::string out(4 * ((der.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(der.data()),
                          static_cast<int>(der.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

class VerifyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pki_ = new TempDir(); }
  static void TearDownTestSuite() { delete pki_; }

  // A server of the suite's CA with the given shape options or fault.
  static std::unique_ptr<TestTsa> startTsa(const std::vector<std::string>& args) {
    TestTsaOptions options;
    options.dir = pki_->path();
    options.extraArgs = args;
    return std::make_unique<TestTsa>(testTsaProgram(), options);
  }
  // Stamps doc/name (holding content) from tsa into doc/tstName as the
  // worker writes it (one BASE64 line); the DER answer also goes to tstName.der.
  static void stamp(const TestTsa& tsa, const std::string& doc, const std::string& name,
                    const std::string& content, const std::string& tstName, bool certReq) {
    writeFile(doc + "/" + name, content);
    std::string der = requestOverTcp(tsa, doc + "/" + name, certReq);
    writeFile(doc + "/" + tstName, base64(der));
    writeFile(doc + "/" + tstName + ".der", der);
  }
  static ChildResult verify(std::vector<std::string> args) {
    args.insert(args.begin(), kVerify);
    return runChild(args);
  }
  static std::string ca() { return pki_->file("ca.pem"); }

  static TempDir* pki_;
  TempDir dir_;
};

TempDir* VerifyTest::pki_ = nullptr;

// The faults a token can have are refused in TokenCheck_test; here the tool's
// own part: the file it hashes, its trust options and its verdicts.
TEST_F(VerifyTest, VerdictsAgreeWithOpenSsl) {
  struct Case {
    const char* name;
    std::vector<std::string> tsaArgs;
    bool certReq;
    bool withCa;     // --ca (and the openssl cross-check)
    bool withCerts;  // --certs with the signer and its intermediate
    bool changeData;
    bool ok;
    const char* reason;  // in clockette-verify's line when it fails
    // "openssl ts -verify" refuses signers named by key identifier; it reads
    // an answer with bytes after it as if they were not there.
    bool opensslTsAgrees = true;
  } cases[] = {
      // clang-format off
      {"plain", {}, false, true, true, false, true, ""},
      {"pss-serial20-chain",
       {"--key", "rsa-pss", "--serial-bytes", "20", "--intermediate", "--ess", "both"},
       true, true, false, false, true, ""},
      {"ec384-v2-extras",
       {"--key", "ec384", "--intermediate", "--ess", "v2", "--unsigned-attr", "--tsa-name",
        "--time-digits", "3", "--ordering"},
       true, true, false, false, true, ""},
      {"changed-file", {}, true, true, false, true, false, "the token covers"},
      // Without anchors the signature is still checked, with a signer at hand.
      {"signature-only", {}, true, false, false, false, true, ""},
      {"no-signer-at-hand", {}, false, false, false, false, false, "no signer certificate"},
      {"ski-serial64", {"--sid", "ski", "--serial-bytes", "64", "--intermediate"},
       true, true, false, false, true, "", false},
      {"pss-with-rsa-key", {"--pss"}, true, true, false, false, true, "", false},
      // clang-format on
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<TestTsa> tsa = startTsa(c.tsaArgs);
    ASSERT_TRUE(tsa->ready());
    std::string doc = dir_.file(c.name);
    makeDir(doc);
    writeFile(doc + "/COMMANDS", "TIMESTAMP_FILE data.txt data.tst\n");
    stamp(*tsa, doc, "data.txt", std::string("content of ") + c.name, "data.tst", c.certReq);
    if (c.changeData) writeFile(doc + "/data.txt", "changed later");

    std::vector<std::string> args;
    if (c.withCa) args.insert(args.end(), {"--ca", ca()});
    if (c.withCerts) args.insert(args.end(), {"--certs", tsa->tsaCertFile()});
    args.push_back(doc);
    ChildResult r = verify(args);
    EXPECT_EQ(r.exitCode, c.ok ? 0 : 1) << r.out << r.err;
    EXPECT_EQ(r.out.rfind(c.ok ? "ok     " + doc + "/data.tst" : "FAILED " + doc + "/data.tst", 0),
              0u)
        << r.out;
    EXPECT_TRUE(contains(r.out, c.reason)) << r.out;
    if (!c.withCa || !c.opensslTsAgrees) continue;
    const std::string why =
        testing_support::verifyTimestampResponse(readFile(doc + "/data.tst.der"), doc + "/data.txt",
                                                 ca(), c.withCerts ? tsa->tsaCertFile() : "");
    EXPECT_EQ(why.empty(), c.ok) << why;
  }
}

TEST_F(VerifyTest, WalksATreeOfDocumentsLeavesThemAsTheyAreAndRefusesOddFiles) {
  std::unique_ptr<TestTsa> tsa = startTsa({"--tsa-name"});
  ASSERT_TRUE(tsa->ready());
  std::string a = dir_.file("tree/a"), b = dir_.file("tree/sub/b");
  std::filesystem::create_directories(a);
  std::filesystem::create_directories(b);
  const std::string commandsA =
      "TIMESTAMP_FILE \"first file.txt\" first.tst\n"
      "TIMESTAMP_FILE lonely.txt\n"
      "TIMESTAMP_COMP\n"
      "COMP comp1 text/plain c1.txt\n"
      "COMP_TIMESTAMP_FILE \"comp1\" \"comp1_ts0.txt\"\n"
      "COMP_TIMESTAMP_FILE \"ghost\" \"ghost_ts0.txt\"\n";
  writeFile(a + "/COMMANDS", commandsA);
  // A backup a worker left behind is not restored by reading.
  writeFile(a + "/COMMANDS.clockette", "TIMESTAMP_COMP\n");
  stamp(*tsa, a, "first file.txt", "first", "first.tst", true);
  stamp(*tsa, a, "c1.txt", "component", "comp1_ts0.txt", true);
  writeFile(b + "/COMMANDS", "TIMESTAMP_FILE data.txt data.tst\n");
  stamp(*tsa, b, "data.txt", "data", "data.tst", true);
  writeFile(b + "/data.tst", "not BASE64!");

  ChildResult r = verify({"--ca", ca(), dir_.file("tree")});
  EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
  std::vector<std::string> lines;
  for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
    lines.push_back(r.out.substr(at, nl - at));
  }
  ASSERT_EQ(lines.size(), 5u) << r.out;
  EXPECT_EQ(lines[0].rfind("ok     " + a + "/first.tst genTime=\"", 0), 0u) << lines[0];
  EXPECT_TRUE(contains(lines[0], "\" serial=01 tsa=\"")) << lines[0];
  EXPECT_TRUE(contains(lines[0], "clockette test TSA")) << lines[0];
  EXPECT_TRUE(contains(lines[0], " policy=1.2.3.4.1")) << lines[0];
  EXPECT_EQ(lines[1].rfind("ok     " + a + "/comp1_ts0.txt ", 0), 0u) << lines[1];
  EXPECT_TRUE(contains(lines[2], "FAILED " + a + "/ghost_ts0.txt ")) << lines[2];
  EXPECT_TRUE(contains(lines[2], "reason=\"no COMP statement for component 'ghost'\"")) << lines[2];
  EXPECT_TRUE(contains(lines[3], "FAILED " + b + "/data.tst ")) << lines[3];
  EXPECT_TRUE(contains(lines[3], "no one-line BASE64")) << lines[3];
  EXPECT_EQ(lines[4], "4 timestamps in 2 documents: 2 ok, 2 failed");
  EXPECT_EQ(readFile(a + "/COMMANDS"), commandsA);
  EXPECT_TRUE(fileExists(a + "/COMMANDS.clockette"));

  r = verify({"--json", "--ca", ca(), a + "/"});
  EXPECT_TRUE(contains(r.out, "\"result\":\"failed\",\"file\":\"" + a + "/ghost_ts0.txt\""))
      << r.out;
  EXPECT_TRUE(contains(r.out, "\"documents\": 1, \"ok\": 2, \"failed\": 1}")) << r.out;

  // No document, no directory, unreadable trust: usage errors, not verdicts.
  makeDir(dir_.file("empty"));
  for (const std::vector<std::string>& args : {std::vector<std::string>{dir_.file("empty")},
                                               {dir_.file("missing")},
                                               {"--ca", dir_.file("missing.pem"), a},
                                               {}}) {
    EXPECT_EQ(verify(args).exitCode, 2) << args.size();
  }

  // What is no regular file, or too large, is refused unread, and the next file checked.
  std::string doc = dir_.file("odd");
  makeDir(doc);
  stamp(*tsa, doc, "data.txt", "data", "data.tst", true);
  for (const char* fifo : {"/pipe", "/fifo.tst"}) ASSERT_EQ(mkfifo((doc + fifo).c_str(), 0600), 0);
  makeDir(doc + "/dir.tst");
  writeFile(doc + "/big.tst", "");
  ASSERT_EQ(truncate((doc + "/big.tst").c_str(), 1398105), 0);  // BASE64 of 1 MiB, and one byte
  writeFile(doc + "/COMMANDS",
            "TIMESTAMP_FILE data.txt fifo.tst\nTIMESTAMP_FILE data.txt dir.tst\n"
            "TIMESTAMP_FILE data.txt big.tst\nTIMESTAMP_FILE /dev/zero data.tst\n"
            "TIMESTAMP_FILE pipe data.tst\nTIMESTAMP_FILE data.txt data.tst\n");
  r = verify({"--ca", ca(), "--certs", tsa->tsaCertFile(), doc});
  EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
  for (const std::string& line :
       {"FAILED " + doc + "/fifo.tst .* reason=\"cannot read the timestamp file: no regular file\"",
        "FAILED " + doc + "/dir.tst .*: no regular file\"",
        "FAILED " + doc + "/big.tst .*: larger than 1398104 bytes\"",
        "FAILED " + doc + "/data.tst .* reason=\"cannot hash /dev/zero: no regular file\"",
        "FAILED " + doc + "/data.tst .* reason=\"cannot hash " + doc + "/pipe: no regular file\"",
        std::string("6 timestamps in 1 document: 1 ok, 5 failed")}) {
    EXPECT_TRUE(std::regex_search(r.out, std::regex(line))) << line << "\n" << r.out;
  }
}

}  // namespace
