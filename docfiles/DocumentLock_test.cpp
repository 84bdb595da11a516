// Locks of one process on two open file descriptions conflict like those of
// two processes.
#include "docfiles/DocumentLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/Owners.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

mode_t permissions(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

TEST(DocumentLockTest, AReadersLockDoesNotHoldTheWorkerUpAndAWritersDoes) {
  TempDir dir;
  chmod(dir.path().c_str(), 0755);
  const std::string lockFile = dir.file(DocumentLock::kFileName);
  // What a reader of the document can do: flock the directory, and flock a
  // lock file it may read (as an earlier version left them, 0644).
  writeFile(lockFile, "");
  chmod(lockFile.c_str(), 0644);
  UniqueFd readerFile(open(lockFile.c_str(), O_RDONLY));
  UniqueFd readerDir(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
  ASSERT_EQ(flock(readerFile.get(), LOCK_EX | LOCK_NB), 0);
  ASSERT_EQ(flock(readerDir.get(), LOCK_EX | LOCK_NB), 0);
  LogCapture log;
  {
    DocumentLock lock;
    EXPECT_EQ(lock.acquire(dir.path(), 0), 1);
    EXPECT_EQ(permissions(lockFile), 0600u);  // no one else can open it any more
    // A second worker waits, and gives up.
    DocumentLock other;
    EXPECT_EQ(other.acquire(dir.path(), 0), 0);
    EXPECT_TRUE(
        log.contains("document '" + dir.path() + "' is being worked on by another process"));
  }
  // Released with the object; a directory the group may write into shares
  // the lock file with the group.
  unlink(lockFile.c_str());
  chmod(dir.path().c_str(), 02775);
  DocumentLock again;
  EXPECT_EQ(again.acquire(dir.path(), 0), 1);
  EXPECT_EQ(permissions(lockFile), 0660u);
}

}  // namespace
