#include "docfiles/DocumentLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/Log.h"
#include "base/Stop.h"
#include "docfiles/utl.h"

namespace {

constexpr int kPollMs = 50;

// Nobody outside the worker's user (and, in a directory the group may write
// into, its group) may open the lock file: whoever can open it can lock it.
mode_t lockFileMode(const String& directory) {
  struct stat status;
  bool shared = stat(directory.c_str(), &status) == 0 && (status.st_mode & S_IWGRP) != 0;
  return shared ? 0660 : 0600;
}

}  // namespace

int DocumentLock::acquire(const String& directory, int waitSeconds, FileSystem& fs) {
  Log log("DocumentLock", "acquire", __FILE__, __LINE__, 13);
  if (fd_.valid()) return 1;
  String path = directory + "/" + kFileName;
  mode_t mode = lockFileMode(directory);
  UniqueFd fd(
      fs.open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
  if (!fd.valid()) {
    int err = errno;
    if (err == ENOENT) return 1;
    // In a directory where the worker may create no file it can change no
    // statement either (every write of COMMANDS makes a file beside it).
    struct stat status;
    if ((err == EACCES || err == EPERM || err == EROFS) && lstat(path.c_str(), &status) != 0 &&
        errno == ENOENT) {
      log.msg(__LINE__, 3, "document '%s' is worked on without a lock: open('%s') failed: %s",
              directory.c_str(), path.c_str(), errnoText(err).c_str());
      return 1;
    }
    log.msg(__LINE__, 2, "cannot lock document '%s': open('%s') failed: errno=%d (%s)",
            directory.c_str(), path.c_str(), err, errnoText(err).c_str());
    return 0;
  }
  // Exactly that mode, whatever the umask, also for a lock file an earlier
  // version left readable by everyone.
  struct stat status;
  if (fstat(fd.get(), &status) == 0 && status.st_uid == geteuid() &&
      (status.st_mode & 0777) != mode) {
    fchmod(fd.get(), mode);
  }
  long long waitedMs = 0;
  while (fs.tryLock(fd.get()) != 0) {
    int err = errno;
    if (err == EINTR) continue;
    if (err != EAGAIN && err != EACCES) {
      log.msg(__LINE__, 2, "cannot lock document '%s': fcntl('%s') failed: errno=%d (%s)",
              directory.c_str(), path.c_str(), err, errnoText(err).c_str());
      return 0;
    }
    if (waitedMs == 0) {
      log.msg(__LINE__, 8, "document '%s' is locked by another process; waiting up to %d s",
              directory.c_str(), waitSeconds);
    }
    if (waitedMs >= waitSeconds * 1000LL || waitForStop(kPollMs)) {
      log.msg(__LINE__, 2,
              "document '%s' is being worked on by another process (lock '%s' held for %d s); "
              "document failed",
              directory.c_str(), path.c_str(), static_cast<int>(waitedMs / 1000));
      return 0;
    }
    waitedMs += kPollMs;
  }
  fd_ = std::move(fd);
  log.msg(__LINE__, 9, "locked document '%s' ('%s')", directory.c_str(), path.c_str());
  return 1;
}
