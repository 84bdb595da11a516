#include "docfiles/RolledBackStamps.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/TempDir.h"

namespace {

using namespace testing_support;

TEST(RolledBackStampsTest, OnlyTheUnnamedStampFilesOfTakenBackStatementsGo) {
  TempDir d;
  const std::string doc = d.path();
  const std::string before =
      "COMP c text/plain c.txt\n"
      "COMP_TIMESTAMP_FILE \"kept\" \"kept_ts0.txt\"\n";
  writeFile(doc + "/COMMANDS.clockette", before);
  writeFile(doc + "/COMMANDS",
            before +
                "COMP_TIMESTAMP_FILE \"c\" \"c_ts0.txt\"\n"
                "COMP_TIMESTAMP_FILE \"c\" \"c_ts1.txt\"\n"  // named below
                "TIMESTAMP_FILE c.txt c_ts1.txt\n"
                "COMP_TIMESTAMP_FILE \"c\" \"c.txt\"\n"         // not a stamp name
                "COMP_TIMESTAMP_FILE \"c\" \"../c_ts2.txt\"\n"  // not in the directory
                "COMP_TIMESTAMP_FILE \"d\" \"d_ts0.txt\"\n"     // another worker's
                "COMP_TIMESTAMP_FILE \"kept\" \"kept_ts0.txt\"\n");
  writeFile(doc + "/COMMANDS.other", "COMP_TIMESTAMP_FILE \"d\" \"d_ts0.txt\"\n");
  std::vector<std::string> files = rolledBackStamps(doc + "/COMMANDS", doc + "/COMMANDS.clockette");
  EXPECT_EQ(files, std::vector<std::string>{doc + "/c_ts0.txt"});
  writeFile(doc + "/c_ts0.txt", "stamp");
  EXPECT_EQ(removeStampFiles(files), 1);
  EXPECT_FALSE(fileExists(doc + "/c_ts0.txt"));
  // Without a backup nothing is taken back.
  EXPECT_TRUE(rolledBackStamps(doc + "/COMMANDS", doc + "/COMMANDS.none").empty());
}

}  // namespace
