#include "docfiles/DocumentLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/Log.h"
#include "base/Stop.h"
#include "docfiles/utl.h"

namespace {

constexpr int kPollMs = 50;

}  // namespace

int DocumentLock::acquire(const String& directory, int waitSeconds) {
  Log log("DocumentLock", "acquire", __FILE__, __LINE__, 13);
  if (fd_.valid()) return 1;
  String path = directory + "/" + kFileName;
  UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!fd.valid() && (errno == EACCES || errno == EPERM || errno == EROFS)) {
    // A directory the worker may not write into: lock the directory itself.
    path = directory;
    fd.reset(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  if (!fd.valid()) {
    int err = errno;
    if (err == ENOENT) return 1;
    log.msg(__LINE__, 2, "cannot lock document '%s': open('%s') failed: errno=%d (%s)",
            directory.c_str(), path.c_str(), err, errnoText(err).c_str());
    return 0;
  }
  long long waitedMs = 0;
  while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    if (err == EINTR) continue;
    if (err != EWOULDBLOCK) {
      log.msg(__LINE__, 2, "cannot lock document '%s': flock('%s') failed: errno=%d (%s)",
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
