#include "app/Clockette.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/FaultyFileSystem.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace {

using namespace testing_support;

class ClocketteTest : public ::testing::Test {
 protected:
  void SetUp() override { makeDir(dir_.file("setup")); }
  // The worker's settings: the test's directory and values, nothing else.
  void settings(MapEnvironment* env,
                const std::vector<std::pair<const char*, const char*>>& values = {}) {
    env->set("CONFIG", dir_.path().c_str());
    env->set("ZEPH_SRV_LOG", dir_.path().c_str());
    for (const auto& [name, value] : values) env->set(name, value);
  }
  TempDir dir_;
};

TEST_F(ClocketteTest, DefaultSettingsText) {
  MapEnvironment env;
  settings(&env, {{"KVHOST", "kvhost"}});
  Clockette c(env);
  Argv a{"/opt/bin/clockette"};
  ASSERT_EQ(c.init(a.argc(), a.argv()), 1);
  testing::internal::CaptureStderr();
  c.printObject();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            readFile(std::string(CLOCKETTE_SOURCE_DIR) + "/app/testdata/settings.txt"));
}

TEST_F(ClocketteTest, TimestampServerSettingsFromEnvironmentAndOptions) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> env;
    Argv args;
    const char *host, *protocol, *urlPath, *login, *password;
    int port;
    const char* url = "";
  } cases[] = {
      // clang-format off
      {{{"TIMESTAMP_HOST", "a"}, {"TIMESTAMP_PORT", "318"}, {"TIMESTAMP_PROTOCOL", "https"},
        {"TIMESTAMP_URL_PATH", "/tsa"}, {"TIMESTAMP_LOGIN", "u"}, {"TIMESTAMP_PASSWORD", "p"},
        {"TIMESTAMP_URL", "https://a/tsr"}},
       {"c"}, "a", "https", "/tsa", "u", "p", 318, "https://a/tsr"},
      // The command line wins over the environment.
      {{{"TIMESTAMP_HOST", "a"}, {"TIMESTAMP_PORT", "318"}, {"TIMESTAMP_URL", "https://a/tsr"}},
       {"c", "-host", "b", "-port", "70000", "-protocol", "x", "-url_path", "/p", "-login", "l",
        "-password", "w", "-url", "http://b:8/x"}, "b", "x", "/p", "l", "w", 70000, "http://b:8/x"},
      // A variable set to an empty value replaces the default; atoi decides the port.
      {{{"TIMESTAMP_HOST", ""}, {"TIMESTAMP_URL_PATH", ""}, {"TIMESTAMP_PORT", "http"}},
       {"c"}, "", "http", "", "", "", 0},
      // A value that looks like an option is still the value (no test mode).
      {{}, {"c", "-host", "-test"}, "-test", "http", "/", "", "", 8080},
      // clang-format on
  };
  for (Case& c : cases) {
    MapEnvironment env;
    settings(&env, c.env);
    Clockette tool(env);
    ASSERT_EQ(tool.init(c.args.argc(), c.args.argv()), 1);
    EXPECT_EQ(tool.host, c.host);
    EXPECT_EQ(tool.protocol, c.protocol);
    EXPECT_EQ(tool.urlPath, c.urlPath);
    EXPECT_EQ(tool.url, c.url);
    EXPECT_EQ(tool.login, c.login);
    EXPECT_EQ(tool.password, c.password);
    EXPECT_EQ(tool.port, c.port);
    EXPECT_TRUE(tool.testCount.empty());
  }
}

// Every file of a directory but the lock file, with its content.
std::map<std::string, std::string> filesOf(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::string name = entry.path().filename();
    if (name != ".COMMANDS.lock") files[name] = readFile(entry.path());
  }
  return files;
}

// A full or failing disk at any one step of a document: the document is
// reported failed and left exactly as it was, or, when only the protocol
// could not be written, with its new statement whole in COMMANDS.
TEST_F(ClocketteTest, AFailingWriteAtAnyStepFailsTheDocumentAndLeavesItAsItWas) {
  TestTsa tsa(testTsaProgram());
  ASSERT_TRUE(tsa.ready());
  const std::string doc = dir_.file("doc");
  const std::map<std::string, std::string> before = {
      {"COMMANDS", "TIMESTAMP_COMP\nCOMP c text/plain c.txt\nTIMESTAMP_FILE a.txt a.tst"},
      {"KVprotocol", "2024/03/05 14:07:09 [earlier] done\n"},
      {"a.txt", "a"},
      {"c.txt", "c"}};
  auto reset = [&] {
    std::filesystem::remove_all(doc);
    makeDir(doc);
    for (const auto& f : before) writeFile(doc + "/" + f.first, f.second);
  };
  const std::string port = std::to_string(tsa.httpPort());
  Argv a{"clockette", "-test",     "-testpath", doc.c_str(),
         "-host",     "127.0.0.1", "-port",     port.c_str()};
  MapEnvironment env;
  settings(&env);
  Clockette tool(env);
  ASSERT_EQ(tool.init(a.argc(), a.argv()), 1);
  FaultyFileSystem fs;
  tool.fileSystem = &fs;
  const std::string added = "\nCOMP_TIMESTAMP_FILE \"c\" \"c_ts0.txt\"\n";
  for (int err : {ENOSPC, EIO}) {
    long n = 1;
    for (;; ++n) {
      reset();
      fs.failCall(n, err);
      int result = tool.work(doc.c_str());
      if (!fs.failed()) {
        EXPECT_EQ(result, 1);
        break;
      }
      const std::string failed = fs.calls()[static_cast<size_t>(n - 1)];
      SCOPED_TRACE(std::to_string(err) + " at " + failed);
      EXPECT_EQ(result, 0);
      std::map<std::string, std::string> after = filesOf(doc);
      if (after["COMMANDS"] == before.at("COMMANDS") + added) {
        // Only the protocol failed: the stamps stay, as COMMANDS names them.
        EXPECT_TRUE(contains(failed, "/KVprotocol"));
        for (const char* kept : {"c_ts0.txt", "a.tst", "COMMANDS.clockette"}) after.erase(kept);
        after["COMMANDS"] = before.at("COMMANDS");
      }
      EXPECT_EQ(after, before);
    }
    EXPECT_GT(n, 20);  // all the steps were there to fail
    EXPECT_EQ(readFile(doc + "/COMMANDS"), before.at("COMMANDS") + added);
    EXPECT_TRUE(contains(readFile(doc + "/KVprotocol"), "got timestamps from Timestamp Server"));
  }
}

}  // namespace
