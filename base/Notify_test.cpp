#include "base/Notify.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/TempDir.h"

namespace {

using namespace testing_support;

TEST(NotifyTest, PlaceholdersTakeTheBracedArgumentsInOrder) {
  struct Case {
    const char* messageTemplate;
    const char* arguments;
    const char* expected;  // after the prefix
  } cases[] = {
      {"file '%1/%2' failed", "{/docs/d 1} {a.pdf}", "file '/docs/d 1/a.pdf' failed"},
      {"order '%2' then '%1'", "{one}{two}", "order 'two' then 'one'"},
      // Missing arguments leave nothing; a lone % stays.
      {"'%1' '%2' 100%", "{only}", "'only' '' 100%"},
      {"'%1'", nullptr, "''"},
      // Balanced braces stay inside an argument; an open one runs to the end.
      {"'%1' '%2'", "{a{b}c} {open", "'a{b}c' 'open'"},
      // A notification stays one line whatever the arguments hold.
      {"'%1'", "{line\none\rtwo\177three\tfour}", "'line one two three four'"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(formatNotification("SRV", "BASE", 700, "ERR", c.messageTemplate, c.arguments).str(),
              std::string("SRV BASE 700 ERR: ") + c.expected);
  }
}

TEST(NotifyTest, EachNotificationIsAppendedToTheNotifyFile) {
  TempDir dir;
  std::string file = dir.file("notices");
  Notifier notifier(file.c_str());
  EXPECT_EQ(notifier.notify("SRV", "BASE", 701, "ERR", "document '%1'", "{/d}"), 0);
  EXPECT_EQ(notifier.notify("SRV", "BASE", 702, "ERR", "cannot write '%1'", "{/e}"), 0);
  EXPECT_EQ(readFile(file),
            "SRV BASE 701 ERR: document '/d'\nSRV BASE 702 ERR: cannot write '/e'\n");
  EXPECT_EQ(Notifier(dir.file("missing/notices").c_str()).notify("SRV", "BASE", 700, "ERR", "x", ""),
            -1);
  EXPECT_EQ(Notifier(nullptr).notify("SRV", "BASE", 700, "ERR", "x", ""), 0);
}

}  // namespace
