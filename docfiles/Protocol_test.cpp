#include "docfiles/Protocol.h"

#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <string>

#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

std::string localStamp() {
  time_t now = time(nullptr);
  char buf[32];
  strftime(buf, sizeof buf, "%Y/%m/%d %H:%M:%S", localtime(&now));
  return buf;
}

TEST(Protocol, NothingIsWrittenUntilThereAreLinesAndThenTheyFollowTheEarlierOnes) {
  TempDir dir;
  std::string file = dir.file("KVprotocol");
  Protocol p(dir.path().c_str(), "clockette");
  // An empty buffer creates no file.
  EXPECT_EQ(p.writeBuffer(), 1);
  EXPECT_EQ(p.closeProtocol(), 1);
  EXPECT_FALSE(fileExists(file));
  const std::string earlier = "2020/01/01 00:00:00 [scanner] scanned\n";
  writeFile(file, earlier);
  std::string before = localStamp();
  EXPECT_EQ(p.appendToBuffer("file stamped"), 1);
  EXPECT_EQ(p.appendToBuffer("two\nlines"), 1);
  std::string after = localStamp();
  // Nothing reaches the file before writeBuffer.
  EXPECT_EQ(readFile(file), earlier);
  EXPECT_EQ(p.writeBuffer(), 1);
  EXPECT_EQ(p.closeProtocol(), 1);
  std::string text = readFile(file);
  ASSERT_EQ(text.compare(0, earlier.size(), earlier), 0);
  std::smatch m;
  const std::string added = text.substr(earlier.size());
  const std::string stamp = "(\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d) \\[clockette\\] ";
  ASSERT_TRUE(
      std::regex_match(added, m, std::regex(stamp + "file stamped\n" + stamp + "two\nlines\n")))
      << added;
  EXPECT_GE(m[1].str(), before);
  EXPECT_LE(m[2].str(), after);
  // The buffer was emptied: a second write adds nothing.
  EXPECT_EQ(p.writeBuffer(), 1);
  EXPECT_EQ(readFile(file), text);
}

TEST(Protocol, AFailedWriteDropsTheBuffer) {
  LogCapture log(LogCapture::kAllLevels);
  TempDir dir;
  makeDir(dir.file("KVprotocol"));  // cannot be opened as a file, not even by root
  Protocol p(dir.path().c_str(), "w");
  p.appendToBuffer("lost");
  EXPECT_EQ(p.writeBuffer(), 0);
  EXPECT_TRUE(log.contains("cannot open file " + dir.file("KVprotocol") + ": errno="));
  EXPECT_EQ(p.writeBuffer(), 1);
  EXPECT_EQ(p.closeProtocol(), 1);
}

}  // namespace
