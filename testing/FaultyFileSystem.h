// FaultyFileSystem: the system's file calls, with a record of each call and
// one chosen call that fails.
//
// Each call is recorded as "<call> <path>" ("open /d/COMMANDS",
// "write /d/.a.tst.tmp", "rename /d/.a.tst.tmp /d/a.tst", "syncdir /d");
// calls on a descriptor name the path it was opened with. failCall(n, err)
// makes the n-th call from then on (counted from 1) fail with err without
// reaching the system, as a full disk or a dying one would; the calls after
// it work. Safe on any thread.
#ifndef TESTING_FAULTYFILESYSTEM_H_
#define TESTING_FAULTYFILESYSTEM_H_

#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/FileSystem.h"

namespace testing_support {

class FaultyFileSystem : public FileSystem {
 public:
  // Forgets the record and arms the fault (n 0: none).
  void failCall(long n, int err) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
    countdown_ = n;
    err_ = n > 0 ? err : 0;
  }
  // Every call since the last failCall, in order.
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // Whether the armed fault was used.
  bool failed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return countdown_ == 0 && err_ != 0;
  }

  int open(const char* path, int flags, mode_t mode) override {
    int fd = run("open " + std::string(path), [&] { return posix().open(path, flags, mode); });
    std::lock_guard<std::mutex> lock(mutex_);
    if (fd >= 0) paths_[fd] = path;
    return fd;
  }
  ssize_t write(int fd, const void* data, size_t size) override {
    return run("write " + pathOf(fd), [&] { return posix().write(fd, data, size); });
  }
  int sync(int fd) override {
    return run("sync " + pathOf(fd), [&] { return posix().sync(fd); });
  }
  int truncate(int fd, off_t length) override {
    return run("truncate " + pathOf(fd), [&] { return posix().truncate(fd, length); });
  }
  int rename(const char* from, const char* to) override {
    return run("rename " + std::string(from) + " " + to, [&] { return posix().rename(from, to); });
  }
  int unlink(const char* path) override {
    return run("unlink " + std::string(path), [&] { return posix().unlink(path); });
  }
  int syncDirectory(const char* dir) override {
    return run("syncdir " + std::string(dir), [&] { return posix().syncDirectory(dir); });
  }
  int tryLock(int fd) override {
    return run("lock " + pathOf(fd), [&] { return posix().tryLock(fd); });
  }

 private:
  // Records the call and makes it, or fails it with errno set.
  template <typename Call>
  auto run(const std::string& call, Call make) -> decltype(make()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(call);
      if (countdown_ > 0 && --countdown_ == 0) {
        errno = err_;
        return -1;
      }
    }
    return make();
  }
  std::string pathOf(int fd) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = paths_.find(fd);
    return it == paths_.end() ? "fd " + std::to_string(fd) : it->second;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::map<int, std::string> paths_;
  long countdown_ = 0;
  int err_ = 0;
};

}  // namespace testing_support

#endif  // TESTING_FAULTYFILESYSTEM_H_
