#include "kavlet/docfiles/Commands.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using testing_support::fileExists;
using testing_support::LogCapture;
using testing_support::makeDir;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

class CommandsTest : public ::testing::Test {
 protected:
  std::string file() const { return dir_.file("COMMANDS"); }
  std::string backup() const { return dir_.file("COMMANDS.clockette"); }
  std::unique_ptr<Commands> open() {
    return std::make_unique<Commands>(dir_.path().c_str(), "clockette");
  }
  // Writes the changes and closes, as the document does.
  static int close(Commands& c) { return c.writeBuffer() == 1 && c.closeCommands() == 1 ? 1 : 0; }

  TempDir dir_;
};

std::vector<std::string> values(const List<String>& list) {
  std::vector<std::string> out;
  for (const String& s : list) out.push_back(s.str());
  return out;
}

TEST_F(CommandsTest, LookupsFromMemoryLastMatchWins) {
  writeFile(file(), "COMP a\nOTHER x y \nCOMP b\nBARE\n");
  auto c = open();
  String value = "stale";
  EXPECT_EQ(c->getValueFor1("COMP", value), 2);
  EXPECT_EQ(value, "b");
  EXPECT_EQ(c->getValueFor2("OTHER"), "x y ");
  EXPECT_EQ(c->getValueFor1("NONE", value), 0);
  EXPECT_EQ(value, "");
  EXPECT_EQ(c->getValueFor1("comp", value), 0);
  List<String> comps;
  EXPECT_EQ(c->getValueFor3("COMP", comps), 2);
  EXPECT_EQ(values(comps), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(c->findKey("BARE"), 1);
  // Once read, the file is not consulted again.
  writeFile(file(), "COMP z\n");
  EXPECT_EQ(c->findKey("COMP"), 2);

  char** texts = nullptr;
  ASSERT_EQ(c->readAll(&texts), 4);
  EXPECT_STREQ(texts[0], "COMP a");
  EXPECT_STREQ(texts[1], "OTHER x y ");
  EXPECT_STREQ(texts[3], "BARE");
  EXPECT_EQ(texts[4], nullptr);
  for (char** p = texts; *p; ++p) free(*p);
  free(texts);
  char** found = nullptr;
  ASSERT_EQ(c->getValueFor("COMP", &found), 2);
  EXPECT_STREQ(found[1], "b");
  EXPECT_EQ(found[2], nullptr);
  for (char** p = found; *p; ++p) free(*p);
  free(found);

  List<String> keys;
  keys.put("BARE");
  keys.put("MISSING");
  keys.put("COMP");
  List<CommandsEntries> first;
  EXPECT_EQ(c->read(keys, first), 1);
  ASSERT_EQ(first.count(), 2u);
  EXPECT_EQ(first[0], CommandsEntries("BARE", ""));
  EXPECT_EQ(first[1], CommandsEntries("COMP", "a"));
}

TEST_F(CommandsTest, MissingFileReadsAsNoStatementsAndIsLookedForAgain) {
  auto c = open();
  EXPECT_EQ(c->findKey("A"), 0);
  EXPECT_EQ(c->findKey("A"), 0);
  EXPECT_EQ(c->deleteFromCommands1("A", "1"), -1);
  List<CommandsEntries> all;
  EXPECT_EQ(c->readAll(all), 1);
  EXPECT_TRUE(all.empty());
  EXPECT_FALSE(fileExists(file()));
  writeFile(file(), "A 1\n");
  EXPECT_EQ(c->findKey("A"), 1);
}

TEST_F(CommandsTest, AppendOnlyLeavesEveryOtherByteUntouched) {
  const std::string original = "KEY  value  \r\n\n   \nTAB\tx\tz\nBARE\n";
  writeFile(file(), original);
  auto c = open();
  EXPECT_EQ(c->findKey("KEY"), 1);
  EXPECT_EQ(c->appendToBuffer1("COMP_TIMESTAMP_FILE \"a b\"  \"t.tst\" "), 1);
  List<String> more;
  more.put("  odd   line");
  more.put("");
  EXPECT_EQ(c->appendToBuffer1(more), 1);
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()),
            original + "COMP_TIMESTAMP_FILE \"a b\"  \"t.tst\" \n  odd   line\n\n");
  EXPECT_EQ(readFile(backup()), original);
  // A second close has nothing left to write.
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()),
            original + "COMP_TIMESTAMP_FILE \"a b\"  \"t.tst\" \n  odd   line\n\n");
}

TEST_F(CommandsTest, AppendAfterALastLineWithoutLineEndStartsANewLine) {
  writeFile(file(), "A 1\nB 2");
  auto c = open();
  c->appendToBuffer1("C 3");
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "A 1\nB 2\nC 3\n");
  EXPECT_EQ(readFile(backup()), "A 1\nB 2");
}

TEST_F(CommandsTest, DeletionRewritesInKeyTabValueFormAndDropsEmptyLines) {
  writeFile(file(), "A 1\n\nB  two  words \n \t \nBARE\nA 1\r\nA 2\n");
  auto c = open();
  EXPECT_EQ(c->deleteFromCommands1("A", "1"), 2);
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "B\ttwo  words \nBARE\t\nA\t2\n");
  EXPECT_EQ(readFile(backup()), "A 1\n\nB  two  words \n \t \nBARE\nA 1\r\nA 2\n");
}

TEST_F(CommandsTest, MarkedStatementsStayVisibleUntilIntegrated) {
  writeFile(file(), "X 1\nY 2\nX 3\n");
  auto c = open();
  EXPECT_EQ(c->deleteFromCommands3(CommandsEntries("X", "1")), 1);
  // Matched and counted again.
  EXPECT_EQ(c->deleteFromCommands3(CommandsEntries("X", "1")), 1);
  EXPECT_EQ(c->deleteFromCommands1("X", "other"), 0);
  EXPECT_EQ(c->findKey("X"), 2);
  String v;
  EXPECT_EQ(c->getValueFor1("X", v), 2);
  List<CommandsEntries> all;
  c->readAll(all);
  ASSERT_EQ(all.count(), 3u);
  EXPECT_EQ(all[0].deleted(), 1);
  ASSERT_EQ(c->integrateChanges(), 1);
  EXPECT_EQ(c->findKey("X"), 1);
  EXPECT_EQ(c->getValueFor2("X"), "3");
}

TEST_F(CommandsTest, DeletingAListStopsAtTheFirstMiss) {
  writeFile(file(), "A 1\nB 2\nC 3\n");
  auto c = open();
  List<CommandsEntries> list;
  list.put(CommandsEntries("A", "1"));
  list.put(CommandsEntries("B", "9"));
  list.put(CommandsEntries("C", "3"));
  EXPECT_EQ(c->deleteFromCommands2(list), 0);
  List<CommandsEntries> hits;
  hits.put(CommandsEntries("C", "3"));
  hits.put(CommandsEntries("C", "3"));
  EXPECT_EQ(c->deleteFromCommands2(hits), 2);
  EXPECT_EQ(close(*c), 1);
  // A was marked before the miss ended the run.
  EXPECT_EQ(readFile(file()), "B\t2\n");
}

TEST_F(CommandsTest, IntegratedLinesFollowAllOldStatements) {
  writeFile(file(), "X 1\n\nY 2\n");
  auto c = open();
  c->appendToBuffer1("Z   3 ");
  c->appendToBuffer1("   ");
  c->appendToBuffer1("W");
  c->deleteFromCommands1("X", "1");
  ASSERT_EQ(c->integrateChanges(), 1);
  c->appendToBuffer1("LATE one");
  EXPECT_EQ(c->findKey("Z"), 1);
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "Y\t2\nZ\t3 \nW\t\nLATE one\n");
  // The document closes twice; the second rewrite keeps the late line.
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "Y\t2\nZ\t3 \nW\t\nLATE\tone\n");
}

TEST_F(CommandsTest, DeletionWithoutIntegrationAppendsTheAddedLinesAsGiven) {
  writeFile(file(), "X 1\nY 2\n");
  auto c = open();
  c->deleteFromCommands1("Y", "2");
  c->appendToBuffer1("Z  3");
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "X\t1\nZ  3\n");
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "X\t1\nZ\t3\n");
  EXPECT_EQ(readFile(backup()), "X 1\nY 2\n");
}

TEST_F(CommandsTest, IntegrationIntoAnEmptyFile) {
  writeFile(file(), "");
  auto c = open();
  c->appendToBuffer1("A b");
  ASSERT_EQ(c->integrateChanges(), 1);
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "A\tb\n");
}

TEST_F(CommandsTest, LineEndsAndLongLines) {
  std::string big(200000, 'v');
  writeFile(file(), "CR 1\r\nLONG " + big + "\r\nLF x\n");
  auto c = open();
  EXPECT_EQ(c->findKey("CR"), 1);
  EXPECT_EQ(c->getValueFor2("LONG"), big.c_str());
  EXPECT_EQ(c->getValueFor2("LF"), "x");
  c->deleteFromCommands1("CR", "1");
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "LONG\t" + big + "\nLF\tx\n");
}

// A line ends at its first CR for every reader; what follows it in the same
// line is no statement, and a rewrite must not silently drop it.
TEST_F(CommandsTest, TextAfterACarriageReturnIsHiddenAndNeverLost) {
  const std::string original = "A 1\rB 2\rC 3\r";
  writeFile(file(), original);
  {
    LogCapture log(LogCapture::kAllLevels);
    auto c = open();
    EXPECT_EQ(c->findKey("A"), 1);
    EXPECT_EQ(c->findKey("B"), 0);
    EXPECT_EQ(c->deleteFromCommands1("A", "1"), 1);
    c->appendToBuffer1("D 4");
    EXPECT_EQ(c->writeBuffer(), 0);
    EXPECT_EQ(c->writeBuffer(), 0);
    EXPECT_TRUE(log.contains("holds text after a carriage return"));
  }
  EXPECT_EQ(readFile(file()), original);
  EXPECT_FALSE(fileExists(backup()));

  // Appending leaves the bytes as they are, but must not put the new line
  // behind the last CR, where no reader would see it.
  auto d = open();
  d->appendToBuffer1("D 4");
  EXPECT_EQ(close(*d), 1);
  EXPECT_EQ(readFile(file()), original + "\nD 4\n");
  Commands next(dir_.path().c_str(), "next");  // the next worker
  EXPECT_EQ(next.getValueFor2("D"), "4");
}

TEST_F(CommandsTest, LeftoverBackupIsRestoredBeforeTheFirstReadAndKept) {
  const std::string saved = "A 1\nB 2\n";
  writeFile(file(), "A 1\nB");  // cut short by a crash
  writeFile(backup(), saved);
  writeFile(dir_.file("COMMANDS.other"), "OTHER worker\n");
  auto c = open();
  EXPECT_EQ(c->getValueFor2("B"), "2");
  EXPECT_EQ(readFile(file()), saved);
  EXPECT_EQ(readFile(backup()), saved);
  c->appendToBuffer1("C 3");
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), saved + "C 3\n");
  EXPECT_EQ(readFile(backup()), saved);
  EXPECT_EQ(readFile(dir_.file("COMMANDS.other")), "OTHER worker\n");
}

TEST_F(CommandsTest, OpenCommandsCreatesOrOpensForUpdate) {
  auto c = open();
  ASSERT_EQ(c->openCommands(), 1);
  EXPECT_EQ(c->openType(), FileH::kWriteText);
  EXPECT_EQ(c->openCommands(), 1);
  EXPECT_EQ(c->closeCommands(), 1);
  EXPECT_EQ(readFile(file()), "");
  writeFile(file(), "A 1\n");
  auto d = open();
  ASSERT_EQ(d->openCommands(), 1);
  EXPECT_EQ(d->openType(), FileH::kAppendUpdate);
  EXPECT_EQ(d->closeCommands(), 1);
  EXPECT_EQ(d->closeCommands(), 1);
  EXPECT_EQ(readFile(file()), "A 1\n");
}

TEST_F(CommandsTest, AppendToAMissingFileFailsWithoutCreatingOne) {
  LogCapture log(LogCapture::kAllLevels);
  auto c = open();
  c->appendToBuffer1("A 1");
  EXPECT_EQ(c->writeBuffer(), 0);
  EXPECT_FALSE(fileExists(file()));
  EXPECT_FALSE(fileExists(backup()));
  EXPECT_TRUE(log.contains("can't make backup '" + backup() + "' of file '" + file() + "'"));
}

}  // namespace
