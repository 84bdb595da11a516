// localtsa as a child process on loopback: requests made and responses
// verified by OpenSSL's command line tool, HTTP by libcurl.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace {

using testing_support::BackgroundChild;
using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::verifyTimestampResponse;
using testing_support::writeFile;

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

// localtsa started in a fresh directory; its settings as printed.
class LocalTsa {
 public:
  // The signer lives in dir, by default a new directory in a fresh temporary one.
  explicit LocalTsa(const std::vector<std::string>& extraArgs, std::string dir = "")
      : pki_(dir.empty() ? dir_.file("pki") : dir) {
    std::vector<std::string> argv = {kProgram, "--dir", pki_};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    child_ = std::make_unique<BackgroundChild>(argv);
    std::string line;
    while (child_->readLine(&line, 60)) {
      if (line == "ready") {
        ready_ = true;
        break;
      }
      size_t eq = line.find('=');
      if (eq != std::string::npos) values_[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  bool ready() const { return ready_; }
  std::string value(const std::string& key) { return values_[key]; }
  std::string url(const std::string& path) {
    return "http://127.0.0.1:" + value("http_port") + path;
  }
  std::string stop() {
    child_->stop();
    return child_->stderrText();
  }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  std::string pki_;
  std::unique_ptr<BackgroundChild> child_;
  std::map<std::string, std::string> values_;
  bool ready_ = false;
};

// What the signer itself makes is checked with the library's tests; here the
// server: any path, either key type, the signer certificate when asked.
TEST(LocalTsaTest, OpenSslRequestsGetResponsesThatOpenSslVerifies) {
  for (const char* keyType : {"rsa", "dsa"}) {
    SCOPED_TRACE(keyType);
    LocalTsa tsa({"--key-type", keyType});
    ASSERT_TRUE(tsa.ready());
    TempDir work;
    writeFile(work.file("data.txt"), "a document for the local signer\n");
    // "-cert": the signer certificate comes with the token, so the CA is enough.
    auto query = runChild({"/usr/bin/openssl", "ts", "-query", "-data", work.file("data.txt"),
                           "-sha256", "-cert", "-out", work.file("req.der")});
    ASSERT_EQ(query.exitCode, 0) << query.err;
    std::string request = readFile(work.file("req.der"));
    HttpResult answer = http(tsa.url("/any/path"), &request);
    ASSERT_EQ(answer.error, "");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(verifyTimestampResponse(answer.body, work.file("data.txt"), tsa.value("ca_file")),
              "");
    std::string log = tsa.stop();
    EXPECT_NE(log.find("POST /any/path HTTP/1.1 -> 200"), std::string::npos) << log;
  }
}

TEST(LocalTsaTest, RefusesWhatIsNoTimestampRequest) {
  LocalTsa tsa({});
  ASSERT_TRUE(tsa.ready());
  std::string junk = "\x30\x03\x02\x01\x01";
  HttpResult bad = http(tsa.url("/"), &junk);
  EXPECT_EQ(bad.status, 400);
  HttpResult get = http(tsa.url("/"), nullptr);
  EXPECT_EQ(get.status, 405);
  EXPECT_NE(tsa.stop().find("GET / HTTP/1.1 -> 405"), std::string::npos);

  // A server started over the same directory signs with the same signer.
  std::string cert = readFile(tsa.value("tsa_cert"));
  LocalTsa again({"--key-type", "dsa"}, tsa.value("dir"));
  ASSERT_TRUE(again.ready());
  EXPECT_EQ(again.value("tsa_cert"), tsa.value("tsa_cert"));
  EXPECT_EQ(readFile(again.value("tsa_cert")), cert);
}

}  // namespace
