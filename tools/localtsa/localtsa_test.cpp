// localtsa as a child process on loopback: requests made and responses
// verified by OpenSSL's command line tool, HTTP by libcurl.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace {

using namespace testing_support;

const char kProgram[] = CLOCKETTE_BINARY_DIR "/tools/localtsa/localtsa";

struct HttpResult {
  long status = 0;
  std::string body;
  std::string error;
};

size_t collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

HttpResult http(const std::string& url, const std::string* postBody) {
  HttpResult result;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/timestamp-query");
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerOwner(headers,
                                                                          curl_slist_free_all);
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &result.body);
  if (postBody != nullptr) {
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, postBody->data());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(postBody->size()));
  }
  CURLcode rc = curl_easy_perform(curl.get());
  if (rc != CURLE_OK) result.error = curl_easy_strerror(rc);
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &result.status);
  return result;
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
  std::string request = readFile(work.file("req.der"));
  HttpResult answer = http(url + "/any/path", &request);
  ASSERT_EQ(answer.error, "");
  ASSERT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(verifyTimestampResponse(answer.body, work.file("data.txt"), tsa->caFile()), "");
  std::string junk = "\x30\x03\x02\x01\x01";
  EXPECT_EQ(http(url + "/", &junk).status, 400);
  EXPECT_EQ(http(url + "/", nullptr).status, 405);
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
