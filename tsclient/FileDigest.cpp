#include "tsclient/FileDigest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/Owners.h"
#include "base/Stop.h"

namespace {

constexpr size_t kBlock = 1 << 20;
constexpr size_t kPage = 4096;
// Below this size a second thread costs more than the overlap saves.
constexpr uint64_t kReadAheadFrom = 4 * kBlock;
constexpr int kBuffers = 3;

using Buffer = MallocPtr<unsigned char>;

Buffer alignedBuffer(size_t size) {
  void* p = nullptr;
  if (posix_memalign(&p, kPage, size) != 0) return Buffer();
  return Buffer(static_cast<unsigned char*>(p));
}

// read(2) that retries interrupted calls; fills as much of buf as one call gives.
ssize_t readSome(int fd, unsigned char* buf, size_t size) {
  for (;;) {
    ssize_t got = read(fd, buf, size);
    if (got >= 0 || errno != EINTR) return got;
  }
}

FileDigestResult digestInline(int fd, uint64_t sizeHint, EVP_MD_CTX* ctx, int* error) {
  // A small file needs one read for its bytes and one to see the end.
  size_t size = sizeHint + 1 < kBlock ? (sizeHint + kPage) / kPage * kPage : kBlock;
  Buffer buf = alignedBuffer(size);
  if (!buf) {
    *error = ENOMEM;
    return FileDigestResult::kReadFailed;
  }
  uint64_t total = 0;
  for (;;) {
    if (stopRequested()) return FileDigestResult::kStopped;
    ssize_t got = readSome(fd, buf.get(), size);
    if (got < 0) {
      *error = errno;
      return FileDigestResult::kReadFailed;
    }
    if (got == 0) return FileDigestResult::kDone;
    EVP_DigestUpdate(ctx, buf.get(), static_cast<size_t>(got));
    total += static_cast<uint64_t>(got);
    // A short read that ends at the size fstat gave is the end: one read
    // call less per small file.
    if (static_cast<size_t>(got) < size && total == sizeHint) return FileDigestResult::kDone;
  }
}

// A ring of blocks between the reading thread and the hashing caller.
class ReadAhead {
 public:
  ReadAhead() {
    for (Slot& s : slots_) s.data = alignedBuffer(kBlock);
  }
  bool ok() const {
    for (const Slot& s : slots_) {
      if (!s.data) return false;
    }
    return true;
  }

  // False when no thread could be started (nothing has been read then).
  bool run(int fd, EVP_MD_CTX* ctx, int* error, FileDigestResult* outcome) {
    std::thread reader;
    try {
      reader = std::thread([this, fd] { readAll(fd); });
    } catch (const std::system_error&) {
      return false;
    }
    FileDigestResult result = FileDigestResult::kDone;
    for (int i = 0;; i = (i + 1) % kBuffers) {
      Slot& s = slots_[i];
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return s.full; });
      }
      if (s.length <= 0) {
        if (s.length < 0) {
          *error = s.error;
          result = s.error == 0 ? FileDigestResult::kStopped : FileDigestResult::kReadFailed;
        }
        break;
      }
      EVP_DigestUpdate(ctx, s.data.get(), static_cast<size_t>(s.length));
      {
        std::lock_guard<std::mutex> lock(mutex_);
        s.full = false;
      }
      changed_.notify_all();
    }
    reader.join();
    *outcome = result;
    return true;
  }

 private:
  struct Slot {
    Buffer data;
    ssize_t length = 0;  // > 0 bytes; 0 end of file; -1 failed (error 0: stopped)
    int error = 0;
    bool full = false;
  };

  // Fills the slots in turn until the end, a failure or a stop; the last
  // slot filled tells the hashing side which of these it was.
  void readAll(int fd) {
    for (int i = 0;; i = (i + 1) % kBuffers) {
      Slot& s = slots_[i];
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return !s.full; });
      }
      ssize_t got;
      int err = 0;
      if (stopRequested()) {
        got = -1;
      } else {
        got = readSome(fd, s.data.get(), kBlock);
        if (got < 0) err = errno;
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        s.length = got;
        s.error = err;
        s.full = true;
      }
      changed_.notify_all();
      if (got <= 0) return;
    }
  }

  Slot slots_[kBuffers];
  std::mutex mutex_;
  std::condition_variable changed_;
};

}  // namespace

FileDigestResult digestFile(int fd, uint64_t sizeHint, EVP_MD_CTX* ctx, int* error) {
  *error = 0;
  // Read-ahead advice only pays where there is more than one read.
  if (sizeHint >= kBlock) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  if (sizeHint >= kReadAheadFrom) {
    ReadAhead ahead;
    FileDigestResult outcome;
    if (ahead.ok() && ahead.run(fd, ctx, error, &outcome)) return outcome;
  }
  return digestInline(fd, sizeHint, ctx, error);
}
