#include "kavlet/Kavlet.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Platform.h"
#include "base/SandboxHint.h"
#include "base/SettingsLine.h"
#include "base/Setup.h"
#include "base/SystemError.h"
#include "docfiles/Document.h"

namespace {

// Longest -env value that is looked at (with the NUL).
constexpr size_t kEnvOptionMax = 1024;

bool endsWith(const String& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.length() >= n && s.str().compare(s.length() - n, n, suffix) == 0;
}

// True when argv holds "-test" as an option of its own (not as the value of
// a base option that takes one).
bool requestsTestMode(int argc, char** argv) {
  static const char* const kWithValue[] = {
      "-type", "-kvhost", "-loglevel", "-logfile", "-parafile", "-P", "-testpath", "-env", "-jobs"};
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "-test") == 0) return true;
    for (const char* option : kWithValue) {
      if (strcmp(argv[i], option) == 0) {
        ++i;
        break;
      }
    }
  }
  return false;
}

}  // namespace

Kavlet::Kavlet(Environment& env)
    : logTarget_(&LogTarget::current()),
      logInstallation_(logTarget_),
      kvHost(localHostName()),
      kvPort(kDefaultKvPort),
      logLevel(2),
      testJobs(1),
      errorComment("could not process document"),
      okComment("document has been processed"),
      kvClient(env),
      kvTest(0),
      errorStatus("error"),
      okStatus("ok"),
      suspendTime(300),
      env_(env),
      notifier_(std::make_unique<Notifier>(env.get("KV_NOTIFY_FILE"))),
      reporter_(metrics_) {
  Log log("Kavlet", "Kavlet", __FILE__, __LINE__, 13);
  installHandlers();
}

Kavlet::~Kavlet() = default;

int Kavlet::checkBeforeConnect() { return 1; }

int Kavlet::init(int argc, char** argv) {
  Log log("Kavlet", "init", __FILE__, __LINE__, 13);
  setProgname(argc > 0 && argv[0] != nullptr ? argv[0] : "");
  // (Where text and binary file modes differ, the mode is saved and restored
  // around the socket start-up; on Linux they are the same.)
  startSockets(2, 0);
  kvHost = localHostName();
  kvPort = kDefaultKvPort;
  readEnvPackages(argc, argv);
  // readEnvironment must know about test mode (KVDIR is not entered in test
  // mode) before parseArgv sets testCount properly.
  if (requestsTestMode(argc, argv)) testCount = "-test";
  readEnvironment();
  // Only the parser decides: a "-test" that a tool option takes as its
  // value is no test mode.
  testCount = String();
  parseArgv(argc, argv);
  if (usageShown) return 0;
  initLog();
  // The -env and -parafile packages may have named the file.
  notifier_ = std::make_unique<Notifier>(env_.get("KV_NOTIFY_FILE"));
  documentOptions =
      readDocumentOptions(env_.get("KV_PROTOCOL"), env_.get("DOUBLE_QUOTED_COMMANDS_ARGUMENTS"));
  return 1;
}

void Kavlet::readEnvPackages(int argc, char** argv) {
  Log log("Kavlet", "readEnvPackages", __FILE__, __LINE__, 13);
  int at = 0;
  for (int i = 1; i + 1 < argc; ++i) {
    if (strcmp(argv[i], "-env") == 0) {
      at = i + 1;
      break;
    }
  }
  if (at == 0) {
    log.msg(__LINE__, 9, "no env-option");
    return;
  }
  String list = String(argv[at]).subString(0, kEnvOptionMax - 1);
  // Every piece between commas is a package, an empty one too ("a,,b"),
  // except the piece after a trailing comma.
  size_t start = 0;
  while (start < list.length()) {
    long comma = list.index(',', start);
    size_t end = comma < 0 ? list.length() : static_cast<size_t>(comma);
    String package = list.subString(start, end - start);
    log.msg(__LINE__, 9, "env-option: read setup from package '%s'", package.c_str());
    readSetup(env_, package.c_str());
    if (comma < 0) break;
    start = end + 1;
  }
}

int Kavlet::setProgname(const char* path) {
  Log log("Kavlet", "setProgname", __FILE__, __LINE__, 13);
  String p = path ? path : "";
  long slash = p.lastIndex('/');
  if (slash < 0) slash = p.lastIndex('\\');
  String base = p.subString(static_cast<size_t>(slash + 1));
  if (base.length() > 4 && (endsWith(base, ".exe") || endsWith(base, ".EXE"))) {
    base = base.subString(0, base.length() - 4);
  }
  name = base;
  type = base;
  return 1;
}

void Kavlet::readEnvironment() {
  Log log("Kavlet", "readEnvironment", __FILE__, __LINE__, 13);
  if (const char* v = env_.get("KVHOST")) kvHost = v;
  if (const char* v = env_.get("LOGLEVEL")) logLevel = atoi(v);
  if (const char* v = env_.get("KVPORT")) kvPort = atoi(v);
  if (const char* v = env_.get("KVDIR")) {
    std::string dir = v;
    for (char& c : dir)
      if (c == '\\') c = '/';
    kvDir = dir;
    if (testCount.empty() && chdir(kvDir.c_str()) != 0) {
      int err = errno;
      log.msg(__LINE__, 2, "cannot change to KVDIR '%s': '%s'", kvDir.c_str(),
              systemError(err).c_str());
      if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
    }
  }
}

void Kavlet::parseArgv(int argc, char** argv) {
  Log log("Kavlet", "parseArgv", __FILE__, __LINE__, 13);
  if (argc < 2) return;
  // Options whose value is stored as given; a value missing at the end of
  // the line makes the option unknown rather than reading past argv.
  struct TextOption {
    const char* option;
    String* field;
  };
  TextOption textOptions[] = {{"-type", &type},
                              {"-kvhost", &kvHost},
                              {"-logfile", &logFile},
                              {"-parafile", &parafile},
                              {"-testpath", &testPath}};
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (strcmp(arg, "-h") == 0) {
      printUsage();
      usageShown = true;
      return;
    }
    if (strcmp(arg, "-test") == 0) {
      if (hasValue && argv[i + 1][0] != '-') {
        // An empty count still means test mode (testCount empty would not).
        testCount = argv[++i];
        if (testCount.empty()) testCount = "-test";
      } else {
        testCount = "-test";
      }
      log.msg(__LINE__, 9, "option -test: '%s'", testCount.c_str());
      continue;
    }
    if (strcmp(arg, "-env") == 0) {
      if (hasValue) ++i;  // read by init already
      continue;
    }
    bool taken = false;
    if (hasValue) {
      for (const TextOption& o : textOptions) {
        if (strcmp(arg, o.option) == 0) {
          *o.field = argv[++i];
          taken = true;
          break;
        }
      }
      if (!taken && strcmp(arg, "-loglevel") == 0) {
        logLevel = atoi(argv[++i]);
        taken = true;
      } else if (!taken && strcmp(arg, "-P") == 0) {
        kvPort = atoi(argv[++i]);
        taken = true;
      } else if (!taken && strcmp(arg, "-jobs") == 0) {
        testJobs = atoi(argv[++i]);
        if (testJobs < 1) testJobs = 1;
        taken = true;
      }
    }
    if (taken) {
      log.msg(__LINE__, 9, "option %s: '%s'", arg, argv[i]);
      continue;
    }
    if (parseOneArgument(argc, argv, &i) == 0) {
      // Under a service manager the usage alone reads like a normal end:
      // one line first says what was wrong.
      fprintf(stderr, "unknown option '%s'\n", arg);
      printUsage();
      usageShown = true;
      return;
    }
  }
}

void Kavlet::initLog() {
  Log log("Kavlet", "initLog", __FILE__, __LINE__, 13);
  if (logFile.empty()) logFile = (type.empty() ? name : type) + ".log";
  const char* dir = env_.get("ZEPH_SRV_LOG");
  serverLogDir = dir ? dir : "";
  logTarget_.init(env_);
  if (logTarget_.setFile(logFile.c_str(), env_) == 0) {
    log.msg(__LINE__, 2, "cannot open log file '%s': '%s'", logFile.c_str(),
            systemError(errno).c_str());
  }
  readSetup(env_, parafile.c_str());
  logTarget_.applyVariables(env_);
  for (int level = 5; level <= Log::kMaxLevel; ++level) {
    if (level <= logLevel) logTarget_.setLevel(level, 1);
  }
}

int Kavlet::parseOneArgument(int, char**, int*) { return 0; }

int Kavlet::parseAdditionalKvctrlArguments(std::vector<String>&, int*) { return 0; }

int Kavlet::makeKVDir() {
  Log log("Kavlet", "makeKVDir", __FILE__, __LINE__, 13);
  return 0;
}

void Kavlet::printUsage() {
  Log log("Kavlet", "printUsage", __FILE__, __LINE__, 13);
  struct Section {
    const char* heading;
    void (Kavlet::*printer)();
  };
  static const Section kSections[] = {
      {"\toptions:                                             \n", &Kavlet::printArgsUsage},
      {"\tENVIRONMENT VARIABLES: (read COMMON ...)             \n", &Kavlet::printEnvUsage},
      {"\tCOMMANDS-statements that may exist:                  \n", &Kavlet::printCommandsUsage},
      {"\tHints:                                               \n", &Kavlet::printHintsUsage},
      {"\tsupported kvctrl msg commands:                       \n", &Kavlet::printKvctrlUsage},
      {"\tadditional                                           \n", &Kavlet::printAddOnUsage},
  };
  fprintf(stderr, "\n\n Usage: %s [options...]\n", name.c_str());
  bool first = true;
  for (const Section& s : kSections) {
    if (!first) fputs("\t-----------------------------------------------------\n", stderr);
    first = false;
    fputs(s.heading, stderr);
    fputs("\t-------                                              \n", stderr);
    (this->*s.printer)();
  }
  fflush(stderr);
}

void Kavlet::printArgsUsage() {
  fputs("\t-help                 print help (usage)             \n", stderr);
  fprintf(stderr, "\t-type <name>          (%s)              \n", type.c_str());
  fputs(
      "\t-kvhost <KV-hostname> (localhost)                    \n"
      "\t-loglevel <nr>        set logelevel (<nr> = 0-12)    \n"
      "\t-logfile <file>       (stderr) logging file          \n"
      "\t-parafile <file>      parameter file (instead Env.)  \n"
      "\t-P <KV-port>          (default) port of KV           \n"
      "\t-test [<count>]       don't connect to KV and run    \n"
      "\t                      kavlet in test mode. The test \n"
      "\t                      will be repeated <count> times.\n"
      "\t-testpath <path>      use <path> as KVDIR or DOCDIR  \n"
      "\t-env <s1>{,<sn>}      read setup variables from setup\n"
      "\t                      files $CONFIG/setup/s1.Setup...\n"
      "\t                      $CONFIG/setup/sn.Setup         \n",
      stderr);
}

void Kavlet::printEnvUsage() {
  fputs(
      "\tKVHOST=<host>         :hostname of KV              \n"
      "\tKVPORT=<nr>           :port number of KV           \n"
      "\tKVDIR=<dir>           :KV directory                \n"
      "\tLOG_INFO={on|off}     :set info logging            \n"
      "\tLOG_DEBUG={on|off}    :debug logging               \n"
      "\tLOG_RPC={on|off}      :RPC logging                 \n"
      "\tLOG_ENTRY={on|off}    :function entrypoint logging \n"
      "\tLOG_WARNING={on|off}  :warning logging             \n",
      stderr);
}

void Kavlet::printKvctrlUsage() {
  fputs(
      "\t  loglevel <x>      :set loglevel <x> from 0 to 12\n"
      "\t  setLogLevel <level> <on/off>                    \n"
      "\t                    :set/unset loglevel,          \n"
      "\t                    :with <level> =               \n"
      "\t                    :{ ALL,WARNING,               \n"
      "\t                    :  INFO,DEBUG,RPC,ENTRY       \n"
      "\t                    :}                            \n"
      "\t  usage             :print this usage             \n"
      "\t  print             :print settings after KVop    \n"
      "\t  version           :print version of kavlet     \n",
      stderr);
}

void Kavlet::printAddOnUsage() {}
void Kavlet::printCommandsUsage() {}
void Kavlet::printHintsUsage() {}

void Kavlet::describeSettings(SettingsLine* line) const {
  line->add("type", type.str());
  line->add("mode", testCount.empty() ? "kv" : "test");
  if (testCount.empty()) {
    // A port of 0 or less leaves the client's own (KVPORT or 4032).
    line->add("kv", kvHost.str() + ":" +
                        (kvPort > 0 ? std::to_string(static_cast<uint16_t>(kvPort)) : "default"));
    line->add("kvdir", kvDir.str());
  } else {
    line->add("testpath", testPath.str());
    line->add("jobs", testJobs);
  }
  line->add("log", logTarget_.fileName());
  line->add("loglevel", logLevel);
}

void Kavlet::printObject() {
  Log log("Kavlet", "printObject", __FILE__, __LINE__, 13);
  fprintf(stderr,
          "Global settings for Kavlet %s:\n"
          "    Name:         '%s'\n"
          "    Type:         '%s'\n"
          "    KVDIR:        '%s'\n"
          "    KVHOST:       '%s'\n"
          "    KVPORT:       '%d'\n"
          "    Test Path:    '%s'\n"
          "    Log File:     '%s'\n"
          "    Suspend Time: '%d'\n",
          name.c_str(), name.c_str(), type.c_str(), kvDir.c_str(), kvHost.c_str(), kvPort,
          testPath.c_str(), logFile.c_str(), suspendTime);
  fflush(stderr);
}

void Kavlet::printVersion() {
  Log log("Kavlet", "printVersion", __FILE__, __LINE__, 13);
  fputs("Version     >T< >E< >S< >T<\n", stderr);
  fflush(stderr);
}
