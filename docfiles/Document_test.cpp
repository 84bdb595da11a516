#include "docfiles/Document.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/FaultyFileSystem.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace std::string_literals;
using namespace testing_support;

class DocumentTest : public ::testing::Test {
 protected:
  std::string file(const char* name) const { return dir_.file(name); }
  TempDir dir_;
};

// Only a missing COMMANDS means "no statements"; the check leaves the file
// closed, so the tool's service opens it as before.
TEST_F(DocumentTest, CommandsReadabilityLeavesTheFileClosed) {
  const struct {
    const char* name;
    void (*make)(const std::string& commands);
    int readable;
    int openable;  // hasReadPermission afterwards
  } cases[] = {
      {"regular", [](const std::string& c) { writeFile(c, "A 1\n"); }, 1, 1},
      {"empty", [](const std::string& c) { writeFile(c, ""); }, 1, 1},
      {"missing", [](const std::string&) {}, 1, 0},
      {"directory", [](const std::string& c) { makeDir(c); }, 0, 0},
      {"link", [](const std::string& c) { symlink("/etc/hostname", c.c_str()); }, 0, 0},
  };
  for (const auto& c : cases) {
    std::string doc = file(c.name);
    makeDir(doc);
    c.make(doc + "/COMMANDS");
    Document document(doc.c_str(), "clockette", 0);
    LogCapture log;
    EXPECT_EQ(document.commandsReadable(), c.readable) << c.name;
    EXPECT_EQ(log.contains("COMMANDS file '" + doc + "/COMMANDS' exists but cannot be read"),
              c.readable == 0)
        << log.text();
    EXPECT_EQ(document.hasReadPermission(), c.openable) << c.name;
  }
}

TEST_F(DocumentTest, CloseAllWritesCommandsProtocolAndFurtherFilesAndGoesOnAfterAFailure) {
  for (bool commands : {true, false}) {
    SCOPED_TRACE(commands);
    TempDir dir;
    if (commands) writeFile(dir.file("COMMANDS"), "A 1\n");
    Document doc(dir.path().c_str(), "clockette", 1);
    doc.appendToCommands("B 2");
    EXPECT_EQ(doc.appendToProtocol("done"), 1);
    FileH* out = doc.getfileHPtr(dir.file("out.txt").c_str());
    EXPECT_EQ(doc.getFileH(dir.file("out.txt").c_str()), out);
    EXPECT_NE(doc.getfileHPtr(dir.file("other.txt").c_str()), out);
    ASSERT_EQ(out->openFile(FileH::kWriteText), 1);
    out->writeLineToFile("payload");
    EXPECT_EQ(doc.closeAll(), commands ? 1 : 0);
    EXPECT_FALSE(out->isOpen());
    EXPECT_EQ(readIfThere(dir.file("COMMANDS")), commands ? "A 1\nB 2\n" : "");
    EXPECT_EQ(fileExists(dir.file("COMMANDS")), commands);
    EXPECT_EQ(readFile(dir.file("out.txt")), "payload\n");
    EXPECT_EQ(readFile(dir.file("KVprotocol")).substr(19), " [clockette] done\n");
  }
}

TEST_F(DocumentTest, DocMessageMarksErrorLevels) {
  LogCapture log(LogCapture::kAllLevels);
  Log scope("test", "DocMessage", __FILE__, __LINE__, 13);
  Document doc(dir_.path().c_str(), "clockette", 1);
  EXPECT_EQ(doc.docMessage(scope, __LINE__, 2, "failed %s", "file.pdf"), 1);
  EXPECT_EQ(doc.docMessage(scope, __LINE__, 5, "at five"), 1);
  EXPECT_EQ(doc.docMessage(scope, __LINE__, 6, "fine %d", 6), 1);
  EXPECT_EQ(doc.failureReason(), "failed file.pdf");  // the first at level 2, not the last error
  std::string longText(4000, 'm');
  doc.docMessage(scope, __LINE__, 8, "%s", longText.c_str());
  EXPECT_EQ(doc.closeProtocol(), 1);
  std::string text = readFile(file("KVprotocol"));
  for (const std::string& line : {"] ERROR: failed file.pdf\n"s, "] ERROR: at five\n"s,
                                  "] fine 6\n"s, "] " + std::string(2999, 'm') + "\n"})
    EXPECT_TRUE(contains(text, line)) << line.substr(0, 40);
  EXPECT_TRUE(log.contains("test::DocMessage: failed file.pdf"));
}

TEST_F(DocumentTest, OptionsFollowTheirVariables) {
  const struct {
    const char* value;  // nullptr: unset
    bool kept;
  } protocolCases[] = {{nullptr, true}, {"On", true}, {"oN", true}, {"yes", false}, {"", false}};
  for (const auto& c : protocolCases) {
    const DocumentOptions options = readDocumentOptions(c.value, nullptr);
    unlink(file("KVprotocol").c_str());
    Document doc(dir_.path().c_str(), "probe", 1, FileSystem::posix(), options);
    doc.appendToProtocol("text");
    EXPECT_EQ(doc.closeAll(), 1);
    EXPECT_EQ(fileExists(file("KVprotocol")), c.kept) << (c.value ? c.value : "unset");
  }
  const struct {
    const char* value;  // nullptr: unset; the values follow the common switch rule
    int mode;
  } quotingCases[] = {{nullptr, 1}, {"JA", 1}, {"No", 0}, {"", 0}};
  for (const auto& c : quotingCases) {
    EXPECT_EQ(readDocumentOptions(nullptr, c.value).tokenMode(), c.mode) << c.value;
  }
}

// A rewrite killed after some of its lines (or before its first one) leaves
// the old file, and the backup, which the next read restores.
TEST_F(DocumentTest, RewriteKilledHalfWayLeavesTheOldFile) {
  std::string original;
  for (int i = 0; i < 3000; ++i) {
    original += "STATEMENT_" + std::to_string(i) + "  value number " + std::to_string(i) + "\n";
    if (i % 100 == 0) original += "\n";
  }
  for (int stopAt : {1500, 1}) {
    SCOPED_TRACE(stopAt);
    writeFile(file("COMMANDS"), original);
    unlink(file("COMMANDS.clockette").c_str());
    {
      BackgroundChild child(
          {DOCFILES_PROBE, "rewrite:" + dir_.path() + ":clockette:" + std::to_string(stopAt)});
      std::string line;
      ASSERT_TRUE(child.readLine(&line, 30));
      ASSERT_EQ(line, "STOPPED");
      EXPECT_EQ(child.stop(SIGKILL), 128 + SIGKILL);
    }
    EXPECT_EQ(readFile(file("COMMANDS")), original);
    EXPECT_EQ(readFile(file("COMMANDS.clockette")), original);

    Document doc(dir_.path().c_str(), "clockette", 0);
    List<CommandsEntries> entries;
    ASSERT_EQ(doc.getAllValuesFromCommands(entries), 1);
    ASSERT_EQ(entries.count(), 3000u);
    EXPECT_EQ(entries[2999], CommandsEntries("STATEMENT_2999", "value number 2999"));
    EXPECT_EQ(readFile(file("COMMANDS")), original);
    EXPECT_EQ(readFile(file("COMMANDS.clockette")), original);
  }
}

// A leftover backup is copied beside COMMANDS and renamed over it: at no
// moment is there no COMMANDS, and a failed step leaves the old one.
TEST_F(DocumentTest, RestoringTheBackupNeverRemovesCommandsFirst) {
  const std::string commands = file("COMMANDS");
  const std::string partial = file("COMMANDS.clockette.tmp");
  const std::vector<std::string> steps = {
      "open " + partial,        "write " + partial,
      "sync " + partial,        "rename " + partial + " " + commands,
      "syncdir " + dir_.path(), "open " + commands};
  FaultyFileSystem fs;
  LogCapture log;
  for (size_t n = 0; n <= steps.size(); ++n) {
    SCOPED_TRACE(n);
    writeFile(commands, "CHANGED 1\n");
    writeFile(file("COMMANDS.clockette"), "SAVED 1\n");
    fs.failCall(static_cast<long>(n), EIO);
    Document doc(dir_.path().c_str(), "clockette", 0, fs);
    EXPECT_EQ(doc.commandsReadable(), n == 0 ? 1 : 0);
    if (n == 0) {
      EXPECT_EQ(fs.calls(), steps);
    }
    EXPECT_EQ(readFile(commands), n == 0 || n > 4 ? "SAVED 1\n" : "CHANGED 1\n");
    EXPECT_FALSE(fileExists(partial));
  }
}

}  // namespace
