// clockette: the timestamping worker of the pipeline.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/Clockette.h"
#include "app/ConfigCheck.h"
#include "base/Environment.h"
#include "base/Log.h"
#include "base/LogTarget.h"
#include "base/Setup.h"
#include "base/String.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"

namespace {

const char kVersionBanner[] = "Kavane Core Kavlets CLOCKETTE 22.3.0 (Revision 22.3.0.127)";

// Every log line starts with the version banner and the program path.
void installEventPrefix(LogTarget* target, const char* program) {
  char prefix[512];
  snprintf(prefix, sizeof prefix, "%s [program=%s] : ", kVersionBanner, program);
  target->setEventPrefix(prefix);
}

// Without the common setup every setting the installation did not put into
// the environment keeps its default (a Timestamp Server on localhost:8080):
// one warning says where the settings were expected.
void warnWithoutCommonSetup(Log& log, const String& configDir) {
  String problem = setupFileProblem(configDir, "COMMON");
  if (problem.empty()) return;
  log.msg(__LINE__, 4, "%s; only the environment and the command line set the settings",
          problem.c_str());
}

bool hasOption(int argc, char** argv, const char* option) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], option) == 0) return true;
  }
  return false;
}

// -check: reads the settings as a start would, with its log discarded, and
// prints one line per problem. 0 when there is none, else 1.
int checkOnly(Clockette* worker, int argc, char** argv) {
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "-check") != 0) args.push_back(argv[i]);
  }
  char logOption[] = "-logfile";
  char discarded[] = "/dev/null";
  args.insert(args.end(), {logOption, discarded, nullptr});
  int ready = worker->init(static_cast<int>(args.size()) - 1, args.data());
  std::vector<std::string> problems = checkConfiguration(*worker);
  if (ready == 0 && problems.empty()) {
    problems.push_back(
        "the start fails for a reason not checked here; run clockette -logfile - "
        "to see it");
  }
  for (const std::string& p : problems) printf("%s\n", p.c_str());
  if (problems.empty()) printf("configuration ok\n");
  return problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (hasOption(argc, argv, "--version")) {  // needs no configuration
    printf("%s\n", kVersionBanner);
    return 0;
  }
  // Until the worker logs through its own target: standard error, at the
  // levels the LOG_* variables the program was started with ask for.
  LogTarget startLog;
  startLog.init(Environment::process());
  LogTarget::Installation startLogInstalled(startLog);
  Log log("main", "main", __FILE__, __LINE__, 13);
  Environment& env = Environment::process();
  String configDir = configDirectory(env);
  if (readSetup(env, "COMMON") < 0) return 1;  // CONFIG is not set; nothing runs yet
  // The worker's target takes the prefix over, and so do the lines the
  // worker writes while it is made.
  installEventPrefix(&startLog, argc > 0 ? argv[0] : "");

  auto worker = std::make_unique<Clockette>(env);
  int status = 1;
  if (hasOption(argc, argv, "-check")) {
    status = checkOnly(worker.get(), argc, argv);
  } else if (worker->init(argc, argv) == 0) {
    if (worker->usageShown) status = 0;
  } else {
    log.msg(__LINE__, 3, "%s started, %s", worker->name.c_str(), kVersionBanner);
    log.msg(__LINE__, 3, "settings: %s", worker->settingsLine().c_str());
    warnWithoutCommonSetup(log, configDir);
    // connectKV gives 1 for the good outcome (the test run did every document,
    // the KV ended the service) and 0 otherwise: 1 maps to exit code 0 and 0 to 1.
    int rc = worker->connectKV();
    status = rc == 0 ? 1 : rc == 1 ? 0 : rc;
  }
  // The one way out, once the goodbye is said and the threads are stopped.
  // Without static destructors: idle side threads of libraries may remain.
  _exit(finishWorker(std::move(worker), status));
}
