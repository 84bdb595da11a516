#include "base/Setup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/Log.h"
#include "testing/LogCapture.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"

namespace {

using namespace std::string_literals;

using namespace testing_support;

class SetupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDir(dir_.file("setup"));
    env_.set("CONFIG", dir_.path().c_str());
  }
  void writePackage(const std::string& package, const std::string& text) {
    writeFile(dir_.file("setup/" + package + ".Setup"), text);
  }
  std::string env(const char* name) const {
    const char* v = env_.get(name);
    return v ? v : "<unset>";
  }
  TempDir dir_;
  MapEnvironment env_;
};

// One package holds every line rule, an over-long line and a value that
// the traces must not show.
TEST_F(SetupTest, LineRules) {
  for (const char* v : {"ST_KEEP", "ST_EQ"}) env_.set(v, "old");
  env_.set("ST_HOME", "/home/u");
  writePackage("P",
               "  ST_A = b\n"
               "ST_EMPTYQ=\"\"\n"
               "ST_KEEP=\n"
               "ST_Q=\" x \"\n"
               "#ST_C=1\n"
               " #ST_C=1\n"
               "ST_T=  v  \r\n"
               "ST_EQ=a=b\n"
               "ST_REAL=$ST_HOME/bin\n"
               "ST_HALFQ=\"x\n"
               "no equals sign here\n"
               "\n"
               "ST_COMMENTED=1 # not a comment\n"
               "ST_PKG=secret-word\n"
               "ST_LONG="s +
                   std::string(2100, 'x') +
                   "ST_TAIL=1\n"
                   "ST_AFTER=1\n"
                   "ST_KEEP\0x=cleared\n"
                   "ST_NUL=a\0b\n"s);
  std::string logged;
  {
    LogCapture log;
    log.target().setLevel(Log::kRpc, 1);
    EXPECT_EQ(readSetup(env_, "P"), 1);
    logged = log.text();
  }
  // Traces name the variable but never show its value.
  EXPECT_TRUE(contains(logged, "put 'ST_PKG'")) << logged;
  EXPECT_FALSE(contains(logged, "secret")) << logged;
  const std::string cut(kSetupBufferSize - 8, 'x');
  struct Case {
    const char* name;
    const char* value;
  } cases[] = {
      {"  ST_A", "b"},             // leading blanks stay part of the name
      {"ST_A", "<unset>"},         //
      {"ST_EMPTYQ", "<unset>"},    // empty after removing the quotes: nothing set
      {"ST_KEEP", "old"},          // empty value neither sets nor clears
      {"ST_Q", " x "},             // quoted blanks are kept
      {"ST_C", "<unset>"},         // "#" first: a comment
      {" #ST_C", "1"},             // "#" not first: part of the name
      {"ST_T", "v"},               // blanks and CRLF around the value removed
      {"ST_EQ", "a=b"},            // only the first "=" separates, and it overrides
      {"ST_REAL", "/home/u/bin"},  // expanded
      {"ST_HALFQ", "\"x"},         // one quote alone stays
      {"ST_COMMENTED", "1 # not a comment"},
      {"ST_PKG", "secret-word"},
      {"ST_LONG", cut.c_str()},  // an over-long line is cut, the rest dropped
      {"ST_TAIL", "<unset>"},    //
      {"ST_AFTER", "1"},         // and the next line still read
      {"ST_NUL", "a"},           // a NUL byte ends the line's text
  };
  for (const Case& c : cases) EXPECT_EQ(env(c.name), c.value) << "'" << c.name << "'";
}

TEST_F(SetupTest, MissingPackageReturnsZeroSilentlyButUnsetOrEmptyConfigIsTold) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(readSetup(env_, "NoSuchPackage"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (bool unset : {true, false}) {
    unset ? env_.unset("CONFIG") : (void)env_.set("CONFIG", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(readSetup(env_, "COMMON"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Environment variable CONFIG not set!\n");
  }
}

TEST_F(SetupTest, ExpansionPasses) {
  const MapEnvironment base = {{"ST_HOME", "C:\\u"},
                                {"ST_PCT", "%ST_HOME%"},
                                {"ST_BIG", std::string(kSetupBufferSize - 1, 'b')},
                                {"ST_MID", std::string(kSetupBufferSize - 10, 'm')}};
  struct Case {
    const char* text;
    const char* stored;
    const char* reported = "";
  } cases[] = {
      {"B=$ST_HOME/x", "B=C:\\u/x"},
      {"B=\\$ST_HOME", "B=$ST_HOME"},
      {"B=${ST_HOME}y", "B=C:\\uy"},
      {"B=$(ST_HOME)y", "B=C:\\uy"},
      {"B=${ST_UNSET}", "B=${ST_UNSET}"},
      {"B=x$ST_UNSET", "B=x$ST_UNSET"},  // ends in an unset bare reference
      // The character that ends an unset bare reference is taken as written.
      {"B=$ST_UNSET$ST_HOME", "B=$ST_UNSET$ST_HOME"},
      {"B=$ST_UNSET\\$ST_HOME", "B=$ST_UNSET\\C:\\u"},
      {"B=$ST_UNSET $ST_HOME", "B=$ST_UNSET C:\\u"},
      {"B=$", "B=$"},
      {"B=${ST_HOME", "B=${ST_HOME"},    // no closing bracket
      {"B=${ST_HOME)", "B=${ST_HOME)"},  // wrong closing bracket
      {"B=${}", "B=${}"},
      {"B=%ST_HOME%", "B=C:\\u"},
      {"B=%ST_UNSET%x", "B=%ST_UNSET%x"},
      {"B=100%%", "B=100%%"},
      {"B=50% off", "B=50% off"},
      {"B=$ST_PCT", "B=C:\\u"},  // the system pass runs over the first pass's result
      {"$ST_HOME=1", "C:\\u=1"},
      // Over-long: a value that does not fit the buffer with its NUL is not
      // substituted; a text that does not fit is reported and stored unexpanded.
      {"B=$ST_BIG", "B=$ST_BIG"},
      {"B=%ST_BIG%", "B=%ST_BIG%",
       "String <<B=%ST_BIG%>> expands to 2050 = more than 2048 bytes!\n"},
      {"B=$ST_MID/0123456789", "B=$ST_MID/0123456789",
       "String <<B=$ST_MID/0123456789>> expands to 2052 = more than 2048 bytes!\n"},
  };
  for (const Case& c : cases) {
    MapEnvironment env;
    for (const auto& [name, value] : base.values()) env.set(name.c_str(), value.c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(expandAndPut(env, c.text), 0) << c.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.reported) << c.text;
    std::vector<std::string> stored;
    for (const auto& [name, value] : env.values()) {
      if (base.get(name.c_str()) == nullptr) stored.push_back(name + "=" + value);
    }
    EXPECT_EQ(stored, std::vector<std::string>{c.stored}) << c.text;
  }
}

TEST_F(SetupTest, AFailedStoreStopsReading) {
  // An empty name, written so or expanded to nothing, cannot be stored;
  // what came before it stays. The process environment refuses it alike.
  env_.set("ST_UNSET", "");
  for (const char* line : {"$ST_UNSET=b", "=b", "  = b"}) {
    for (const char* v : {"ST_1", "ST_3"}) env_.unset(v);
    writePackage("P", std::string("ST_1=a\n") + line + "\nST_3=c\n");
    EXPECT_EQ(readSetup(env_, "P"), 0) << line;
    EXPECT_EQ(env("ST_1"), "a") << line;
    EXPECT_EQ(env("ST_3"), "<unset>") << line;
  }
  EXPECT_EQ(Environment::process().set("", "b"), -1);
}

// A bare name takes the first directory of the sorted files; each is
// collected once. Paths and unlisted names are used as they are.
TEST_F(SetupTest, BareConfigNameIsLookedUpInSortedConfFiles) {
  makeDir(dir_.file("conf"));
  for (std::string d : {"one", "two", "wrong"}) {
    makeDir(dir_.file(d));
    makeDir(dir_.file(d + "/setup"));
    writeFile(dir_.file(d + "/setup/P.Setup"), "ST_PKG=" + d + "\n");
  }
  env_.set("ECM_CONF_DIRS", dir_.file("conf").c_str());
  writeFile(dir_.file("conf/b.conf"),
            "CONFIG=" + dir_.file("two") + "\nCONFIG=" + dir_.file("one") + "\n");
  writeFile(dir_.file("conf/a.conf"),
            "#CONFIG=" + dir_.file("wrong") + "\nOTHER=x\nCONFIG=\"" + dir_.file("one") + "\"\n");
  writeFile(dir_.file("conf/0.txt"), "CONFIG=" + dir_.file("wrong") + "\n");
  env_.set("CONFIG", "production");

  LogCapture log(LogCapture::kAllLevels);
  String first;
  EXPECT_EQ(readConfigDirectory(env_, "production", &first), 0);
  EXPECT_EQ(first.str(), dir_.file("one"));
  EXPECT_TRUE(log.contains("ConfigDir[0] (key CONFIG)  = " + dir_.file("one")));
  EXPECT_TRUE(
      log.contains("Skip this path because found in list (key CONFIG) : " + dir_.file("one")));
  EXPECT_TRUE(log.contains("ConfigDir[1] (key CONFIG)  = " + dir_.file("two"))) << log.text();

  EXPECT_EQ(readSetup(env_, "P"), 1);
  EXPECT_EQ(env("ST_PKG"), "one");

  // A path is never looked up.
  env_.set("CONFIG", dir_.file("two").c_str());
  EXPECT_EQ(readSetup(env_, "P"), 1);
  EXPECT_EQ(env("ST_PKG"), "two");
  // Without a configuration list a bare name stays a (missing) directory.
  env_.unset("ECM_CONF_DIRS");
  env_.unset("ST_PKG");
  env_.set("CONFIG", "production");
  first = "unchanged";
  EXPECT_EQ(readConfigDirectory(env_, "production", &first), -1);
  EXPECT_EQ(first.str(), "unchanged");
  EXPECT_EQ(readSetup(env_, "P"), 0);
  EXPECT_EQ(env("ST_PKG"), "<unset>");
}

}  // namespace
