#include "kavlet/WorkerEnd.h"

#include <cstdio>

#include "base/Log.h"
#include "base/Stop.h"

namespace {

constexpr const char* kComponent = "(global)";
constexpr int kTermSignal = 15;

}  // namespace

ToolNext WorkerEnd::onStopSignal(int signal) {
  Log log(kComponent, "sig_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 3, "Got signal %d, exiting ...", signal);
  if (exitInProgress_) {
    log.msg(__LINE__, 8, "exit already in progress, forced by KV -> no work");
    return ToolNext::kGoOn;
  }
  goodbyeAsked_ = true;
  return ToolNext::kExitError;
}

ToolNext WorkerEnd::onConsoleEvent(int event) {
  if (event == kConsoleLogoffEvent) return ToolNext::kGoOn;
  Log log(kComponent, "sigwin_handler", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "received Console Control Event 0x%x, exiting", event);
  fflush(stdout);
  fflush(stderr);
  return onStopSignal(kTermSignal);
}

void WorkerEnd::endIfAsked(ToolNext next) {
  if (next == ToolNext::kGoOn) return;
  askedStatus_ = toolExitStatus(next);
  requestStop();
}
