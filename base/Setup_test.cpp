#include "base/Setup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/Log.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace std::string_literals;

using namespace testing_support;

// Variables a test sets; removed again after each test.
const char* const kVariables[] = {
    "  ST_A", "ST_A",         "ST_EMPTYQ", "ST_KEEP", "ST_Q",         "ST_C",     " #ST_C",
    "ST_T",   "ST_EQ",        "ST_HALFQ",  "ST_LONG", "ST_TAIL",      "ST_AFTER", "ST_HOME",
    "ST_PCT", "ST_BIG",       "ST_MID",    "ST_REAL", "ST_1",         "ST_2",     "ST_3",
    "ST_PKG", "ST_COMMENTED", "ST_UNSET",  "CONFIG",  "ECM_CONF_DIRS"};

class SetupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDir(dir_.file("setup"));
    setenv("CONFIG", dir_.path().c_str(), 1);
  }
  void TearDown() override {
    setEnvironmentSetter(nullptr, nullptr);
    for (const char* v : kVariables) unsetenv(v);
  }
  void writePackage(const std::string& package, const std::string& text) {
    writeFile(dir_.file("setup/" + package + ".Setup"), text);
  }
  static std::string env(const char* name) {
    const char* v = getenv(name);
    return v ? v : "<unset>";
  }
  TempDir dir_;
};

// One package holds every line rule, an over-long line and a value that
// the traces must not show.
TEST_F(SetupTest, LineRules) {
  for (const char* v : {"ST_KEEP", "ST_EQ"}) setenv(v, "old", 1);
  setenv("ST_HOME", "/home/u", 1);
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
    EXPECT_EQ(readSetup("P"), 1);
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
  EXPECT_EQ(readSetup("NoSuchPackage"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (bool unset : {true, false}) {
    unset ? unsetenv("CONFIG") : setenv("CONFIG", "", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(readSetup("COMMON"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Environment variable CONFIG not set!\n");
  }
}

// Collects what expandAndPut would store; refuses the refuseAt-th text (from 1).
struct Stored {
  std::vector<std::string> texts;
  size_t refuseAt = 0;
};
int collect(void* context, const char* text) {
  auto* stored = static_cast<Stored*>(context);
  stored->texts.push_back(text);
  return stored->texts.size() == stored->refuseAt ? 22 : 0;
}

TEST_F(SetupTest, ExpansionPasses) {
  setenv("ST_HOME", "C:\\u", 1);
  setenv("ST_PCT", "%ST_HOME%", 1);
  setenv("ST_BIG", std::string(kSetupBufferSize - 1, 'b').c_str(), 1);
  setenv("ST_MID", std::string(kSetupBufferSize - 10, 'm').c_str(), 1);
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
  Stored stored;
  setEnvironmentSetter(collect, &stored);
  for (const Case& c : cases) {
    stored.texts.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(expandAndPut(c.text), 0) << c.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.reported) << c.text;
    EXPECT_EQ(stored.texts, std::vector<std::string>{c.stored}) << c.text;
  }
}

TEST_F(SetupTest, AFailedStoreStopsReading) {
  writePackage("P", "ST_1=a\nST_2=b\nST_3=c\n");
  Stored seen{{}, 2};
  setEnvironmentSetter(collect, &seen);
  EXPECT_EQ(readSetup("P"), 0);
  EXPECT_EQ(seen.texts, (std::vector<std::string>{"ST_1=a", "ST_2=b"}));

  // The same with the process environment: an empty name, written so or
  // expanded to nothing, cannot be stored; what came before it stays.
  setEnvironmentSetter(nullptr, nullptr);
  setenv("ST_UNSET", "", 1);
  for (const char* line : {"$ST_UNSET=b", "=b", "  = b"}) {
    for (const char* v : {"ST_1", "ST_3"}) unsetenv(v);
    writePackage("P", std::string("ST_1=a\n") + line + "\nST_3=c\n");
    EXPECT_EQ(readSetup("P"), 0) << line;
    EXPECT_EQ(env("ST_1"), "a") << line;
    EXPECT_EQ(env("ST_3"), "<unset>") << line;
  }
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
  setenv("ECM_CONF_DIRS", dir_.file("conf").c_str(), 1);
  writeFile(dir_.file("conf/b.conf"),
            "CONFIG=" + dir_.file("two") + "\nCONFIG=" + dir_.file("one") + "\n");
  writeFile(dir_.file("conf/a.conf"),
            "#CONFIG=" + dir_.file("wrong") + "\nOTHER=x\nCONFIG=\"" + dir_.file("one") + "\"\n");
  writeFile(dir_.file("conf/0.txt"), "CONFIG=" + dir_.file("wrong") + "\n");
  setenv("CONFIG", "production", 1);

  LogCapture log(LogCapture::kAllLevels);
  String first;
  EXPECT_EQ(readConfigDirectory("production", &first), 0);
  EXPECT_EQ(first.str(), dir_.file("one"));
  EXPECT_TRUE(log.contains("ConfigDir[0] (key CONFIG)  = " + dir_.file("one")));
  EXPECT_TRUE(
      log.contains("Skip this path because found in list (key CONFIG) : " + dir_.file("one")));
  EXPECT_TRUE(log.contains("ConfigDir[1] (key CONFIG)  = " + dir_.file("two"))) << log.text();

  EXPECT_EQ(readSetup("P"), 1);
  EXPECT_EQ(env("ST_PKG"), "one");

  // A path is never looked up.
  setenv("CONFIG", dir_.file("two").c_str(), 1);
  EXPECT_EQ(readSetup("P"), 1);
  EXPECT_EQ(env("ST_PKG"), "two");
  // Without a configuration list a bare name stays a (missing) directory.
  unsetenv("ECM_CONF_DIRS");
  unsetenv("ST_PKG");
  setenv("CONFIG", "production", 1);
  first = "unchanged";
  EXPECT_EQ(readConfigDirectory("production", &first), -1);
  EXPECT_EQ(first.str(), "unchanged");
  EXPECT_EQ(readSetup("P"), 0);
  EXPECT_EQ(env("ST_PKG"), "<unset>");
}

}  // namespace
