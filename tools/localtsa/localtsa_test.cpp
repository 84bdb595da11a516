// End to end: localtsa as a child process on loopback, requests made and
// responses verified by OpenSSL's command line tool, HTTP by libcurl.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "tstl/CAsn1time.h"
#include "tstl/tsrequest.h"

namespace {

using testing_support::BackgroundChild;
using testing_support::ChildOptions;
using testing_support::kUnset;
using testing_support::makeDir;
using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::writeFile;

const char kProgram[] = CLOCKETTE_BINARY_DIR "/tools/localtsa/localtsa";
const char kClockette[] = CLOCKETTE_BINARY_DIR "/app/clockette";

// "openssl ts -verify" of a BASE64 timestamp file against the data, the CA
// and the signer certificate; "" when it verifies.
std::string verifyTimestampFile(const std::string& tsFile, const std::string& dataFile,
                                const std::string& caFile, const std::string& certFile) {
  std::string der = tsFile + ".der";
  auto decoded = runChild(
      {"/bin/sh", "-c", "/usr/bin/openssl base64 -d -A -in '" + tsFile + "' -out '" + der + "'"});
  if (decoded.exitCode != 0) return decoded.err;
  auto verify = runChild({"/usr/bin/openssl", "ts", "-verify", "-data", dataFile, "-in", der,
                          "-CAfile", caFile, "-untrusted", certFile});
  return verify.exitCode == 0 ? "" : verify.out + verify.err;
}

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

TEST(LocalTsaTest, OpenSslRequestsGetResponsesThatOpenSslVerifies) {
  for (const char* keyType : {"rsa", "dsa"}) {
    SCOPED_TRACE(keyType);
    LocalTsa tsa({"--key-type", keyType});
    ASSERT_TRUE(tsa.ready());
    TempDir work;
    writeFile(work.file("data.txt"), "a document for the local signer\n");
    for (const char* digest : {"-sha256", "-sha512"}) {
      SCOPED_TRACE(digest);
      // "-cert": the signer certificate comes with the token, so the CA is enough.
      auto query = runChild({"/usr/bin/openssl", "ts", "-query", "-data", work.file("data.txt"),
                             digest, "-cert", "-out", work.file("req.der")});
      ASSERT_EQ(query.exitCode, 0) << query.err;
      std::string request = readFile(work.file("req.der"));
      HttpResult answer = http(tsa.url("/any/path"), &request);
      ASSERT_EQ(answer.error, "");
      ASSERT_EQ(answer.status, 200) << answer.body;
      writeFile(work.file("resp.der"), answer.body);
      auto verify = runChild({"/usr/bin/openssl", "ts", "-verify", "-data", work.file("data.txt"),
                              "-in", work.file("resp.der"), "-CAfile", tsa.value("ca_file")});
      EXPECT_EQ(verify.exitCode, 0) << verify.out << verify.err;

      writeFile(work.file("other.txt"), "another document\n");
      auto wrong = runChild({"/usr/bin/openssl", "ts", "-verify", "-data", work.file("other.txt"),
                             "-in", work.file("resp.der"), "-CAfile", tsa.value("ca_file")});
      EXPECT_NE(wrong.exitCode, 0);
    }
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

// The requester against the local signer, with the library's own signing
// time form (no zone designator) and with the zone written: the file is
// stamped and OpenSSL verifies the stamp.
TEST(LocalTsaTest, RequesterStampsAFileWithTheLocalSigner) {
  for (bool zoned : {false, true}) {
    SCOPED_TRACE(zoned ? "zoned signing time" : "signing time without zone");
    LocalTsa tsa(zoned ? std::vector<std::string>{"--zoned-signing-time"}
                       : std::vector<std::string>{});
    ASSERT_TRUE(tsa.ready());
    TempDir work;
    writeFile(work.file("data.txt"), "stamped through the requester\n");
    ASSERT_EQ(initTimeStamper(), 0);
    ASSERT_EQ(initTsServer("127.0.0.1", static_cast<uint16_t>(std::stoi(tsa.value("http_port"))),
                           "http", "stamp"),
              0);
    ASSERT_EQ(initStamperAuth("", ""), 0);
    int rc = requestTimestamp(work.file("data.txt").c_str(), work.file("data.tst").c_str());
    EXPECT_NE(tsa.stop().find("POST /</stamp HTTP/1.1 -> 200"), std::string::npos);
    ASSERT_EQ(rc, 0);
    // The token carries no certificate: the requester does not ask for one.
    EXPECT_EQ(verifyTimestampFile(work.file("data.tst"), work.file("data.txt"),
                                  tsa.value("ca_file"), tsa.value("tsa_cert")),
              "");
  }
}

// The worker itself, in test mode over a document directory, against the
// local signer, with either form of the signing time.
TEST(LocalTsaTest, ClocketteStampsDocumentsWithTheLocalSigner) {
  for (bool zoned : {false, true}) {
    SCOPED_TRACE(zoned ? "zoned signing time" : "signing time without zone");
    LocalTsa tsa(zoned ? std::vector<std::string>{"--zoned-signing-time"}
                       : std::vector<std::string>{});
    ASSERT_TRUE(tsa.ready());
    TempDir work;
    makeDir(work.file("setup"));
    makeDir(work.file("docs"));
    std::string doc = work.file("docs/doc1");
    makeDir(doc);
    writeFile(doc + "/a.txt", "a document of the pipeline\n");
    writeFile(doc + "/COMMANDS", "TIMESTAMP_FILE a.txt a.tst\n");
    ChildOptions options;
    options.cwd = work.path();
    options.env["CONFIG"] = work.path();
    options.env["KV_NOTIFY_FILE"] = work.file("notices");
    for (const char* name : {"ZEPH_SRV_LOG", "KVDIR", "ECM_CONF_DIRS", "TS_HASHALG"}) {
      options.env[name] = kUnset;
    }
    auto run = runChild({kClockette, "-test", "-testpath", work.file("docs"), "-host", "127.0.0.1",
                         "-port", tsa.value("http_port"), "-protocol", "http", "-url_path", "/",
                         "-logfile", work.file("clockette.log")},
                        options);
    std::string output = run.out + run.err;
    EXPECT_EQ(run.exitCode, 0) << output;
    EXPECT_NE(output.find("op=ok"), std::string::npos) << output;
    EXPECT_EQ(verifyTimestampFile(doc + "/a.tst", doc + "/a.txt", tsa.value("ca_file"),
                                  tsa.value("tsa_cert")),
              "");
  }
}

}  // namespace
