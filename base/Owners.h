// Owners of the C library's resources: descriptors, streams, directory
// streams, address lists and malloc'ed memory. The one place these are
// defined; OpenSSL's objects have their owners in ossl/OpenSslPtr.h.
#ifndef BASE_OWNERS_H_
#define BASE_OWNERS_H_

#include <dirent.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

// Owns one file descriptor (file or socket) and closes it when it goes away.
// Closing on the way out keeps errno, so a failure path can still report why
// it failed after the owner is gone.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) {
      const int e = errno;
      ::close(fd_);
      errno = e;
    }
  }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Hands the descriptor over to the caller; the owner no longer closes it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes the old descriptor (keeping errno) and owns fd instead.
  void reset(int fd = -1) {
    UniqueFd old(fd_);
    fd_ = fd;
  }
  // Closes now and reports the result of close(): 0, or -1 with errno set.
  // Use this where a failed close means lost data (a file just written).
  int close() {
    const int fd = release();
    return fd >= 0 ? ::close(fd) : 0;
  }

 private:
  int fd_;
};

// The deleter of every owner below: hands a non-null pointer to the C call
// that frees what it points to. Owners of other libraries' objects (libcurl's,
// for example) are made with it too: std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>.
template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* p) const {
    if (p != nullptr) Free(p);
  }
};

// A stream that is closed when it goes away. Where the result of fclose()
// matters (a file written), call fclose(p.release()) and check it.
using FilePtr = std::unique_ptr<FILE, FreeWith<std::fclose>>;

// A directory stream from opendir(), closed when it goes away.
using DirPtr = std::unique_ptr<DIR, FreeWith<closedir>>;

// getaddrinfo()'s list, freed from its head.
using AddrInfoPtr = std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>>;

// Memory from malloc(), strdup(), realpath(), posix_memalign() and the like.
template <typename T = char>
using MallocPtr = std::unique_ptr<T, FreeWith<std::free>>;

#endif  // BASE_OWNERS_H_
