#include "docfiles/FileH.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

TEST(FileHOpenAndWrite, TypesModesAndRefusals) {
  LogCapture log(LogCapture::kAllLevels);
  TempDir dir;
  std::string name = dir.file("f");
  FileH f(name, "tag");
  // Reading modes need the file; writing modes create it.
  for (int type : {FileH::kReadBinary, FileH::kReadText, FileH::kUpdate, FileH::kUpdateBinary})
    EXPECT_EQ(f.openFile(type), 0) << type;
  EXPECT_TRUE(log.contains("cannot open file " + name + ": errno=No such file or directory"));
  for (int type = 3; type <= 12; ++type) {
    if (type == FileH::kUpdate || type == FileH::kUpdateBinary) continue;
    unlink(name.c_str());
    ASSERT_EQ(f.openFile(type), 1) << type;
    EXPECT_EQ(f.writeToFile("x"), 1) << type;
    EXPECT_EQ(f.closeFile(), 1) << type;
    EXPECT_EQ(readFile(name), "x") << type;
  }
  EXPECT_EQ(f.openFile(0), 0);
  EXPECT_EQ(f.openFile(13), 0);
  EXPECT_TRUE(log.contains("wrong type: 13"));
  ASSERT_EQ(f.openFile(FileH::kReadText), 1);
  EXPECT_EQ(f.openFile(FileH::kReadText), 0);
  EXPECT_TRUE(log.contains("file '" + name + "' is allready open"));
  EXPECT_EQ(f.closeFile(), 1);
  // Writing strings and lines exactly, and refusals.
  EXPECT_EQ(f.writeToFile("nothing open"), 0);
  EXPECT_TRUE(log.contains("can't write string 'nothing open' to file '" + name +
                           "'\n    because the file isn't open for writing."));
  EXPECT_EQ(f.writeLineToFile("nothing open"), 0);
  ASSERT_EQ(f.openFile(FileH::kWriteText), 1);
  EXPECT_EQ(f.writeToFile("a\tb "), 1);
  EXPECT_EQ(f.writeLineToFile(""), 1);
  EXPECT_EQ(f.writeLineToFile("second"), 1);
  EXPECT_EQ(f.closeFile(), 1);
  ASSERT_EQ(f.openFile(FileH::kReadText), 1);
  EXPECT_EQ(f.writeLineToFile("to a read stream"), 0);
  EXPECT_TRUE(log.contains("can`t write string 'to a read stream' to '" + name + "': errno = '"));
  f.closeFile();
  EXPECT_EQ(readFile(name), "a\tb \nsecond\n");
}

TEST(FileHRead, LinesOfAnyLengthWithTheirLineEnds) {
  TempDir dir;
  std::string big(200000, 'L');
  std::string withNul("a\0b", 3);
  writeFile(dir.file("f"), big + "\n" + "crlf\r\n" + withNul + "\n\n" + "last");
  FileH f(dir.file("f"), "tag");
  ASSERT_EQ(f.openFile(FileH::kReadText), 1);
  String line;
  const std::string expected[] = {big + "\n", "crlf\r\n", withNul + "\n", "\n", "last"};
  for (const std::string& e : expected) {
    ASSERT_EQ(f.readNextLine(line), 1);
    EXPECT_EQ(line.str(), e);
  }
  EXPECT_LT(f.readNextLine(line), 0);
  EXPECT_LT(f.readNextLine(line), 0);
  f.closeFile();
  EXPECT_EQ(f.readNextLine(line), 0);
}

// What the first backup or recovery of an object leaves: a leftover backup
// (of a run that broke off) is copied over the file by either; a backup that
// is no file never costs the file. "-" stands for no file, "/" for a directory.
TEST(FileHBackup, FirstBackupOrRecovery) {
  struct Case {
    const char* file;
    const char* backup;
    bool recover;  // else makeBackupCopy
    int result;
    const char* fileAfter;
    const char* backupAfter;
  } cases[] = {
      {"original\n", "-", false, 1, "original\n", "original\n"},
      {"-", "-", false, 0, "-", "-"},
      {"half writ", "saved\n", false, 1, "saved\n", "saved\n"},
      {"half writ", "saved\n", true, 1, "saved\n", "saved\n"},
      {"as is\n", "-", true, 1, "as is\n", "-"},
      {"-", "saved\n", true, 1, "saved\n", "saved\n"},
      {"keep me\n", "/", true, 0, "keep me\n", "/"},
      {"keep me\n", "/", false, 0, "keep me\n", "/"},
  };
  auto state = [](const std::string& path) -> std::string {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return "-";
    return S_ISDIR(st.st_mode) ? "/" : readFile(path);
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.backup + (c.recover ? " recover" : " backup"));
    TempDir dir;
    std::string name = dir.file("COMMANDS");
    if (std::string(c.file) != "-") writeFile(name, c.file);
    if (std::string(c.backup) == "/")
      makeDir(name + ".t");
    else if (std::string(c.backup) != "-")
      writeFile(name + ".t", c.backup);
    FileH f(name, "t");
    EXPECT_EQ(c.recover ? f.recoverFromBackup() : f.makeBackupCopy(), c.result);
    EXPECT_EQ(state(name), c.fileAfter);
    EXPECT_EQ(state(name + ".t"), c.backupAfter);
  }
}

// Once made or recovered, the backup stays what it was for this object;
// another worker's backup is never touched.
TEST(FileHBackup, OncePerObject) {
  TempDir dir;
  std::string name = dir.file("COMMANDS");
  writeFile(name, "half writ");
  writeFile(name + ".clockette", "saved\n");
  writeFile(name + ".other", "another worker's\n");
  FileH f(name, "clockette");
  ASSERT_EQ(f.recoverFromBackup(), 1);
  writeFile(name, "new\n");
  EXPECT_EQ(f.recoverFromBackup(), 1);
  EXPECT_EQ(f.makeBackupCopy(), 1);
  EXPECT_EQ(readFile(name), "new\n");
  EXPECT_EQ(readFile(name + ".clockette"), "saved\n");
  EXPECT_EQ(readFile(name + ".other"), "another worker's\n");

  FileH open(name, "open");  // an open file is never backed up
  ASSERT_EQ(open.openFile(FileH::kReadText), 1);
  EXPECT_EQ(open.makeBackupCopy(), 0);
  EXPECT_FALSE(fileExists(name + ".open"));
}

}  // namespace
