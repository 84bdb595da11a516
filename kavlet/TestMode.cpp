// Kavlet::test: the work cycle over the document directories of a test
// path, without any KV.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "base/SystemError.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"
#include "kavlet/Reporter.h"

namespace {

// Room for a built entry path, terminator included: longer paths fail as
// too long rather than being cut.
constexpr size_t kMaxEntryPath = 257;

// Works on the documents in worker processes forked from this one, up to
// `jobs` at a time, and hands each result to `done` in list order as soon as
// it and all before it are known. Each worker takes one document at a time
// over a pipe (the index of the next one) and answers with its result, so a
// worker keeps its connections from one document to the next. A worker
// ends when its order pipe is closed; a stop request therefore lets each
// worker finish the document in hand. false when no worker could be started
// or one died (its documents then count as failed).
bool runSideBySide(const std::vector<String>& order, int jobs,
                   const std::function<int(size_t)>& work,
                   const std::function<void(size_t, int)>& done) {
  struct Worker {
    pid_t pid = -1;
    int orders = -1;   // we write indexes here
    int results = -1;  // and read {index, result} here
    bool busy = false;
  };
  size_t total = order.size();
  size_t wanted = std::min(static_cast<size_t>(jobs), total);
  std::vector<Worker> workers;
  fflush(stdout);
  fflush(stderr);
  Log::flush();
  for (size_t w = 0; w < wanted; ++w) {
    int toChild[2], toParent[2];
    if (pipe2(toChild, O_CLOEXEC) != 0) break;
    if (pipe2(toParent, O_CLOEXEC) != 0) {
      close(toChild[0]);
      close(toChild[1]);
      break;
    }
    pid_t pid = fork();
    if (pid == 0) {
      // The worker: the other workers' pipes were inherited; only its own matter.
      for (const Worker& other : workers) {
        close(other.orders);
        close(other.results);
      }
      close(toChild[1]);
      close(toParent[0]);
      uint64_t index;
      while (read(toChild[0], &index, sizeof index) == static_cast<ssize_t>(sizeof index)) {
        int64_t answer[2] = {static_cast<int64_t>(index), work(static_cast<size_t>(index))};
        if (write(toParent[1], answer, sizeof answer) != static_cast<ssize_t>(sizeof answer)) break;
      }
      Log::flush();
      _exit(0);  // no exit handlers: they belong to the parent
    }
    close(toChild[0]);
    close(toParent[1]);
    if (pid < 0) {
      close(toChild[1]);
      close(toParent[0]);
      break;
    }
    Worker worker;
    worker.pid = pid;
    worker.orders = toChild[1];
    worker.results = toParent[0];
    workers.push_back(worker);
  }
  if (workers.empty()) return false;

  std::vector<int> results(total, -1);  // -1: not known yet
  size_t next = 0;                      // next document to hand out
  size_t printed = 0;                   // results handed to done so far
  bool healthy = true;
  auto handOut = [&](Worker* worker) {
    if (next >= total) return;
    uint64_t index = next;
    if (write(worker->orders, &index, sizeof index) == static_cast<ssize_t>(sizeof index)) {
      worker->busy = true;
      ++next;
    }
  };
  for (Worker& worker : workers) handOut(&worker);
  while (printed < total) {
    std::vector<pollfd> fds;
    std::vector<Worker*> polled;
    for (Worker& worker : workers) {
      if (!worker.busy) continue;
      fds.push_back({worker.results, POLLIN, 0});
      polled.push_back(&worker);
    }
    if (fds.empty()) break;  // every worker is gone
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (size_t k = 0; k < fds.size(); ++k) {
      if (fds[k].revents == 0) continue;
      Worker* worker = polled[k];
      int64_t answer[2];
      ssize_t got = read(worker->results, answer, sizeof answer);
      worker->busy = false;
      if (got != static_cast<ssize_t>(sizeof answer) || answer[0] < 0 ||
          static_cast<size_t>(answer[0]) >= total) {
        healthy = false;  // the worker died; it gets no more documents
        close(worker->orders);
        worker->orders = -1;
        continue;
      }
      results[static_cast<size_t>(answer[0])] = answer[1] != 0 ? 1 : 0;
      handOut(worker);
    }
    while (printed < total && results[printed] >= 0) {
      done(printed, results[printed]);
      ++printed;
    }
  }
  for (Worker& worker : workers) {
    if (worker.orders >= 0) close(worker.orders);
    close(worker.results);
    waitpid(worker.pid, nullptr, 0);
  }
  // Documents that no worker finished count as failed.
  for (; printed < total; ++printed) done(printed, results[printed] > 0 ? 1 : 0);
  return healthy;
}

}  // namespace

int Kavlet::test() {
  Log log("Kavlet", "test", __FILE__, __LINE__, 13);
  const char* path = testPath.c_str();
  struct stat st;
  if (stat(path, &st) != 0) {
    printf("cannot access path '%s': '%s'\n", path, systemError(errno).c_str());
    fflush(stdout);
    return 0;
  }
  if (!S_ISDIR(st.st_mode)) {
    printf("path '%s' must be a directory\n", path);
    fflush(stdout);
    return 0;
  }
  DirPtr dir(opendir(path));
  if (!dir) {
    printf("cannot open directory '%s': '%s'\n", path, systemError(errno).c_str());
    fflush(stdout);
    return 0;
  }
  printf("%s --------- start test ...\n", getTime());
  fflush(stdout);

  std::vector<String> documents;
  while (dirent* entry = readdir(dir.get())) {
    String name = entry->d_name;
    if (name == "." || name == "..") continue;
    String entryPath = testPath + "/" + name;
    int rc = 0;
    if (entryPath.length() >= kMaxEntryPath) {
      rc = ENAMETOOLONG;
    } else if (stat(entryPath.c_str(), &st) != 0) {
      rc = errno;
    }
    if (rc != 0) {
      printf("%s cannot access path '%s': '%s'\n", getTime(), entryPath.c_str(),
             systemError(rc).c_str());
      printf("%s --------- finished test\n", getTime());
      fflush(stdout);
      return 0;
    }
    if (S_ISDIR(st.st_mode)) documents.push_back(entryPath);
  }
  dir.reset();
  if (documents.empty()) documents.push_back(testPath);
  // Byte order, a shorter text before a longer one with the same start.
  std::sort(documents.begin(), documents.end());

  // Side by side, workers are forked for every repetition: no reporter thread
  // may run then.
  reporterStart(false, testJobs <= 1);
  int repetitions = atoi(testCount.c_str());
  if (repetitions < 1) repetitions = 1;
  bool allDone = true;
  auto report = [&](int r, int n, const String& document, int result) {
    printf("%s %04d %04d op=%-10s doc='%s'\n", getTime(), r, n,
           result != 0 ? okStatus.c_str() : errorStatus.c_str(), document.c_str());
    fflush(stdout);
    // The reasons are in the log; the first failure says where that is.
    if (result == 0 && allDone) {
      fprintf(stderr, "a document failed: why is in the log %s\n", Log::logFileName());
    }
    if (result == 0) allDone = false;
  };
  if (testJobs > 1) {
    // One repetition at a time: a document is never worked on twice at once.
    for (int r = 1; r <= repetitions; ++r) {
      bool ran = runSideBySide(
          documents, testJobs, [&](size_t i) { return work(documents[i].c_str()); },
          [&](size_t i, int result) { report(r, static_cast<int>(i) + 1, documents[i], result); });
      if (!ran) allDone = false;
    }
  } else {
    for (int r = 1; r <= repetitions; ++r) {
      int n = 1;
      for (const String& document : documents) {
        // A stop request waits for the document in hand (see kavlet/Kv.h).
        std::lock_guard<std::recursive_mutex> hold(kvWorkerLock());
        report(r, n++, document, work(document.c_str()));
      }
    }
  }
  log.msg(__LINE__, 3, "%s", reporterSummary().c_str());
  printf("%s --------- finished test with %s!\n", getTime(), allDone ? "success" : "error");
  fflush(stdout);
  return allDone ? 1 : 0;
}
