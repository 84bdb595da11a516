#include "tsclient/HashFiles.h"

#include <sched.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "base/Environment.h"
#include "base/Log.h"
#include "tsclient/TsHash.h"

namespace {

const char kComponent[] = "zpTrequest";

uint64_t sizeOf(const FileToHash& f) {
  struct stat st;
  int rc = f.fd >= 0 ? fstat(f.fd, &st) : stat(f.path.c_str(), &st);
  return rc == 0 && S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
}

// The files in the order the threads take them, and the lowest index that
// failed so far (files after it need no hashing any more).
class HashQueue {
 public:
  // Largest first when several threads share the files; one thread keeps
  // their order and stops at the first failure.
  HashQueue(std::vector<FileToHash>* files, int nid, bool largestFirst)
      : files_(*files), nid_(nid) {
    for (size_t i = 0; i < files_.size(); ++i) order_.push_back(i);
    if (largestFirst) {
      std::vector<uint64_t> sizes;
      for (const FileToHash& f : files_) sizes.push_back(sizeOf(f));
      std::stable_sort(order_.begin(), order_.end(),
                       [&sizes](size_t a, size_t b) { return sizes[a] > sizes[b]; });
    }
    firstFailed_ = files_.size();
  }

  void work() {
    for (size_t at = next_++; at < order_.size(); at = next_++) {
      size_t i = order_[at];
      if (i > firstFailed_.load()) continue;
      FileToHash& f = files_[i];
      f.result = f.fd >= 0 ? computeHashOfOpenFile(f.fd, f.path.c_str(), nid_, f.imprint)
                           : computeHash(f.path.c_str(), nid_, f.imprint);
      if (f.result == 0) continue;
      size_t seen = firstFailed_.load();
      while (i < seen && !firstFailed_.compare_exchange_weak(seen, i)) {
      }
    }
  }

  size_t firstFailed() const { return firstFailed_.load(); }

 private:
  std::vector<FileToHash>& files_;
  const int nid_;
  std::vector<size_t> order_;
  std::atomic<size_t> next_{0};
  std::atomic<size_t> firstFailed_;
};

}  // namespace

size_t hashFiles(std::vector<FileToHash>* files, int nid, int threads) {
  size_t helpers = static_cast<size_t>(std::max(threads, 1)) - 1;
  helpers = std::min(helpers, files->empty() ? 0 : files->size() - 1);
  HashQueue queue(files, nid, helpers > 0);
  std::vector<std::thread> pool;
  for (size_t i = 0; i < helpers; ++i) {
    try {
      pool.emplace_back([&queue] { queue.work(); });
    } catch (const std::system_error&) {
      break;  // fewer threads: the caller's thread still takes every file left
    }
  }
  queue.work();
  for (std::thread& t : pool) t.join();
  return queue.firstFailed();
}

int hashThreadsFor(int cores, const char* setting) {
  cores = std::max(cores, 1);
  if (setting == nullptr) return cores;
  char* end = nullptr;
  errno = 0;
  long n = strtol(setting, &end, 10);
  if (end == setting || *end != '\0' || errno != 0 || n < 1 || n > INT_MAX) {
    Log log(kComponent, "hashThreads", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 2, "TS_HASH_THREADS '%s' is no whole number from 1 up, using %d", setting,
            cores);
    return cores;
  }
  return std::min(cores, static_cast<int>(n));
}

int hashThreads(const Environment& env) {
  cpu_set_t set;
  CPU_ZERO(&set);
  int cores = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
  return hashThreadsFor(cores, env.get("TS_HASH_THREADS"));
}
