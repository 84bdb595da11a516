// ScopedSocket: owns a socket descriptor and closes it when it goes away,
// keeping errno, so a failure path can still report why it failed.
#ifndef RPC_SCOPEDSOCKET_H_
#define RPC_SCOPEDSOCKET_H_

#include <unistd.h>

#include <cerrno>

class ScopedSocket {
 public:
  explicit ScopedSocket(int fd) : fd_(fd) {}
  ~ScopedSocket() {
    if (fd_ >= 0) {
      const int e = errno;
      close(fd_);
      errno = e;
    }
  }
  ScopedSocket(const ScopedSocket&) = delete;
  ScopedSocket& operator=(const ScopedSocket&) = delete;

  int get() const { return fd_; }
  // Hands the descriptor over; the object no longer closes it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

#endif  // RPC_SCOPEDSOCKET_H_
