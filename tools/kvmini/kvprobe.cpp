// kvprobe: runs the worker's KV client calls and callback service from the
// command line, one step after the other, so that tests can drive them in a
// fresh process (the module reads its environment once per process) against
// kvmini or a libtirpc client. The counterpart of kvmini, built on our own
// runtime.
//
//   kvprobe [-l LEVEL] [-log FILE] [-opwork] STEP...
//
// Steps and what they print on standard output (one line each; "ms=" is how
// long the step took):
//   setport N                      KVSetPort(N)
//   hi HOST TYPE                   "hi <result> ms=<ms>"
//   info HOST TYPE                 "info <result> ms=<ms>"
//   op DOC STATUS COMMENT          "op <result> ms=<ms>"
//   crt HOST TYPE PATH OP COMMENT  "crt <result> ms=<ms>"
//   crt2 PATH OP COMMENT           "crt2 <result> ms=<ms>"
//   alive | bye                    "alive ms=<ms>" / "bye ms=<ms>"
//   port                           "port <service port> socket <service socket>"
//   myname                         "myname <MY_HOST_NAME>" and "myaddr <address>" lines
//   resolve NAME                   "resolve <rc> <address>..."
//   sleep MS
//   serve                          svc_run until a control message 5 arrives
// While serving, callbacks print "WORK <n> <text>", "CTRL <n> <text>" (the
// reply is 100 + n; code 5 also ends the loop) and "INFO <text> <n>". With
// -opwork every work order is answered with KVop(text, "ok", "") ("op ...").
// -l LEVEL switches log levels 5..LEVEL on; the log goes to standard error
// unless -log names a file.
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Environment.h"
#include "base/LogTarget.h"
#include "kvrpc/HostIdent.h"
#include "kvrpc/KVclient.h"
#include "kvrpc/ToolService.h"
#include "rpc/Svc.h"

namespace {

bool opAfterWork = false;

long long nowMs() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec * 1000LL + tv.tv_usec / 1000;
}

void out(const char* format, ...) __attribute__((format(printf, 1, 2)));
void out(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  putchar('\n');
  fflush(stdout);
}

// Prints every request it gets; the KV's exit order ends the loop.
class ProbeHandler : public ToolHandler {
 public:
  explicit ProbeHandler(KvClient* kv) : kv_(kv) {}

  ToolNext onWorkOrder(int number, const char* text) override {
    out("WORK %d %s", number, text ? text : "NULL");
    if (opAfterWork) out("op %d", kv_->KVop(text, "ok", ""));
    return ToolNext::kGoOn;
  }
  ToolNext onControlMessage(int number, const char* text, int* reply) override {
    out("CTRL %d %s", number, text ? text : "NULL");
    if (number == KVctrlEXIT) kv_->service().stop();
    *reply = 100 + number;
    return ToolNext::kGoOn;
  }
  void onInfoMessage(const char* text, int number) override {
    out("INFO %s %d", text ? text : "NULL", number);
  }

 private:
  KvClient* kv_;  // borrowed, lives as long as main
};

int usage() {
  fprintf(stderr, "usage: kvprobe [-l LEVEL] [-log FILE] [-opwork] STEP...\n");
  return 64;
}

}  // namespace

int main(int argc, char** argv) {
  const Environment& env = Environment::process();
  LogTarget logTarget;
  logTarget.init(env);
  LogTarget::Installation logInstalled(logTarget);
  KvClient kv(env);
  ProbeHandler probe(&kv);
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    if (strcmp(argv[i], "-l") == 0 && i + 1 < argc) {
      int level = atoi(argv[++i]);
      for (int l = 5; l <= level && l <= Log::kMaxLevel; ++l) logTarget.setLevel(l, 1);
    } else if (strcmp(argv[i], "-log") == 0 && i + 1 < argc) {
      logTarget.setFile(argv[++i], env);
    } else if (strcmp(argv[i], "-opwork") == 0) {
      opAfterWork = true;
    } else {
      return usage();
    }
  }
  for (; i < argc; ++i) {
    std::string step = argv[i];
    int left = argc - i - 1;
    long long start = nowMs();
    auto ms = [start] { return nowMs() - start; };
    if (step == "setport" && left >= 1) {
      kv.KVSetPort(static_cast<uint16_t>(atoi(argv[++i])));
    } else if (step == "hi" && left >= 2) {
      int rc = kv.KVhi(argv[i + 1], argv[i + 2], &probe);
      i += 2;
      out("hi %d ms=%lld", rc, ms());
    } else if (step == "info" && left >= 2) {
      int rc = kv.KVinfo(argv[i + 1], argv[i + 2], &probe);
      i += 2;
      out("info %d ms=%lld", rc, ms());
    } else if (step == "op" && left >= 3) {
      int rc = kv.KVop(argv[i + 1], argv[i + 2], argv[i + 3]);
      i += 3;
      out("op %d ms=%lld", rc, ms());
    } else if (step == "crt" && left >= 5) {
      int rc = kv.KVcrt(argv[i + 1], argv[i + 2], argv[i + 3], argv[i + 4], argv[i + 5]);
      i += 5;
      out("crt %d ms=%lld", rc, ms());
    } else if (step == "crt2" && left >= 3) {
      int rc = kv.KVcrt2(argv[i + 1], argv[i + 2], argv[i + 3]);
      i += 3;
      out("crt2 %d ms=%lld", rc, ms());
    } else if (step == "alive") {
      kv.KValive();
      out("alive ms=%lld", ms());
    } else if (step == "bye") {
      kv.KVbye();
      out("bye ms=%lld", ms());
    } else if (step == "port") {
      out("port %u socket %d", kv.service().port(), kv.service().socket());
    } else if (step == "myname") {
      out("myname %s", kv.hostIdent().name());
      char text[80];
      for (const HostAddress& a : kv.hostIdent().addresses()) {
        out("myaddr %s", addressText(a.sa(), 0, text, sizeof text));
      }
    } else if (step == "resolve" && left >= 1) {
      HostAddressList list;
      int rc = resolveHost(argv[++i], hostPreference(Environment::process()), &list);
      std::string line = "resolve " + std::to_string(rc);
      char text[80];
      for (const HostAddress& a : list)
        line += std::string(" ") + addressText(a.sa(), 0, text, sizeof text);
      out("%s", line.c_str());
    } else if (step == "sleep" && left >= 1) {
      usleep(static_cast<useconds_t>(atoi(argv[++i])) * 1000);
    } else if (step == "serve") {
      ToolNext next = kv.service().serve();
      if (next != ToolNext::kGoOn) {
        logTarget.flush();
        return toolExitStatus(next);
      }
      out("served");
    } else {
      return usage();
    }
  }
  logTarget.flush();
  return 0;
}
