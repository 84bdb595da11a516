#include "app/StampPlan.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <set>
#include <string>
#include <vector>

namespace {

// The plan over a directory listing held in memory.
StampPlan plan(const StampStatements& s, std::set<std::string> existing = {}) {
  return planStamps("/d", s, [existing](const std::string& path) {
    return existing.count(path) != 0 ? 0 : ENOENT;
  });
}

std::vector<std::string> lines(const StampPlan& p) {
  std::vector<std::string> out;
  for (const PlannedStamp& s : p.stamps) {
    out.push_back(s.source + " > " + s.target + (s.statement.empty() ? "" : " + " + s.statement));
  }
  return out;
}

TEST(StampPlanTest, FilesFirstThenComponentsIntoTheNextFreeName) {
  StampStatements s;
  s.files = {"a.txt a.tst", "lonely.pdf", "/abs/b.pdf C:\\b.tst", "\\\\share\\c c.tst"};
  s.stampComponents = true;
  s.stampedComponents = {"done done_ts0.txt"};
  s.components = {"c1 text/plain c1.txt", "done text/plain d.txt", "c1 text/plain again.txt",
                  "\"x y\" text/plain sub/x.txt extra"};
  StampPlan p = plan(s, {"/d/c1_ts0.txt", "/d/c1_ts1.txt", "/d/x y_ts1.txt"});
  EXPECT_EQ(p.failure.result, StampResult::kOk);
  EXPECT_EQ(lines(p),
            (std::vector<std::string>{
                "/d/a.txt > /d/a.tst",
                "/abs/b.pdf > C:\\b.tst",
                "\\\\share\\c > /d/c.tst",
                // A name planned before counts as taken.
                "/d/c1.txt > /d/c1_ts2.txt + COMP_TIMESTAMP_FILE \"c1\" \"c1_ts2.txt\"",
                "/d/again.txt > /d/c1_ts3.txt + COMP_TIMESTAMP_FILE \"c1\" \"c1_ts3.txt\"",
                "/d/sub/x.txt > /d/x y_ts0.txt + COMP_TIMESTAMP_FILE \"x y\" \"x y_ts0.txt\"",
            }));
  // Without TIMESTAMP_COMP the components are not looked at.
  s.stampComponents = false;
  EXPECT_EQ(plan(s).stamps.size(), 3u);
}

TEST(StampPlanTest, AFailingStatementEndsThePlanAfterTheFilesBeforeIt) {
  std::string longName(PATH_MAX, 'n');
  // The statement copy in the text is cut; the path it names never is.
  std::string longSource(1200, 's');
  struct Case {
    StampStatements statements;
    StampResult result;
    size_t stampsBefore;
    std::string detail;
  } cases[] = {
      {{{"a a.tst", "b " + longName}, false, {}, {}}, StampResult::kTargetNameTooLong, 1, ""},
      {{{"a a.tst", longName + " b.tst"}, false, {}, {}}, StampResult::kSourceNameTooLong, 1, ""},
      {{{"a a.tst"}, true, {}, {"c text/plain c", "broken text/plain", "d text/plain d"}},
       StampResult::kWrongComp,
       2,
       "broken text/plain"},
      {{{}, true, {}, {"c text/plain c", longName + " text/plain c"}},
       StampResult::kTargetNameTooLong,
       1,
       ""},
      {{{}, true, {}, {"c x " + longSource, "broken " + longSource}},
       StampResult::kWrongComp,
       1,
       "broken " + longSource.substr(0, 992)},
  };
  for (const Case& c : cases) {
    StampPlan p = plan(c.statements);
    EXPECT_EQ(p.failure.result, c.result);
    EXPECT_EQ(p.stamps.size(), c.stampsBefore);
    EXPECT_EQ(p.failure.detail, c.detail);
  }
  EXPECT_EQ(plan(cases[4].statements).stamps[0].source, "/d/" + longSource);
}

}  // namespace
