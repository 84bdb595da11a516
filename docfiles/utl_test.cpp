#include "docfiles/utl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

// Bytes that cross several 1024-byte chunks and include NUL bytes.
std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + i / 13) & 0xff);
  return s;
}

TEST(UtlCopy, CopiesManyChunksExactlyAndFailuresLeaveTheTargetAlone) {
  LogCapture log(LogCapture::kAllLevels);
  TempDir dir;
  const std::string data = pattern(5 * 1024 + 17), from = dir.file("from"), to = dir.file("to");
  writeFile(from, data);
  makeDir(dir.file("adir"));
  for (auto copy : {utlCopy, utlCopyAndSync, utlLinkOrCopy}) {
    unlink(to.c_str());
    EXPECT_EQ(copy(from.c_str(), to.c_str()), 1);
    EXPECT_EQ(copy(dir.file("missing").c_str(), to.c_str()), 0);
    // A directory as source must not truncate the target before failing.
    EXPECT_EQ(copy(dir.file("adir").c_str(), to.c_str()), 0);
    EXPECT_EQ(readFile(to), data);
    EXPECT_EQ(copy(dir.file("missing").c_str(), dir.file("new").c_str()), 0);
    EXPECT_FALSE(fileExists(dir.file("new")));
  }
  EXPECT_TRUE(log.contains("can't copy file from '" + dir.file("missing") + "' to '" +
                           dir.file("new") + "'; the call of function utlCopy("));
  EXPECT_EQ(utlCopy(from.c_str(), dir.file("no/such/dir").c_str()), 0);
  EXPECT_TRUE(log.contains("the system call open64('" + dir.file("no/such/dir") +
                           "',O_WRONLY|O_CREAT,0666) failed:No such file or directory"));
  // Even a link where it can be made is an independent copy.
  const std::string changed = "changed afterwards";
  writeFile(from, changed);
  EXPECT_EQ(readFile(to), data);
  // Over a longer target plain copying keeps its tail; copy-and-sync truncates.
  writeFile(dir.file("plain"), data);
  writeFile(dir.file("synced"), data);
  EXPECT_EQ(utlCopy(from.c_str(), dir.file("plain").c_str()), 1);
  EXPECT_EQ(utlCopyAndSync(from.c_str(), dir.file("synced").c_str()), 1);
  EXPECT_EQ(readFile(dir.file("plain")), changed + data.substr(changed.size()));
  EXPECT_EQ(readFile(dir.file("synced")), changed);
}

TEST(UtlAppend, AppendsExactlyTheRangeWithinBounds) {
  LogCapture log(LogCapture::kAllLevels);
  TempDir dir;
  std::string data = pattern(3000);
  std::string from = dir.file("from");
  std::string to = dir.file("to");
  writeFile(from, data);
  writeFile(to, "head:");
  EXPECT_EQ(utlAppend(from.c_str(), to.c_str(), 10, 2500), 1);
  EXPECT_EQ(readFile(to), "head:" + data.substr(10, 2500));
  // offset + len == size is the last valid range; one byte more fails and
  // appends nothing.
  const int64_t cases[][3] = {{2990, 10, 1}, {2990, 11, 0},     {3001, 0, 0}, {-1, 5, 0},
                              {5, -1, 0},    {1, INT64_MAX, 0}, {3000, 0, 1}};
  for (const auto& c : cases)
    EXPECT_EQ(utlAppend(from.c_str(), to.c_str(), c[0], c[1]), c[2]) << c[0] << ", " << c[1];
  EXPECT_EQ(readFile(to), "head:" + data.substr(10, 2500) + data.substr(2990, 10));
  EXPECT_TRUE(
      log.contains("invalid parameters: file '" + from + "': size=3000, offset=2990, len=11"));
  EXPECT_EQ(utlAppend(dir.file("missing").c_str(), to.c_str(), 0, 0), 0);
}

TEST(ValidateDate, MonthsDaysAndLeapYears) {
  LogCapture log(LogCapture::kAllLevels);
  const struct {
    const char* date;
    int valid;
  } cases[] = {
      {"20240229", 1}, {"20230229", 0}, {"19000229", 0}, {"20000229", 1}, {"20240131", 1},
      {"20240132", 0}, {"20240431", 0}, {"20241231", 1}, {"20241301", 0}, {"20240100", 0},
      {"20240001", 0}, {"2024-101", 0}, {"", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(validateDate(c.date), c.valid) << c.date;
  // Month 0 fails on its days, not on its range.
  EXPECT_TRUE(log.contains("month 0 of year 2024 consists of 0 days."));
  EXPECT_FALSE(log.contains("(month is 0)"));
  EXPECT_TRUE(log.contains("month must be between 01 and 12 (month is 13)"));
}

}  // namespace
