#include "docfiles/Commands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;
using Texts = std::vector<std::string>;

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

// Takes a null-ended array of texts and frees it, as its receiver must.
Texts take(char** texts) {
  Texts out;
  for (char** p = texts; *p; ++p) out.push_back(*p), free(*p);
  free(texts);
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
  EXPECT_EQ(std::vector<String>(comps.begin(), comps.end()), (std::vector<String>{"a", "b"}));
  EXPECT_EQ(c->findKey("BARE"), 1);
  // Once read, the file is not consulted again.
  writeFile(file(), "COMP z\n");
  EXPECT_EQ(c->findKey("COMP"), 2);

  char** texts = nullptr;
  ASSERT_EQ(c->readAll(&texts), 4);
  EXPECT_EQ(take(texts), (Texts{"COMP a", "OTHER x y ", "COMP b", "BARE"}));
  ASSERT_EQ(c->getValueFor("COMP", &texts), 2);
  EXPECT_EQ(take(texts), (Texts{"a", "b"}));

  List<String> keys;
  for (const char* k : {"BARE", "MISSING", "COMP"}) keys.put(k);
  List<CommandsEntries> first;
  EXPECT_EQ(c->read(keys, first), 1);
  EXPECT_EQ(std::vector<CommandsEntries>(first.begin(), first.end()),
            (std::vector<CommandsEntries>{{"BARE", ""}, {"COMP", "a"}}));
}

TEST_F(CommandsTest, MissingFileReadsAsNoStatementsAndIsLookedForAgain) {
  auto c = open();
  EXPECT_EQ(c->findKey("A"), 0);
  EXPECT_EQ(c->deleteFromCommands1("A", "1"), -1);
  List<CommandsEntries> all;
  EXPECT_EQ(c->readAll(all), 1);
  EXPECT_TRUE(all.empty());
  writeFile(file(), "A 1\n");
  EXPECT_EQ(c->findKey("A"), 1);
}

// What the file holds after the document's close and after a second close.
// The backup always holds the file as it was.
TEST_F(CommandsTest, RewritesAfterAppendsAndDeletions) {
  const std::string big(200000, 'v');
  struct Case {
    const char* name;
    std::string original;
    std::function<void(Commands&)> change;
    std::string closed;
    std::string closedAgain = "";  // empty: as closed
  } cases[] = {
      // Appends only: every other byte stays as it was.
      {"append", "KEY  value  \r\n\n   \nTAB\tx\tz\nBARE\n",
       [](Commands& c) {
         EXPECT_EQ(c.appendToBuffer1("COMP_TIMESTAMP_FILE \"a b\"  \"t.tst\" "), 1);
         List<String> more;
         more.put("  odd   line");
         more.put("");
         EXPECT_EQ(c.appendToBuffer1(more), 1);
       },
       "KEY  value  \r\n\n   \nTAB\tx\tz\nBARE\nCOMP_TIMESTAMP_FILE \"a b\"  \"t.tst\" \n"
       "  odd   line\n\n"},
      {"append after a last line without line end", "A 1\nB 2",
       [](Commands& c) { c.appendToBuffer1("C 3"); }, "A 1\nB 2\nC 3\n"},
      // A deletion rewrites in KEY<tab>VALUE form and drops empty lines.
      {"delete", "A 1\n\nB  two  words \n \t \nBARE\nA 1\r\nA 2\n",
       [](Commands& c) { EXPECT_EQ(c.deleteFromCommands1("A", "1"), 2); },
       "B\ttwo  words \nBARE\t\nA\t2\n"},
      {"delete with long lines", "CR 1\r\nLONG " + big + "\r\nLF x\n",
       [](Commands& c) { c.deleteFromCommands1("CR", "1"); }, "LONG\t" + big + "\nLF\tx\n"},
      // Without integration the added lines follow as given, until the next rewrite.
      {"delete, then append", "X 1\nY 2\n",
       [](Commands& c) {
         c.deleteFromCommands1("Y", "2");
         c.appendToBuffer1("Z  3");
       },
       "X\t1\nZ  3\n", "X\t1\nZ\t3\n"},
      // Integrated lines follow all old statements; a late one is kept by the
      // second rewrite.
      {"integrate", "X 1\n\nY 2\n",
       [](Commands& c) {
         for (const char* line : {"Z   3 ", "   ", "W"}) c.appendToBuffer1(line);
         c.deleteFromCommands1("X", "1");
         ASSERT_EQ(c.integrateChanges(), 1);
         c.appendToBuffer1("LATE one");
         EXPECT_EQ(c.findKey("Z"), 1);
       },
       "Y\t2\nZ\t3 \nW\t\nLATE one\n", "Y\t2\nZ\t3 \nW\t\nLATE\tone\n"},
      {"integrate into an empty file", "",
       [](Commands& c) {
         c.appendToBuffer1("A b");
         ASSERT_EQ(c.integrateChanges(), 1);
       },
       "A\tb\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    writeFile(file(), c.original);
    unlink(backup().c_str());
    auto commands = open();
    EXPECT_EQ(commands->findKey("none"), 0);  // read before the change
    c.change(*commands);
    EXPECT_EQ(close(*commands), 1);
    EXPECT_EQ(readFile(file()), c.closed);
    EXPECT_EQ(close(*commands), 1);
    EXPECT_EQ(readFile(file()), c.closedAgain.empty() ? c.closed : c.closedAgain);
    EXPECT_EQ(readFile(backup()), c.original);
  }
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

  // A list is deleted up to its first miss; what was marked before it stays marked.
  List<CommandsEntries> list;
  for (const char* y : {"2", "9"}) list.put(CommandsEntries("Y", y));
  list.put(CommandsEntries("X", "3"));
  EXPECT_EQ(c->deleteFromCommands2(list), 0);
  List<CommandsEntries> twice;
  for (int i = 0; i < 2; ++i) twice.put(CommandsEntries("Y", "2"));
  EXPECT_EQ(c->deleteFromCommands2(twice), 2);
  EXPECT_EQ(close(*c), 1);
  EXPECT_EQ(readFile(file()), "X\t3\n");
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
  EXPECT_EQ(Commands(dir_.path().c_str(), "next").getValueFor2("D"), "4");
}

TEST_F(CommandsTest, OpenCommandsCreatesOrOpensForUpdate) {
  for (bool existing : {false, true}) {
    if (existing) writeFile(file(), "A 1\n");
    auto c = open();
    ASSERT_EQ(c->openCommands(), 1);
    EXPECT_EQ(c->openType(), existing ? FileH::kAppendUpdate : FileH::kWriteText);
    EXPECT_EQ(c->openCommands(), 1);
    EXPECT_EQ(c->closeCommands(), 1);
    EXPECT_EQ(c->closeCommands(), 1);
    EXPECT_EQ(readFile(file()), existing ? "A 1\n" : "");
  }
}

}  // namespace
