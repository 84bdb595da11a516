#include "base/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "base/LogTarget.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

void logEveryWay(const char* text) {
  Log log("Comp", "func", __FILE__, __LINE__, Log::kEntry);
  log.msg(__LINE__, 2, "%s shown", text);
  log.msgc("%s continued", text);
  log.msg(__LINE__, 7, "%s hidden", text);
  log.msgc("%s hidden continuation", text);
  c_logmsg("module", 3, "%s from C", text);
  c_logmsg("module", 5, "%s hidden from C", text);
}

// Lines go to the installed target at its levels; when its installation
// ends the one before is back, and with none at all standard error at the
// start-up levels.
TEST(Log, ScopeObjectsWriteToTheInstalledTargetAtItsLevels) {
  TempDir dir;
  LogTarget outer;
  LogTarget inner;
  ASSERT_EQ(outer.setFile(dir.file("outer.log").c_str(), MapEnvironment()), 1);
  ASSERT_EQ(inner.setFile(dir.file("inner.log").c_str(), MapEnvironment()), 1);
  inner.setLevel(Log::kEntry, 1);
  testing::internal::CaptureStderr();
  {
    LogTarget::Installation installedOuter(outer);
    {
      LogTarget::Installation installedInner(inner);
      EXPECT_EQ(c_logging(Log::kEntry), 1);
      logEveryWay("inner");
    }
    EXPECT_EQ(c_logging(Log::kEntry), 0);
    logEveryWay("outer");
  }
  EXPECT_EQ(Log::getLevel(Log::kWarning), 1);
  EXPECT_EQ(Log::getLevel(Log::kWarning + 1), 0);
  logEveryWay("none");
  noMemMsg("module", 12);
  std::string err = testing::internal::GetCapturedStderr();

  std::string innerText = readFile(dir.file("inner.log"));
  std::string outerText = readFile(dir.file("outer.log"));
  const std::pair<std::string, const std::string*> written[] = {
      {"inner", &innerText}, {"outer", &outerText}, {"none", &err}};
  for (const auto& [who, text] : written) {
    for (const char* part : {" shown", " continued", " from C"})
      EXPECT_EQ(count(*text, who + part), 1) << *text;
    EXPECT_FALSE(contains(*text, "hidden")) << *text;
    EXPECT_EQ(contains(*text, "Comp::func: entry (line "), who == "inner") << *text;
  }
  EXPECT_EQ(innerText.find("outer"), std::string::npos);
  EXPECT_TRUE(contains(err, " 2 module::: out of memory: could not allocate 12 bytes")) << err;
}

}  // namespace
