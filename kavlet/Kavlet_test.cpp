#include "kavlet/Kavlet.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "base/Log.h"
#include "base/Setup.h"
#include "testing/ChildProcess.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

struct TestKavlet : Kavlet {
  explicit TestKavlet(Environment& env) : Kavlet(env) {}
  int service(const char*) override { return 1; }
};

// Each test gets a configuration directory ($CONFIG/setup) and a log
// directory (ZEPH_SRV_LOG) in settings of its own, and leaves the current
// directory as it found it.
class KavletTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    cwd_ = cwd;
    for (const char* d : {"setup", "logs"}) makeDir(config_.file(d));
    env_.set("CONFIG", config_.path().c_str());
    env_.set("ZEPH_SRV_LOG", config_.file("logs").c_str());
  }
  void TearDown() override { ASSERT_EQ(chdir(cwd_.c_str()), 0); }
  void writePackage(const std::string& package, const std::string& text) {
    writeFile(config_.file("setup/" + package + ".Setup"), text);
  }
  static std::string golden(const char* name) {
    return readFile(std::string(CLOCKETTE_SOURCE_DIR) + "/kavlet/testdata/" + name);
  }
  TempDir config_;
  MapEnvironment env_;
  std::string cwd_;
};

TEST_F(KavletTest, ProgramNameRules) {
  struct Case {
    const char* path;
    const char* name;
  } cases[] = {
      {"C:\\bin\\tool.EXE", "tool"},
      {"x.exe", "x"},
      {".exe", ".exe"},  // nothing would be left
      {"tool.Exe", "tool.Exe"},
      {"/usr/local/bin/clockette", "clockette"},
      {"/opt/a\\b.exe", "a\\b"},  // a "/" wins over "\"
      {"dir/tool.exe.exe", "tool.exe"},
      {"", ""},
  };
  TestKavlet k(env_);
  for (const Case& c : cases) {
    EXPECT_EQ(k.setProgname(c.path), 1);
    EXPECT_EQ(k.name, c.name) << c.path;
    EXPECT_EQ(k.type, c.name) << c.path;
  }
}

TEST_F(KavletTest, LaterSourcesWin) {
  // COMMON and then the -env package fill the environment; the environment
  // beats the defaults and the command line beats everything.
  writePackage("COMMON", "KVPORT=5000\nKVHOST=commonhost\nLOGLEVEL=6\n");
  writePackage("site", "KVPORT=5001\n");
  ASSERT_EQ(readSetup(env_, "COMMON"), 1);
  struct Case {
    Argv args;
    int port, level;
    const char *host, *type;
  } cases[] = {
      {{"/bin/w"}, 5000, 6, "commonhost", "w"},
      {{"/bin/w", "-env", "site"}, 5001, 6, "commonhost", "w"},
      {{"/w", "-env", "site", "-P", "6000", "-kvhost", "cmd", "-loglevel", "3", "-type", "t"},
       6000,
       3,
       "cmd",
       "t"},
  };
  for (Case& c : cases) {
    TestKavlet k(env_);
    ASSERT_EQ(k.init(c.args.argc(), c.args.argv()), 1);
    EXPECT_EQ(k.kvPort, c.port);
    EXPECT_EQ(k.kvHost, c.host);
    EXPECT_EQ(k.logLevel, c.level);
    EXPECT_EQ(k.type, c.type);
    EXPECT_EQ(k.name, "w");
  }
}

TEST_F(KavletTest, EnvPackagesAreReadInOrderIncludingEmptyNames) {
  // Each package appends its mark; the one with the empty name ("e") is read
  // once more at the end, as the default -parafile package.
  writePackage("a", "KT_ORDER=${KT_ORDER}a\n");
  writePackage("b", "KT_ORDER=${KT_ORDER}b\n");
  writePackage("", "KT_ORDER=${KT_ORDER}e\n");
  struct Case {
    const char* list;
    const char* order;
  } cases[] = {{"a,,b", "aebe"}, {"a,", "ae"}, {"b,a", "bae"}};
  for (const Case& c : cases) {
    env_.set("KT_ORDER", "");
    TestKavlet k(env_);
    Argv a{"worker", "-env", c.list};
    ASSERT_EQ(k.init(a.argc(), a.argv()), 1);
    EXPECT_STREQ(env_.get("KT_ORDER"), c.order) << c.list;
  }
}

TEST_F(KavletTest, TestModeOption) {
  struct Case {
    Argv args;
    int level;
    const char *testCount, *testPath;
  } cases[] = {
      {{"w", "-test", "3"}, 2, "3", ""},
      {{"w", "-test", "-loglevel", "9"}, 9, "-test", ""},
      {{"w", "-loglevel", "9", "-test"}, 9, "-test", ""},
      {{"w", "-test", "", "-testpath", "/docs"}, 2, "-test", "/docs"},
      {{"w", "-testpath", "/docs"}, 2, "", "/docs"},
  };
  for (Case& c : cases) {
    TestKavlet k(env_);
    ASSERT_EQ(k.init(c.args.argc(), c.args.argv()), 1);
    EXPECT_EQ(k.testCount, c.testCount);
    EXPECT_EQ(k.logLevel, c.level);
    EXPECT_EQ(k.testPath, c.testPath);
  }
}

TEST_F(KavletTest, KvDirIsEnteredOnlyOutsideTestMode) {
  for (const char* d : {"kv", "kv/sub"}) makeDir(config_.file(d));
  env_.set("KVDIR", (config_.path() + "\\kv\\sub").c_str());  // Windows style
  std::string expected = config_.path() + "/kv/sub";
  Argv inTest{"w", "-test"}, outside{"w"};
  for (Argv* a : {&inTest, &outside}) {
    const bool test = a == &inTest;
    TestKavlet k(env_);
    ASSERT_EQ(k.init(a->argc(), a->argv()), 1);
    EXPECT_EQ(k.kvDir, expected);
    char here[PATH_MAX], real[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_NE(realpath(expected.c_str(), real), nullptr);
    EXPECT_EQ(std::string(here), test ? cwd_ : std::string(real)) << test;
  }
}

// A numeric level switches levels 5 up to its value on, the parameter
// package switches levels by name.
TEST_F(KavletTest, LogLevelOptionAndParameterPackageSwitchLevels) {
  writePackage("logging", "LOG_DEBUG=on\nLOG_WARNING=off\n");
  struct Case {
    Argv args;
    const char* levels;  // 0 to 13
  } cases[] = {
      {{"w", "-loglevel", "7"}, "11111111000000"},
      {{"w", "-loglevel", "13"}, "11111111111111"},
      {{"w", "-loglevel", "2"}, "11111000000000"},
      {{"w", "-loglevel", "0"}, "11111000000000"},
      {{"w", "-parafile", "logging"}, "11110000010000"},
  };
  for (Case& c : cases) {
    TestKavlet k(env_);
    ASSERT_EQ(k.init(c.args.argc(), c.args.argv()), 1);
    for (int level = 0; level <= 13; ++level)
      EXPECT_EQ(k.logTarget().getLevel(level), c.levels[level] - '0')
          << c.args.texts[2] << ", level " << level;
  }
}

TEST_F(KavletTest, LogFileGoesUnderServerLogDir) {
  struct Case {
    Argv args;
    const char* file;
  } cases[] = {{{"/bin/w", "-type", "stamper", "-loglevel", "13"}, "stamper.log"},
               {{"/bin/w", "-type", "", "-logfile", "sub.log"}, "sub.log"}};
  for (Case& c : cases) {
    TestKavlet k(env_);
    ASSERT_EQ(k.init(c.args.argc(), c.args.argv()), 1);
    EXPECT_EQ(k.logFile, c.file);
    EXPECT_EQ(k.serverLogDir, config_.file("logs"));
    EXPECT_EQ(k.logTarget().fileName(), config_.file("logs/") + c.file);
    // The worker's target is the one installed: what anything logs goes there.
    c_logmsg("elsewhere", 3, "while %s lives", c.file);
    EXPECT_TRUE(contains(readFile(config_.file("logs/") + c.file),
                         std::string("while ") + c.file + " lives"));
  }
}

TEST_F(KavletTest, HelpAndUnknownOptionsPrintTheUsageAndEndTheStart) {
  struct Case {
    Argv argv;
    const char* before;  // what stands before the usage
  } cases[] = {
      {{"w", "-h"}, "\n\n"},
      {{"w", "-help"}, "unknown option '-help'\n\n\n"},
      {{"w", "-test", "2", "-nosuch"}, "unknown option '-nosuch'\n\n\n"},
      // A value-taking option without its value is not taken.
      {{"w", "-type"}, "unknown option '-type'\n\n\n"},
      {{"w", "-loglevel"}, "unknown option '-loglevel'\n\n\n"},
      {{"w", "-P"}, "unknown option '-P'\n\n\n"},
  };
  for (Case& c : cases) {
    TestKavlet k(env_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(k.init(c.argv.argc(), c.argv.argv()), 0);
    EXPECT_TRUE(k.usageShown);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind(std::string(c.before) + " Usage: w [options...]\n", 0), 0u) << err;
  }
}

TEST_F(KavletTest, UsageSettingsAndVersionTexts) {
  TestKavlet k(env_);
  k.setProgname("/bin/worker");
  k.type = "stamper";
  testing::internal::CaptureStderr();
  k.printUsage();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), golden("usage.txt"));
  k.kvDir = "/kv";
  k.kvHost = "kvhost";
  k.kvPort = 4711;
  k.testPath = "/docs";
  k.logFile = "stamper.log";
  testing::internal::CaptureStderr();
  k.printObject();
  k.printVersion();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), golden("settings.txt"));
}

}  // namespace
