// kavlet_testworker: the smallest real worker, for the framework's process
// tests. It starts like the timestamping tool (COMMON package, init,
// connectKV, inverted result) and its service does what the document asks
// in its statement "TESTWORKER <action>", or, without one (or without a
// document), what TESTWORKER_ACTION says:
//   ok                 done (1)
//   fail               failed (0)
//   append <line>      appends <line> to COMMANDS, done
//   result <n>         returns n (2 or more goes through extendedKVop)
//   hold <file>        creates <file>.entered, then waits until <file>
//                      exists (at most a minute), done
// Options of its own: -oneshot (connectKVForService instead of connectKV).
// TESTWORKER_UID: when started as root, run as this user and group id, so
// that file permissions apply.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/LogTarget.h"
#include "base/Setup.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"
#include "docfiles/Document.h"

namespace {

constexpr int kHoldSeconds = 60;

class TestWorker : public Kavlet {
 public:
  using Kavlet::Kavlet;
  bool oneShot = false;

  int parseOneArgument(int, char** argv, int* position) override {
    if (strcmp(argv[*position], "-oneshot") != 0) return 0;
    oneShot = true;
    return 1;
  }

  int service(const char* directory) override {
    Log log("TestWorker", "service", __FILE__, __LINE__, 13);
    String action;
    if (document != nullptr) action = document->getValueForFromCommands("TESTWORKER");
    if (action.empty()) {
      const char* env = getenv("TESTWORKER_ACTION");
      action = env ? env : "ok";
    }
    long blank = action.index(' ');
    String verb = blank < 0 ? action : action.subString(0, static_cast<size_t>(blank));
    String arg = blank < 0 ? String() : action.subString(static_cast<size_t>(blank + 1));
    log.msg(__LINE__, 8, "document '%s': %s", directory ? directory : "(none)", action.c_str());
    if (verb == "fail") return 0;
    if (verb == "result") return atoi(arg.c_str());
    if (verb == "append") return document != nullptr ? document->appendToCommands(arg) : 0;
    if (verb == "hold") return hold(arg);
    return 1;
  }

 private:
  static int hold(const String& file) {
    if (FILE* f = fopen((file + ".entered").c_str(), "w")) fclose(f);
    time_t end = time(nullptr) + kHoldSeconds;
    struct stat st;
    while (stat(file.c_str(), &st) != 0) {
      if (time(nullptr) > end) return 0;
      usleep(10000);
    }
    return 1;
  }
};

void dropPrivileges() {
  const char* uid = getenv("TESTWORKER_UID");
  if (uid == nullptr || geteuid() != 0) return;
  int id = atoi(uid);
  if (setgid(id) != 0 || setuid(id) != 0) {
    perror("kavlet_testworker: cannot change the user");
    exit(99);
  }
}

}  // namespace

int main(int argc, char** argv) {
  dropPrivileges();
  // As in clockette: the LOG_* variables the program was started with
  // decide what is logged until the worker's log is set up.
  Environment& env = Environment::process();
  LogTarget startLog;
  startLog.init(env);
  LogTarget::Installation startLogInstalled(startLog);
  if (readSetup(env, "COMMON") < 0) return 1;
  auto worker = std::make_unique<TestWorker>(env);
  int status = 1;
  if (worker->init(argc, argv) != 0) {
    int rc = worker->oneShot ? worker->connectKVForService() : worker->connectKV();
    status = rc == 0 ? 1 : rc == 1 ? 0 : rc;
  } else if (worker->usageShown) {
    status = 0;
  }
  _exit(finishWorker(std::move(worker), status));
}
