// The timestamp file on a real file system: one line of BASE64, replaced
// whole, never written through a link, and a target that cannot be written.
#include "tsclient/TsResultFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "der/CAsn1string.h"
#include "der/Der.h"
#include "testing/FaultyFileSystem.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

TEST(TsResultFileTest, TheTargetIsReplacedWholeAndNeverWrittenThroughALink) {
  TempDir dir;
  const unsigned char der[] = {0x30, 0x03, 0x02, 0x01, 0x00};
  CAsn1string response(kTagOctetString);
  response.setVal(kTagOctetString, der, sizeof der);
  const std::string target = dir.file("document.tst");
  const std::string elsewhere = dir.file("elsewhere");
  testing_support::writeFile(elsewhere, "not to be touched");
  ASSERT_EQ(symlink(elsewhere.c_str(), target.c_str()), 0);
  // A leftover of a killed attempt, and a link planted at the temporary name.
  const std::string temporary = dir.file(".document.tst.tmp");
  ASSERT_EQ(symlink(elsewhere.c_str(), temporary.c_str()), 0);
  LogCapture log(LogCapture::kAllLevels);
  FaultyFileSystem fs;  // records the calls
  ASSERT_EQ(storeTimestamp(&response, "document.pdf", target.c_str(), true, fs), 0);
  // The data reach the disk before the name does; a failing step is tried
  // with whole documents (app/Clockette_test).
  EXPECT_EQ(fs.calls(), (std::vector<std::string>{"unlink " + temporary, "open " + temporary,
                                                  "write " + temporary, "sync " + temporary,
                                                  "rename " + temporary + " " + target,
                                                  "syncdir " + dir.path()}));
  EXPECT_EQ(readFile(target), "MAMCAQA=");
  EXPECT_EQ(readFile(elsewhere), "not to be touched");
  struct stat status;
  ASSERT_EQ(lstat(target.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(access(temporary.c_str(), F_OK), -1);
  EXPECT_TRUE(log.contains("Timestamp for document document.pdf written to " + target));

  const std::string badTarget = dir.file("no-such-dir/document.tst");
  EXPECT_EQ(storeTimestamp(&response, "document.pdf", badTarget.c_str()), -5);
  EXPECT_TRUE(log.contains("Unable to open " + badTarget + " for writing: open('" +
                           dir.file("no-such-dir/.document.tst.tmp") +
                           "') failed: errno=2 (No such file or directory)"));
}

}  // namespace
