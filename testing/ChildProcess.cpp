#include "testing/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace testing_support {
namespace {

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

int decodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Forks and execs argv with pipes for stdout and stderr; standard input is
// /dev/null, so a child that reads it sees its end at once. Returns the pid.
int spawn(const std::vector<std::string>& argv, const ChildOptions& o, int* outFd, int* errFd) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return -1;
  // Everything the child needs is prepared before fork: no allocation after it.
  std::vector<std::string> envStrings;
  if (!o.clearEnv) {
    for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
  } else if (const char* path = getenv("PATH")) {
    envStrings.emplace_back(std::string("PATH=") + path);
  }
  for (const auto& kv : o.env) {
    std::string prefix = kv.first + "=";
    for (auto it = envStrings.begin(); it != envStrings.end();) {
      it = it->compare(0, prefix.size(), prefix) == 0 ? envStrings.erase(it) : it + 1;
    }
    if (kv.second != kUnset) envStrings.push_back(prefix + kv.second);
  }
  std::vector<char*> envp, args;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argCopy = argv;
  for (auto& s : argCopy) args.push_back(s.data());
  args.push_back(nullptr);

  int pid = fork();
  if (pid == 0) {
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (!o.cwd.empty() && chdir(o.cwd.c_str()) != 0) _exit(126);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(out[0]);
    close(err[0]);
    return -1;
  }
  *outFd = out[0];
  *errFd = err[0];
  return pid;
}

// Reads what is available on fd into buf; returns false at EOF.
bool drain(int fd, std::string* buf) {
  char chunk[4096];
  ssize_t n = read(fd, chunk, sizeof chunk);
  if (n > 0) {
    buf->append(chunk, static_cast<size_t>(n));
    return true;
  }
  return n < 0 && (errno == EINTR || errno == EAGAIN);
}

int waitPid(int pid, int timeoutSeconds) {
  long long deadline = nowMs() + timeoutSeconds * 1000LL;
  for (;;) {
    int status;
    int r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return decodeStatus(status);
    if (r < 0) return -1;
    if (nowMs() > deadline) return -1;
    usleep(10000);
  }
}

}  // namespace

int runForked(const std::function<int()>& body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) _exit(body() & 0xff);  // no exit handlers: they belong to the test
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return decodeStatus(status);
}

ChildResult runChild(const std::vector<std::string>& argv, const ChildOptions& options) {
  ChildResult result;
  int outFd, errFd;
  int pid = spawn(argv, options, &outFd, &errFd);
  if (pid < 0) return result;
  signal(SIGPIPE, SIG_IGN);
  long long deadline = nowMs() + options.timeoutSeconds * 1000LL;
  bool outOpen = true, errOpen = true;
  while (outOpen || errOpen) {
    long long left = deadline - nowMs();
    if (left <= 0) {
      result.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    struct pollfd fds[2] = {{outOpen ? outFd : -1, POLLIN, 0}, {errOpen ? errFd : -1, POLLIN, 0}};
    int r = poll(fds, 2, static_cast<int>(left > 1000 ? 1000 : left));
    if (r < 0 && errno != EINTR) break;
    if (fds[0].revents) outOpen = drain(outFd, &result.out);
    if (fds[1].revents) errOpen = drain(errFd, &result.err);
  }
  close(outFd);
  close(errFd);
  result.exitCode = waitPid(pid, 10);
  if (result.exitCode < 0) {
    kill(pid, SIGKILL);
    result.exitCode = waitPid(pid, 10);
  }
  return result;
}

BackgroundChild::BackgroundChild(const std::vector<std::string>& argv,
                                 const ChildOptions& options) {
  pid_ = spawn(argv, options, &outFd_, &errFd_);
}

BackgroundChild::~BackgroundChild() {
  if (pid_ > 0) stop(SIGTERM, 5);
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
}

bool BackgroundChild::readLine(std::string* line, int timeoutSeconds) {
  long long deadline = nowMs() + timeoutSeconds * 1000LL;
  for (;;) {
    size_t nl = outBuf_.find('\n');
    if (nl != std::string::npos) {
      *line = outBuf_.substr(0, nl);
      outBuf_.erase(0, nl + 1);
      return true;
    }
    long long left = deadline - nowMs();
    if (left <= 0 || outFd_ < 0) return false;
    struct pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    int r = poll(fds, errFd_ >= 0 ? 2 : 1, static_cast<int>(left));
    if (r <= 0) continue;
    if (fds[1].revents && errFd_ >= 0 && !drain(errFd_, &errBuf_)) {
      close(errFd_);
      errFd_ = -1;
    }
    if (fds[0].revents && !drain(outFd_, &outBuf_)) return false;
  }
}

int BackgroundChild::wait(int timeoutSeconds) {
  if (pid_ <= 0) return -1;
  int code = waitPid(pid_, timeoutSeconds);
  if (code >= 0) pid_ = -1;
  return code;
}

int BackgroundChild::stop(int sig, int timeoutSeconds) {
  if (pid_ <= 0) return -1;
  kill(pid_, sig);
  int code = waitPid(pid_, timeoutSeconds);
  if (code < 0) {
    kill(pid_, SIGKILL);
    waitPid(pid_, 5);
  }
  pid_ = -1;
  return code;
}

int BackgroundChild::takeStderr() {
  int fd = errFd_;
  errFd_ = -1;
  return fd;
}

std::string BackgroundChild::stderrText() {
  if (errFd_ >= 0) {
    fcntl(errFd_, F_SETFL, O_NONBLOCK);
    while (drain(errFd_, &errBuf_) && errno != EAGAIN) {
    }
  }
  return errBuf_;
}

}  // namespace testing_support
