#include "app/Clockette.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/List.h"
#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Notify.h"
#include "base/OrderedWork.h"
#include "base/ReplaceFile.h"
#include "base/SandboxHint.h"
#include "base/SecretFile.h"
#include "base/SettingsLine.h"
#include "base/SideThread.h"
#include "base/Stop.h"
#include "base/SystemError.h"
#include "docfiles/Document.h"
#include "docfiles/TextLine.h"
#include "docfiles/utl.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1string.h"
#include "der/Der.h"
#include "tsclient/tsrequest.h"

namespace {

// Buffer sizes of the paths, names and statement copies the service builds.
constexpr size_t kPathSize = 1024;
constexpr size_t kStatementCopySize = 1000;  // at most 999 characters of a value

// Timestamp requests of one document under way at the same time.
constexpr int kDefaultParallel = 8;
constexpr int kMaxParallel = 64;

const char kRequestFailed[] =
    "the timestamp couldn't be requested from timestamp server. The call of function "
    "requestTimestamp(source_file='%s',timestamp_file='%s') failed.";

// Operator notification numbers and texts.
constexpr int kNotifyRequestFailed = 700;
constexpr int kNotifyWrongComp = 701;
constexpr int kNotifyCommandsNotWritable = 702;
constexpr int kNotifyTimestampFileNotWritable = 703;
constexpr int kNotifyFileNotReadable = 704;
const char kRequestFailedTemplate[] =
    "Kavlet 'clockette' failed in requesting timestamp for file '%1/%2' from Timestamp Server";
const char kWrongCompTemplate[] =
    "Kavlet 'clockette' failed because of wrong COMP COMMANDS statement in document '%1'";
const char kCommandsTemplate[] = "Kavlet 'clockette' cannot write COMMANDS file of document '%1'";
// A local failure, told apart from the Timestamp Server's.
const char kTimestampFileTemplate[] =
    "Kavlet 'clockette' cannot write timestamp file '%1' of document '%2'";
const char kFileNotReadableTemplate[] = "Kavlet 'clockette' cannot read file '%1' of document '%2'";

// prepareTimestamp's and commitTimestamp's result when the answer arrived
// but the timestamp file could not be written.
constexpr int kTargetNotWritten = -5;

void notify(int number, const char* messageTemplate, const char* arguments) {
  notifyOperator("SRV", "BASE", number, "ERR", messageTemplate, arguments);
}

using Token = TextLine::Token;

// The first count tokens of text; a missing one is null.
std::vector<Token> firstTokens(const char* text, int count) {
  TextLine line(text);
  std::vector<Token> tokens;
  for (int i = 0; i < count; ++i) tokens.emplace_back(line.getNextToken());
  return tokens;
}

bool allPresent(const std::vector<Token>& tokens) {
  for (const Token& t : tokens) {
    if (!t) return false;
  }
  return true;
}

// The first 999 characters of a statement value.
std::string statementCopy(const String& value) {
  return value.str().substr(0, kStatementCopySize - 1);
}

// A file token names an absolute path when it begins with "/" or "\\" or has
// ":" as its second character (a drive letter); such a token is used as it
// is, any other is taken relative to the document directory. Paths longer
// than the buffer are cut; fits tells whether the whole path fitted.
String documentFilePath(const char* directory, const char* token, bool* fits) {
  char path[kPathSize];
  bool absolute = token[0] == '/' || token[0] == '\\' || (token[0] != '\0' && token[1] == ':');
  int n = absolute ? snprintf(path, sizeof path, "%s", token)
                   : snprintf(path, sizeof path, "%s/%s", directory, token);
  *fits = n >= 0 && static_cast<size_t>(n) < sizeof path;
  return String(path);
}

bool fileExists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

// The directory part of a path ("." when it has none).
std::string directoryPart(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Whether anything (a symbolic link too) sits at path.
bool entryExists(const char* path) {
  struct stat st;
  return lstat(path, &st) == 0;
}

// The arguments of the "'%1/%2'" notification, so that it names the file
// once: the directory and the path below it, or the path cut at its last "/".
void fileArguments(char* out, size_t size, const char* dir, const String& file) {
  const std::string& path = file.str();
  std::string prefix = std::string(dir) + "/";
  size_t slash = path.rfind('/');
  if (path.compare(0, prefix.size(), prefix) == 0) {
    snprintf(out, size, "{%.250s} {%.250s}", dir, path.c_str() + prefix.size());
  } else if (slash != std::string::npos) {
    snprintf(out, size, "{%.250s} {%.250s}", path.substr(0, slash).c_str(),
             path.c_str() + slash + 1);
  } else {
    snprintf(out, size, "{%.250s} {%.250s}", dir, path.c_str());
  }
}

// One file of a document on its way to a timestamp.
struct Stamp {
  String source;          // the file to stamp
  String target;          // its timestamp file
  std::string statement;  // appended to COMMANDS once stamped; empty: none
  CAsn1messageImprint imprint;
  CAsn1string response{kTagOctetString};
  int result = 0;  // of fetchTimestamp, then of prepareTimestamp
  // Written and synced beside the exchanges; false: written at its turn.
  bool early = true;
  bool prepared = false;  // its temporary file waits for the rename
};

// The name part of a path, in lower case (names that differ only in case
// are one file on some file systems).
std::string lowerName(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return name;
}

}  // namespace

Clockette::Clockette()
    : host("localhost"),
      port(8080),
      protocol("http"),
      urlPath("/"),
      login(""),
      password(""),
      parallel(kDefaultParallel) {
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
  if (initTimeStamper() != 0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function initTimeStamper() "
            "failed.");
    return 0;
  }
  // The port is taken as atoi gave it and handed on modulo 65536.
  if (initTsServer(host.c_str(), static_cast<uint16_t>(port), protocol.c_str(), urlPath.c_str()) !=
      0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function "
            "initTsServer(host='%s',port=%d,protocol='%s',path='%s') failed.",
            host.c_str(), port, protocol.c_str(), urlPath.c_str());
    return 0;
  }
  if (initStamperAuth(login.c_str(), password.c_str()) != 0) {
    log.msg(__LINE__, 2,
            "error in initializing timestamp library. The call of function initStamperAuth() "
            "failed.");
    return 0;
  }
  return 1;
}

int Clockette::parseOneArgument(int argc, char** argv, int* position) {
  Log log("clockette", "parseOneArgument", __FILE__, __LINE__, 13);
  struct Option {
    const char* option;
    String* field;  // null: the port
  };
  const Option options[] = {{"-host", &host},        {"-port", nullptr}, {"-protocol", &protocol},
                            {"-url_path", &urlPath}, {"-login", &login}, {"-password", &password}};
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
  if (const char* v = getenv("TIMESTAMP_PROTOCOL")) protocol = v;
  if (const char* v = getenv("TIMESTAMP_HOST")) host = v;
  if (const char* v = getenv("TIMESTAMP_PORT")) port = atoi(v);
  if (const char* v = getenv("TIMESTAMP_URL_PATH")) urlPath = v;
  if (const char* v = getenv("TIMESTAMP_LOGIN")) login = v;
  if (const char* v = getenv("TIMESTAMP_PASSWORD")) password = v;
  if (const char* v = getenv("TS_PARALLEL")) {
    char* end = nullptr;
    long n = strtol(v, &end, 10);
    if (end == v || *end != '\0' || n < 1 || n > kMaxParallel) {
      log.msg(__LINE__, 2, "TS_PARALLEL '%s' is no whole number from 1 to %d, using %d", v,
              kMaxParallel, kDefaultParallel);
    } else {
      parallel = static_cast<int>(n);
    }
  }
  // Read here, so that -password still wins; a refusal is logged by init,
  // once the log is set up.
  if (const char* v = getenv("TIMESTAMP_PASSWORD_FILE")) {
    std::string secret;
    if (readSecretFile(v, &secret, &passwordFileProblem_)) password = secret.c_str();
  }
}

std::string Clockette::settingsLine() const {
  SettingsLine line;
  describeSettings(&line);
  describeTimestampSettings(&line);
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
  char arguments[600];

  // A timestamp file name cut at the buffer's end could name another file
  // of the directory: refuse it rather than overwrite that file.
  auto refuseLongTarget = [&](const String& target) {
    document->docMessage(log, __LINE__, 2, "timestamp file name too long: '%s'", target.c_str());
    snprintf(arguments, sizeof arguments, "{%.250s} {%.250s}", dir, target.c_str());
    notify(kNotifyRequestFailed, kRequestFailedTemplate, arguments);
    return 0;
  };
  auto requestFailed = [&](const String& source, const String& target, int code) {
    if (code == kTargetNotWritten) {
      document->docMessage(log, __LINE__, 2,
                           "the timestamp for '%s' couldn't be stored: the timestamp file '%s' "
                           "couldn't be written",
                           source.c_str(), target.c_str());
      snprintf(arguments, sizeof arguments, "{%.250s} {%.250s}", target.c_str(), dir);
      notify(kNotifyTimestampFileNotWritable, kTimestampFileTemplate, arguments);
      return 0;
    }
    document->docMessage(log, __LINE__, 2, kRequestFailed, source.c_str(), target.c_str());
    // A stop of the worker is no Timestamp Server failure to alarm anyone about.
    if (stopRequested()) return 0;
    fileArguments(arguments, sizeof arguments, dir, source);
    notify(kNotifyRequestFailed, kRequestFailedTemplate, arguments);
    return 0;
  };
  // The document's bookkeeping files and the source itself are never
  // written over, whatever path leads to them.
  auto targetRefused = [&](const String& source, const String& target) {
    String which;
    const char* what = nullptr;
    if (document->isBookkeepingFile(target, &which) == 1) {
      what = "the document's file";
    } else if (utlSameFile(source.c_str(), target.c_str()) == 1) {
      what = "its source file";
      which = source;
    } else {
      return false;
    }
    document->docMessage(log, __LINE__, 2, "timestamp file '%s' refused: it is %s '%s'",
                         target.c_str(), what, which.c_str());
    snprintf(arguments, sizeof arguments, "{%.250s} {%.250s}", target.c_str(), dir);
    notify(kNotifyTimestampFileNotWritable, kTimestampFileTemplate, arguments);
    return true;
  };

  // First the plan: every file to stamp, in statement order, with its
  // timestamp file. A statement that fails the document ends the plan; its
  // failure is reported after the files before it are stamped.
  std::vector<std::unique_ptr<Stamp>> stamps;
  std::set<std::string> plannedTargets;
  std::function<int()> failure;
  auto plan = [&](const String& source, const String& target, std::string statement) {
    auto stamp = std::make_unique<Stamp>();
    stamp->source = source;
    stamp->target = target;
    stamp->statement = std::move(statement);
    plannedTargets.insert(target.str());
    stamps.push_back(std::move(stamp));
  };

  // Files named directly: all of them before any component.
  List<String> files;
  document->getValueForFromCommands(String("TIMESTAMP_FILE"), files);
  for (const String& value : files) {
    log.msg(__LINE__, 9, "TIMESTAMP_FILE '%s'", value.c_str());
    std::vector<Token> t = firstTokens(value.c_str(), 2);
    if (!allPresent(t)) {
      // Only skipped: an incomplete file statement does not fail the document.
      log.msg(__LINE__, 2, "ignore wrong TIMESTAMP_FILE COMMANDS statement: '%s'", value.c_str());
      continue;
    }
    bool sourceFits = false, targetFits = false;
    String source = documentFilePath(dir, t[0].get(), &sourceFits);
    String target = documentFilePath(dir, t[1].get(), &targetFits);
    if (!targetFits) {
      failure = [&, target] { return refuseLongTarget(target); };
      break;
    }
    plan(source, target, std::string());
  }

  String unused;
  if (!failure && document->getValueForFromCommands(String("TIMESTAMP_COMP"), unused) > 0) {
    log.msg(__LINE__, 9, "found TIMESTAMP_COMP statement in COMMANDS file");
    // Every component stamped earlier is known before the first COMP is looked at.
    std::set<std::string> alreadyStamped;
    List<String> done;
    document->getValueForFromCommands(String("COMP_TIMESTAMP_FILE"), done);
    for (const String& value : done) {
      log.msg(__LINE__, 9, "'%s'", value.c_str());
      std::vector<Token> t = firstTokens(statementCopy(value).c_str(), 1);
      if (!t[0]) continue;
      alreadyStamped.insert(t[0].get());
      log.msg(__LINE__, 9, "don't do timestamping for component '%s'", t[0].get());
    }

    List<String> components;
    document->getValueForFromCommands(String("COMP"), components);
    for (const String& value : components) {
      log.msg(__LINE__, 9, "'%s'", value.c_str());
      std::string copy = statementCopy(value);
      std::vector<Token> t = firstTokens(copy.c_str(), 3);
      if (!allPresent(t)) {
        // Unlike a file statement, a broken component fails the document.
        failure = [&, copy] {
          document->docMessage(log, __LINE__, 2,
                               "wrong COMP COMMANDS statement in document '%s': '%s'", dir,
                               copy.c_str());
          snprintf(arguments, sizeof arguments, "{%.250s}", dir);
          notify(kNotifyWrongComp, kWrongCompTemplate, arguments);
          return 0;
        };
        break;
      }
      const char* name = t[0].get();
      log.msg(__LINE__, 9, "parse COMP COMMANDS statement: name='%s',type='%s',src-file='%s'", name,
              t[1].get(), t[2].get());
      if (alreadyStamped.count(name) != 0) {
        log.msg(__LINE__, 9,
                "skip timestamping of component '%s', because of COMP_TIMESTAMP_FILE statement",
                name);
        continue;
      }
      bool fits = false;
      String source = documentFilePath(dir, t[2].get(), &fits);

      // The first free "<name>_ts<n>.txt" of the directory: earlier stamps
      // stay. A name planned for an earlier file of this document counts as
      // taken, as it will exist by the time this file's turn comes.
      char tstName[kPathSize];
      char tstPath[kPathSize];
      int counter = 0;
      bool targetFits = true;
      auto build = [&] {
        int n = snprintf(tstName, sizeof tstName, "%s_ts%d.txt", name, counter);
        int m = snprintf(tstPath, sizeof tstPath, "%s/%s", dir, tstName);
        targetFits = n >= 0 && static_cast<size_t>(n) < sizeof tstName && m >= 0 &&
                     static_cast<size_t>(m) < sizeof tstPath;
      };
      build();
      while (targetFits && (fileExists(tstPath) || plannedTargets.count(tstPath) != 0)) {
        ++counter;
        build();
      }
      int statusError = errno;
      if (!targetFits) {
        String target(tstPath);
        failure = [&, target] { return refuseLongTarget(target); };
        break;
      }
      log.msg(__LINE__, 9, "cannot get file status of file '%s': '%s'", tstPath,
              systemError(statusError).c_str());
      // Written as it stands: quotes inside the name are not escaped.
      plan(source, String(tstPath),
           std::string("COMP_TIMESTAMP_FILE \"") + name + "\" \"" + tstName + "\"");
    }
  }

  // Every target is checked before anything is written: a refused one
  // leaves the document untouched.
  for (const auto& stamp : stamps) {
    if (targetRefused(stamp->source, stamp->target)) return 0;
  }

  // Every file is hashed before the first request: a file that cannot be
  // hashed fails the document without any exchange.
  for (const auto& stamp : stamps) {
    if (computeHash(stamp->source.c_str(), getDigest(), &stamp->imprint) != 0) {
      metrics::countTimestamp(-1);
      log.msg(__LINE__, 2, "Hashing %s failed", stamp->source.c_str());
      // The file itself failed, not the Timestamp Server: a local failure.
      document->docMessage(log, __LINE__, 2, kRequestFailed, stamp->source.c_str(),
                           stamp->target.c_str());
      if (stopRequested()) return 0;  // hashing gave up for a stop: nothing to alarm about
      snprintf(arguments, sizeof arguments, "{%.250s} {%.250s}", stamp->source.c_str(), dir);
      notify(kNotifyFileNotReadable, kFileNotReadableTemplate, arguments);
      return 0;
    }
  }

  // The round trips overlap and each answer is written to its temporary file
  // and synced on the same thread; the renames follow in statement order,
  // and the first file that fails ends the document: answers for later files
  // are dropped and their temporary files removed.
  // Early only where no two files of the document can meet at one temporary
  // file: not for a name that comes again (through another path perhaps),
  // not at all when a target is named like a temporary file.
  std::set<std::string> names;
  bool temporaryNamed = false;
  for (const auto& stamp : stamps) {
    std::string name = lowerName(stamp->target.str());
    temporaryNamed = temporaryNamed || (name.size() > 4 && name[0] == '.' &&
                                        name.compare(name.size() - 4, 4, ".tmp") == 0);
    stamp->early = names.insert(name).second;
  }
  if (temporaryNamed) {
    for (const auto& stamp : stamps) stamp->early = false;
  }
  OrderedWork exchanges(stamps.size(), parallel, [&stamps](size_t i) {
    Stamp& s = *stamps[i];
    s.result = fetchTimestamp(&s.imprint, &s.response);
    if (s.result == 0 && s.early) {
      s.result = prepareTimestamp(&s.response, s.target.c_str());
      s.prepared = s.result == 0;
    }
  });
  auto dropFrom = [&](size_t first) {
    exchanges.dropFrom(first);
    for (size_t j = first; j < stamps.size(); ++j) {
      if (exchanges.waitFor(j) && stamps[j]->prepared) discardTimestamp(stamps[j]->target.c_str());
    }
  };
  bool stamped = false;
  // The renames of a directory reach the disk with one sync of it at the
  // end, not one per file; the document counts as done only after that.
  std::map<std::string, const Stamp*> unsyncedDirectories;
  for (size_t i = 0; i < stamps.size(); ++i) {
    Stamp& stamp = *stamps[i];
    exchanges.waitFor(i);
    // Files this attempt creates are noted, so that a failed document can be
    // left as it was.
    bool existed = entryExists(stamp.target.c_str());
    int code = stamp.result;
    if (code == 0 && !stamp.early) code = prepareTimestamp(&stamp.response, stamp.target.c_str());
    if (code == 0) code = commitTimestamp(stamp.source.c_str(), stamp.target.c_str(), false);
    metrics::countTimestamp(code);  // -1 .. -5, as the per-file requestTimestamp gives them
    if (code != 0) {
      dropFrom(i + 1);
      return requestFailed(stamp.source, stamp.target, code);
    }
    if (!existed) document->noteCreatedFile(stamp.target);
    unsyncedDirectories[directoryPart(stamp.target.str())] = &stamp;
    stamped = true;
    if (!stamp.statement.empty() &&
        document->appendToCommands(String(stamp.statement.c_str())) == 0) {
      dropFrom(i + 1);
      document->docMessage(log, __LINE__, 2, "can't append string '%s' to COMMANDS file",
                           stamp.statement.c_str());
      snprintf(arguments, sizeof arguments, "{%.250s}", dir);
      notify(kNotifyCommandsNotWritable, kCommandsTemplate, arguments);
      return 0;
    }
  }
  if (failure) return failure();

  if (!stamped) {
    document->docMessage(log, __LINE__, 8, "no timestamping required for document '%s'", dir);
    return 1;
  }
  // The renames reach the disk with their directory's sync, the protocol
  // line with the protocol's own: side by side, the file system can take
  // both in one commit instead of two in a row.
  document->docMessage(log, __LINE__, 8, "got timestamps from Timestamp Server for document '%s'",
                       dir);
  const Stamp* unsynced = nullptr;
  std::string step;
  int err = 0;
  auto syncDirectories = [&] {
    for (const auto& entry : unsyncedDirectories) {
      err = syncDirectoryOf(entry.second->target.c_str(), &step);
      if (err != 0) {
        unsynced = entry.second;
        return;
      }
    }
  };
  SideThread& side = SideThread::instance();
  bool aside = side.start(syncDirectories);
  if (!aside) syncDirectories();  // no thread to be had: one after the other
  int protocolWritten = document->closeProtocol();
  if (aside) side.wait();
  if (unsynced != nullptr) {
    log.msg(__LINE__, 2, "Unable to open %s for writing: %s failed: errno=%d (%s)",
            unsynced->target.c_str(), step.c_str(), err, systemError(err).c_str());
    if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
    return requestFailed(unsynced->source, unsynced->target, kTargetNotWritten);
  }
  if (protocolWritten == 0) return 0;
  return 1;
}
