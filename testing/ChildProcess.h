// ChildProcess: runs a program as a child process with its own environment,
// and collects its exit code, standard output and standard error.
#ifndef TESTING_CHILDPROCESS_H_
#define TESTING_CHILDPROCESS_H_

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace testing_support {

struct ChildResult {
  int exitCode = -1;  // exit status, or 128 + signal number when killed
  bool timedOut = false;
  std::string out;
  std::string err;
};

struct ChildOptions {
  // Variables set (or, with a null-like "\x01unset", removed) on top of the
  // test's own environment.
  std::map<std::string, std::string> env;
  bool clearEnv = false;    // start from an empty environment (PATH kept)
  std::string cwd;          // working directory; empty: the test's
  int timeoutSeconds = 60;  // killed with SIGKILL after this
};

// argv[0] is the program path. Never throws; failures show in the result.
ChildResult runChild(const std::vector<std::string>& argv, const ChildOptions& options = {});

// An argument vector for a main-like function in the test's own process:
// NULL-terminated, owning its texts.
struct Argv {
  Argv(std::initializer_list<const char*> args) : texts(args.begin(), args.end()) {
    for (std::string& t : texts) ptrs.push_back(t.data());
    ptrs.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(texts.size()); }
  char** argv() { return ptrs.data(); }
  std::vector<std::string> texts;
  std::vector<char*> ptrs;
};

// Runs body in a forked copy of the test process and returns its result
// (0-255) as the copy's exit code, or 128 + signal number: for a body that
// changes what the test process could not undo (its user, a stop request).
int runForked(const std::function<int()>& body);

// Marks a variable for removal in ChildOptions::env.
inline const char* kUnset = "\x01unset";

// A background child that keeps running until stop() or destruction (SIGTERM,
// then SIGKILL). Its standard output is read line by line on demand.
class BackgroundChild {
 public:
  BackgroundChild(const std::vector<std::string>& argv, const ChildOptions& options = {});
  ~BackgroundChild();
  BackgroundChild(const BackgroundChild&) = delete;
  BackgroundChild& operator=(const BackgroundChild&) = delete;

  bool running() const { return pid_ > 0; }
  int pid() const { return pid_; }
  // Next line of standard output (without the newline); false on EOF or timeout.
  bool readLine(std::string* line, int timeoutSeconds = 20);
  // Sends sig and waits up to timeoutSeconds: the exit code as in ChildResult, -1 on timeout.
  int stop(int sig = 15, int timeoutSeconds = 10);
  // Waits for the child to end by itself; -1 on timeout.
  int wait(int timeoutSeconds);
  // What the child wrote to standard error so far (read after it ended).
  std::string stderrText();
  // Hands the read end of the child's standard error over to the caller
  // (who must keep reading it, or a chatty child blocks once the pipe is
  // full); stderrText() then returns what was read before. -1 when gone.
  int takeStderr();

 private:
  int pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string outBuf_;
  std::string errBuf_;
};

}  // namespace testing_support

#endif  // TESTING_CHILDPROCESS_H_
