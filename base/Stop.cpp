#include "base/Stop.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

namespace {

std::atomic<bool> stopFlag{false};

// The self-pipe: made before main runs, so requestStop never has to create
// anything (it may run in a signal handler).
struct WakePipe {
  int fds[2] = {-1, -1};
  WakePipe() {
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) fds[0] = fds[1] = -1;
  }
  ~WakePipe() {
    if (fds[0] >= 0) close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
  }
};

WakePipe& wakePipe() {
  static WakePipe pipe;
  return pipe;
}

// Forces the pipe into being during static initialisation.
const int kWakeReadFd = wakePipe().fds[0];

}  // namespace

void requestStop() {
  if (stopFlag.exchange(true)) return;
  int fd = wakePipe().fds[1];
  if (fd < 0) return;
  char byte = 1;
  int saved = errno;
  ssize_t rc;
  do {
    rc = write(fd, &byte, 1);
  } while (rc < 0 && errno == EINTR);
  errno = saved;
}

void renewStopAfterFork() {
  WakePipe& shared = wakePipe();
  int fresh[2];
  if (shared.fds[0] < 0 || pipe2(fresh, O_CLOEXEC | O_NONBLOCK) != 0) return;
  dup3(fresh[0], shared.fds[0], O_CLOEXEC);
  dup3(fresh[1], shared.fds[1], O_CLOEXEC);
  close(fresh[0]);
  close(fresh[1]);
  if (stopFlag.load()) {
    char byte = 1;
    ssize_t rc = write(shared.fds[1], &byte, 1);
    (void)rc;
  }
}

bool stopRequested() { return stopFlag.load(); }

int stopWakeFd() { return kWakeReadFd >= 0 ? kWakeReadFd : wakePipe().fds[0]; }

bool waitForStop(int milliseconds) {
  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds > 0 ? milliseconds : 0);
  for (;;) {
    if (stopRequested()) return true;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{stopWakeFd(), POLLIN, 0};
    if (p.fd < 0) {
      // No pipe: fall back to short sleeps that still notice the flag.
      usleep(static_cast<useconds_t>(std::min<long long>(left.count(), 50) * 1000));
      continue;
    }
    poll(&p, 1, static_cast<int>(left.count()));
  }
}
