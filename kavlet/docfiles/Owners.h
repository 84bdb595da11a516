// Owners for the C resources of the document files: descriptors and streams.
#ifndef KAVLET_DOCFILES_OWNERS_H_
#define KAVLET_DOCFILES_OWNERS_H_

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace docfiles {

// Owns one file descriptor; closes it when it goes away.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Hands the descriptor over to the caller.
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes now and reports the result of close(): 0, or -1 with errno set.
  int close() {
    int fd = fd_;
    fd_ = -1;
    return fd >= 0 ? ::close(fd) : 0;
  }

 private:
  int fd_;
};

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using MallocPtr = std::unique_ptr<char, FreeDeleter>;

}  // namespace docfiles

#endif  // KAVLET_DOCFILES_OWNERS_H_
