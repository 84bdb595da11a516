#include "base/FileSystem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/Owners.h"

namespace {

class PosixFileSystem : public FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override { return ::open(path, flags, mode); }
  ssize_t write(int fd, const void* data, size_t size) override { return ::write(fd, data, size); }
  int sync(int fd) override { return fsync(fd); }
  int truncate(int fd, off_t length) override { return ftruncate(fd, length); }
  int rename(const char* from, const char* to) override { return ::rename(from, to); }
  int unlink(const char* path) override { return ::unlink(path); }
  int syncDirectory(const char* directory) override {
    // A directory that cannot be opened for reading has nothing this
    // process could sync.
    UniqueFd fd(::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) return 0;
    return fsync(fd.get()) != 0 && errno != EINVAL ? -1 : 0;
  }
  int tryLock(int fd) override {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_SETLK, &whole);
  }
};

}  // namespace

FileSystem& FileSystem::posix() {
  static PosixFileSystem fs;
  return fs;
}

int writeWhole(FileSystem& fs, int fd, const char* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = fs.write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}
