// localtsa as a child process on loopback: requests made and responses
// verified by OpenSSL's command line tool, HTTP by the curl command.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace {

using namespace testing_support;

const char kProgram[] = CLOCKETTE_BINARY_DIR "/tools/localtsa/localtsa";

// The HTTP status of a request to url, a POST of the file body unless empty;
// the answer lands in the file out.
long http(const std::string& url, const std::string& body, const std::string& out) {
  std::vector<std::string> argv = {"/usr/bin/curl", "-s", "-m", "30", "-o", out, "-w",
                                   "%{http_code}",  url};
  if (!body.empty()) {
    argv.insert(argv.end(),
                {"-H", "Content-Type: application/timestamp-query", "--data-binary", "@" + body});
  }
  return std::atol(runChild(argv).out.c_str());
}

// localtsa over the signer directory dir, with args.
std::unique_ptr<TestTsa> start(const std::string& dir, const std::vector<std::string>& args) {
  TestTsaOptions options;
  options.dir = dir;
  options.extraArgs = args;
  return std::make_unique<TestTsa>(kProgram, options);
}

// What the signer itself makes (either key type) is checked with the
// library's tests; here the server: any path, the signer certificate when
// asked, refusals of what is no request, and one signer per directory.
TEST(LocalTsaTest, AnswersOpenSslRequestsAndRefusesTheRest) {
  TempDir work;
  std::unique_ptr<TestTsa> tsa = start(work.file("pki"), {"--key-type", "dsa"});
  ASSERT_TRUE(tsa->ready());
  const std::string url = "http://127.0.0.1:" + std::to_string(tsa->httpPort());
  writeFile(work.file("data.txt"), "a document for the local signer\n");
  // "-cert": the signer certificate comes with the token, so the CA is enough.
  auto query = runChild({"/usr/bin/openssl", "ts", "-query", "-data", work.file("data.txt"),
                         "-sha256", "-cert", "-out", work.file("req.der")});
  ASSERT_EQ(query.exitCode, 0) << query.err;
  EXPECT_EQ(http(url + "/any/path", work.file("req.der"), work.file("resp.der")), 200);
  EXPECT_EQ(verifyTimestampResponse(readFile(work.file("resp.der")), work.file("data.txt"),
                                    tsa->caFile()),
            "");
  writeFile(work.file("junk.der"), "\x30\x03\x02\x01\x01");
  EXPECT_EQ(http(url + "/", work.file("junk.der"), work.file("out")), 400);
  EXPECT_EQ(http(url + "/", "", work.file("out")), 405);
  std::string log = tsa->stop();
  EXPECT_TRUE(contains(log, "POST /any/path HTTP/1.1 -> 200")) << log;
  EXPECT_TRUE(contains(log, "GET / HTTP/1.1 -> 405")) << log;

  // A server started over the same directory signs with the same signer.
  std::string cert = readFile(tsa->tsaCertFile());
  std::unique_ptr<TestTsa> again = start(work.file("pki"), {"--key-type", "rsa"});
  ASSERT_TRUE(again->ready());
  EXPECT_EQ(again->tsaCertFile(), tsa->tsaCertFile());
  EXPECT_EQ(readFile(again->tsaCertFile()), cert);
}

}  // namespace
