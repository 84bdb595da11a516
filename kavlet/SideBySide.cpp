#include "kavlet/SideBySide.h"

#include <dirent.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include "base/Log.h"
#include "base/LogTarget.h"
#include "base/Owners.h"
#include "base/Stop.h"
#include "base/SystemError.h"

namespace {

// Threads of this process, or 0 when they cannot be counted.
int threadCount() {
  DirPtr tasks(opendir("/proc/self/task"));
  if (!tasks) return 0;
  int count = 0;
  while (dirent* entry = readdir(tasks.get())) {
    if (entry->d_name[0] != '.') ++count;
  }
  return count;
}

// A worker's answer for a document it did not take: it was stopping.
constexpr int64_t kNotTaken = -1;

}  // namespace

SideBySide::~SideBySide() {
  if (inWorker_) {
    if (channel_ >= 0) close(channel_);
    return;
  }
  waitForAll();
}

bool SideBySide::start(int jobs) {
  Log log("SideBySide", "start", __FILE__, __LINE__, 13);
  if (threadCount() != 1) {
    log.msg(__LINE__, 1, "worker processes not started: the process already runs threads");
    return false;
  }
  // Whatever is buffered would otherwise be written once by every process.
  fflush(stdout);
  fflush(stderr);
  LogTarget::current().flush();
  pid_t parent = getpid();
  for (int w = 0; w < jobs; ++w) {
    int pair[2];
    // Packets: an order or an answer always arrives whole.
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) break;
    pid_t pid = fork();
    if (pid == 0) {
      for (const Worker& other : workers_) close(other.fd);
      workers_.clear();
      close(pair[0]);
      channel_ = pair[1];
      inWorker_ = true;
      renewStopAfterFork();
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      // The parent may have died before the request above was made.
      if (getppid() != parent) requestStop();
      return true;
    }
    close(pair[1]);
    if (pid < 0) {
      log.msg(__LINE__, 2, "cannot start a worker process: '%s'", systemError(errno).c_str());
      close(pair[0]);
      break;
    }
    workers_.push_back({pid, pair[0], false});
  }
  return !workers_.empty();
}

void SideBySide::serve(const std::function<int(size_t)>& work) {
  while (!stopRequested()) {
    pollfd p[2] = {{channel_, POLLIN, 0}, {stopWakeFd(), POLLIN, 0}};
    if (poll(p, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (p[0].revents == 0) continue;  // the stop: checked above
    uint64_t number;
    // Nothing more (the parent is done or gone): the worker's end.
    if (recv(channel_, &number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) break;
    int64_t answer[2] = {static_cast<int64_t>(number),
                         stopRequested() ? kNotTaken : work(static_cast<size_t>(number))};
    if (send(channel_, answer, sizeof answer, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof answer)) {
      break;
    }
  }
  // Documents handed over after the stop go back untouched, to the others.
  uint64_t number;
  while (recv(channel_, &number, sizeof number, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof number)) {
    int64_t back[2] = {static_cast<int64_t>(number), kNotTaken};
    if (send(channel_, back, sizeof back, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof back)) break;
  }
  close(channel_);
  channel_ = -1;
}

bool SideBySide::run(size_t total, const std::function<void(size_t, int)>& done) {
  std::vector<int> results(total, -1);  // -1: not known yet
  size_t next = 0;                      // next document to hand out
  std::vector<size_t> returned;         // documents a stopping worker gave back
  size_t passed = 0;                    // results passed to done so far
  bool healthy = true;
  bool stopping = false;
  auto retire = [&](Worker* worker) {
    close(worker->fd);  // the worker is gone or going; it gets no more documents
    worker->fd = -1;
    worker->busy = false;
  };
  auto handOut = [&](Worker* worker) {
    if (stopping || (next >= total && returned.empty()) || worker->fd < 0) return;
    uint64_t number = returned.empty() ? next : returned.back();
    if (send(worker->fd, &number, sizeof number, MSG_NOSIGNAL) !=
        static_cast<ssize_t>(sizeof number)) {
      retire(worker);
      return;
    }
    worker->busy = true;
    if (returned.empty()) {
      ++next;
    } else {
      returned.pop_back();
    }
  };
  for (Worker& worker : workers_) handOut(&worker);
  while (passed < total) {
    std::vector<pollfd> fds;
    std::vector<Worker*> polled;
    for (Worker& worker : workers_) {
      if (!worker.busy) continue;
      fds.push_back({worker.fd, POLLIN, 0});
      polled.push_back(&worker);
    }
    if (fds.empty()) break;  // every worker is gone, or stopped
    fds.push_back({stopWakeFd(), static_cast<short>(stopping ? 0 : POLLIN), 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (!stopping && stopRequested()) {
      stopping = true;
      healthy = false;
      for (Worker& worker : workers_) kill(worker.pid, SIGTERM);
    }
    for (size_t k = 0; k < polled.size(); ++k) {
      if (fds[k].revents == 0) continue;
      Worker* worker = polled[k];
      int64_t answer[2];
      ssize_t got = recv(worker->fd, answer, sizeof answer, 0);
      if (got != static_cast<ssize_t>(sizeof answer) || answer[0] < 0 ||
          static_cast<size_t>(answer[0]) >= total) {
        healthy = false;  // the worker died with its document
        retire(worker);
        continue;
      }
      worker->busy = false;
      if (answer[1] == kNotTaken) {
        returned.push_back(static_cast<size_t>(answer[0]));
        retire(worker);
        for (Worker& other : workers_) {
          if (!other.busy) handOut(&other);
        }
        continue;
      }
      results[static_cast<size_t>(answer[0])] = answer[1] != 0 ? 1 : 0;
      handOut(worker);
    }
    for (; passed < total && results[passed] >= 0; ++passed) done(passed, results[passed]);
  }
  // Documents that no worker finished count as failed, unless a stop ended
  // the run: then nothing more is told.
  for (; !stopping && passed < total; ++passed) done(passed, results[passed] > 0 ? 1 : 0);
  if (stopping) waitForAll();
  return healthy;
}

void SideBySide::waitForAll() {
  for (Worker& worker : workers_) {
    if (worker.fd >= 0) close(worker.fd);
    while (waitpid(worker.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  workers_.clear();
}
