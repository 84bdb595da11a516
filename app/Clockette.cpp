#include "app/Clockette.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/DocumentStamper.h"
#include "base/Environment.h"
#include "base/Log.h"
#include "base/SecretFile.h"
#include "base/Setup.h"
#include "base/SettingsLine.h"

namespace {

// Timestamp requests of one document under way at the same time.
constexpr int kDefaultParallel = 8;
constexpr int kMaxParallel = 64;

}  // namespace

Clockette::Clockette(Environment& env)
    : Kavlet(env),
      host("localhost"),
      port(8080),
      protocol("http"),
      urlPath("/"),
      login(""),
      password(""),
      parallel(kDefaultParallel),
      requester_(env, metrics()) {
  Log log("clockette", "Clockette", __FILE__, __LINE__, 13);
}

Clockette::~Clockette() = default;

int Clockette::init(int argc, char** argv) {
  Log log("clockette", "init", __FILE__, __LINE__, 13);
  if (Kavlet::init(argc, argv) != 1) return 0;
  if (!passwordFileProblem_.empty()) {
    log.msg(__LINE__, 2, "TIMESTAMP_PASSWORD_FILE refused: %s", passwordFileProblem_.c_str());
    return 0;
  }
  if (requester_.initTimeStamper() != 0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function initTimeStamper() "
            "failed.");
    return 0;
  }
  // The port is taken as atoi gave it and handed on modulo 65536.
  if (requester_.initTsServer(host.c_str(), static_cast<uint16_t>(port), protocol.c_str(),
                              urlPath.c_str(), url.c_str()) != 0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function "
            "initTsServer(host='%s',port=%d,protocol='%s',path='%s') failed.",
            host.c_str(), port, protocol.c_str(), urlPath.c_str());
    return 0;
  }
  if (requester_.initStamperAuth(login.c_str(), password.c_str()) != 0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function initStamperAuth() "
            "failed.");
    return 0;
  }
  settleConfinement();
  return 1;
}

void Clockette::settleConfinement() {
  confinement_ = ConfinementSettings();
  if (!testCount.empty()) {
    confinement_.roots.push_back(testPath.empty() ? "." : testPath.str());
  } else if (!kvDir.empty()) {
    // A relative KVDIR has been changed into.
    confinement_.roots.push_back(kvDir.str()[0] == '/' ? kvDir.str() : ".");
  }
  confinement_.roots.insert(confinement_.roots.end(), allowedRoots.begin(), allowedRoots.end());
  std::string logName = logTarget().fileName();
  if (logName != "stderr") confinement_.workerFiles.push_back(logName);
  for (const char* variable :
       {"CLOCKETTE_METRICS_FILE", "TIMESTAMP_PASSWORD_FILE", "KV_NOTIFY_FILE"}) {
    const char* v = env().get(variable);
    if (v != nullptr && *v != '\0') confinement_.workerFiles.push_back(v);
  }
  String config = configDirectory(env());
  if (!config.empty()) confinement_.workerDirectories.push_back(config.str() + "/setup");
}

int Clockette::parseOneArgument(int argc, char** argv, int* position) {
  Log log("clockette", "parseOneArgument", __FILE__, __LINE__, 13);
  struct Option {
    const char* option;
    String* field;  // null: the port
  };
  const Option options[] = {{"-host", &host},        {"-port", nullptr}, {"-protocol", &protocol},
                            {"-url_path", &urlPath}, {"-login", &login}, {"-password", &password},
                            {"-url", &url}};
  int at = *position;
  for (const Option& o : options) {
    if (strcmp(argv[at], o.option) != 0) continue;
    if (at + 1 >= argc) return 0;  // no value: unknown, never read past argv
    *position = at + 1;
    const char* value = argv[at + 1];
    if (o.field == nullptr) {
      port = atoi(value);
    } else {
      *o.field = value;
    }
    bool secret = o.field == &login || o.field == &password;
    log.msg(__LINE__, 9,
            "parsing timestamp arguments: argc=%d pos=%d :   argv[%d]='%s'   argv[%d]='%s'\n", argc,
            at, at, argv[at], at + 1, secret ? "***" : value);
    return 1;
  }
  return 0;
}

void Clockette::readEnvironment() {
  Log log("clockette", "readEnvironment", __FILE__, __LINE__, 13);
  Kavlet::readEnvironment();
  const Environment& settings = env();
  if (const char* v = settings.get("TIMESTAMP_PROTOCOL")) protocol = v;
  if (const char* v = settings.get("TIMESTAMP_HOST")) host = v;
  if (const char* v = settings.get("TIMESTAMP_PORT")) port = atoi(v);
  if (const char* v = settings.get("TIMESTAMP_URL_PATH")) urlPath = v;
  if (const char* v = settings.get("TIMESTAMP_URL")) url = v;
  if (const char* v = settings.get("TIMESTAMP_LOGIN")) login = v;
  if (const char* v = settings.get("TIMESTAMP_PASSWORD")) password = v;
  if (const char* v = settings.get("TS_PARALLEL")) {
    char* end = nullptr;
    long n = strtol(v, &end, 10);
    if (end == v || *end != '\0' || n < 1 || n > kMaxParallel) {
      log.msg(__LINE__, 2, "TS_PARALLEL '%s' is no whole number from 1 to %d, using %d", v,
              kMaxParallel, kDefaultParallel);
    } else {
      parallel = static_cast<int>(n);
    }
  }
  if (const char* v = settings.get("TS_ALLOWED_ROOTS")) {
    allowedRoots.clear();
    std::string roots = v;
    for (size_t start = 0; start <= roots.size();) {
      size_t end = std::min(roots.find(':', start), roots.size());
      if (end > start) allowedRoots.push_back(roots.substr(start, end - start));
      start = end + 1;
    }
  }
  // Read here, so that -password still wins; a refusal is logged by init,
  // once the log is set up.
  if (const char* v = settings.get("TIMESTAMP_PASSWORD_FILE")) {
    std::string secret;
    if (readSecretFile(v, &secret, &passwordFileProblem_)) password = secret.c_str();
  }
}

std::string Clockette::settingsLine() const {
  SettingsLine line;
  describeSettings(&line);
  requester_.describeTimestampSettings(&line);
  line.add("parallel", parallel);
  return line.text();
}

void Clockette::printObject() {
  Log log("clockette", "printObject", __FILE__, __LINE__, 13);
  Kavlet::printObject();
  fprintf(stderr, "\tTS protocol : '%s'\n", protocol.c_str());
  fprintf(stderr, "\tTS host     : '%s'\n", host.c_str());
  fprintf(stderr, "\tTS port     : '%d'\n", port);
  fprintf(stderr, "\tTS URL path : '%s'\n", urlPath.c_str());
  fflush(stderr);
}

void Clockette::printVersion() { Kavlet::printVersion(); }

void Clockette::printArgsUsage() {
  Kavlet::printArgsUsage();
  fputs(
      "\t-host <ts-host>       hostname of timestamp server   \n"
      "\t                      (Default: localhost)           \n"
      "\t-port <ts-port>       port number of timestamp server\n"
      "\t                      (Default: 8080)                \n"
      "\t-protocol [http|https]                               \n"
      "\t                      protocol for communication with\n"
      "\t                      timestamp server.(Default:http)\n"
      "\t-url_path <path>      path part of the URL           \n"
      "\t                      (Default: /)                   \n"
      "\t-login <login>        user name for timestamping     \n"
      "\t                      systems that require HTTP Basic\n"
      "\t                      Authorization                  \n"
      "\t-password <password>  password for timestamping      \n"
      "\t                      systems that require HTTP Basic\n"
      "\t                      Authorization                  \n",
      stderr);
}

void Clockette::printEnvUsage() {
  Kavlet::printEnvUsage();
  fputs(
      "\tTIMESTAMP_PROTOCOL [http|https]:                     \n"
      "\t                       protocol for communication    \n"
      "\t                       with timestamp server         \n"
      "\t                       (Default=http)                \n"
      "\tTIMESTAMP_PORT <port> :port of timestamp server      \n"
      "\t                       (Default=8080)                \n"
      "\tTIMESTAMP_HOST <host> :hostname of timestamp server  \n"
      "\t                       (Default=localhost)           \n"
      "\tTIMESTAMP_URL_PATH <path>:                           \n"
      "\t                       path of timestamp server URL  \n"
      "\t                       (Default=/)                   \n"
      "\tTIMESTAMP_LOGIN <login>:                             \n"
      "\t                       user name for timestamping    \n"
      "\t                       systems, that require HTTP    \n"
      "\t                       Basic Authorization           \n"
      "\tTIMESTAMP_PASSWORD <password>:                       \n"
      "\t                       password for timestamping     \n"
      "\t                       systems, that require HTTP    \n"
      "\t                       Basic Authorization           \n",
      stderr);
}

void Clockette::printCommandsUsage() {
  Kavlet::printCommandsUsage();
  fputs(
      "\t\tCOMP <name> <type> <file> [<app_type>]             \n"
      "\t\tCOMP ...                                           \n"
      "\t\tTIMESTAMP_COMP                                     \n"
      "\t\tTIMESTAMP_FILE <file> <tst_file>                   \n"
      "\t\tTIMESTAMP_FILE ...                                 \n"
      "\twill be written, if TIMESTAMP_COMP is defined:       \n"
      "\t\tCOMP_TIMESTAMP_FILE \"<name>\" \"<tst_file>\"      \n"
      "\t\tCOMP_TIMESTAMP_FILE ...                            \n"
      "\twith:                                                \n"
      "\t\t<name>         = component name                    \n"
      "\t\t<file>         = local file name                   \n"
      "\t\t<type>         = component type (mime-type)        \n"
      "\t\t<app_type>     = application type to allow         \n"
      "\t\t                 pool selection (see HUBS...)      \n"
      "\t\t<tst_file>     = timestamp-file of file <file>     \n"
      "\t\t                 (format = BASE64 encoded DER)     \n",
      stderr);
}

void Clockette::printHintsUsage() {
  Kavlet::printHintsUsage();
  fputs(
      "\tThis program is a Kavlet:                           \n"
      "\tThe clockette Kavlet is designed for timestamping \n"
      "\tfiles in the Kavane. Each source file     \n"
      "\twhich should be timestamped must                     \n"
      "\teither be specified by                               \n"
      "\t   'TIMESTAMP_FILE' COMMANDS statement               \n"
      "\tor                                                   \n"
      "\t   'COMP' COMMANDS statement                         \n"
      "\t                                                     \n"
      "\tIf file was specified by 'TIMESTAMP_FILE' COMMANDS   \n"
      "\tstatement, the corresponding timestamp was provided  \n"
      "\tby the Timestamp Server and stored into local file.  \n"
      "\t                                                     \n"
      "\tIf 'TIMESTAMP_COMP' statement was defined in COMMANDS\n"
      "\tfile, the timestamp for each file of 'COMP' COMMANDS \n"
      "\tstatement will be provided by the Timestamp Server   \n"
      "\tand stored into a corresponding local file, and in   \n"
      "\taddition a 'COMP_TIMESTAMP_FILE' statement will be   \n"
      "\twritten to COMMANDS file.                            \n",
      stderr);
}

void Clockette::printAddOnUsage() {
  fputs("\tThe status returned to KV is \"ok\" or \"error\"   \n", stderr);
}

int Clockette::service(const char* directory) {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  const char* dir = directory != nullptr ? directory : "NULL";
  if (document == nullptr) {
    log.msg(__LINE__, 2, "no document open for '%s'", dir);
    return 0;
  }
  return DocumentStamper(document.get(), dir, &requester_, &notifier(), &metrics(), parallel,
                         confinement_)
      .run();
}
