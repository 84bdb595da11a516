#include "app/DocumentStamper.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <set>
#include <utility>

#include "base/List.h"
#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Notify.h"
#include "base/OrderedWork.h"
#include "base/ReplaceFile.h"
#include "base/SandboxHint.h"
#include "base/Stop.h"
#include "base/SystemError.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1string.h"
#include "der/Der.h"
#include "docfiles/Document.h"
#include "docfiles/utl.h"
#include "tsclient/HashFiles.h"
#include "tsclient/tsrequest.h"

// One file of a document on its way to a timestamp.
struct Stamp {
  explicit Stamp(PlannedStamp p) : planned(std::move(p)) {}
  PlannedStamp planned;
  CAsn1messageImprint imprint;
  CAsn1string response{kTagOctetString};
  StampResult result = StampResult::kOk;  // of the exchange, then of the temporary file
  // Written and synced beside the exchanges; false: written at its turn.
  bool early = true;
  bool prepared = false;  // its temporary file waits for the rename
};

namespace {

const char kRequestFailed[] =
    "the timestamp couldn't be requested from timestamp server. The call of function "
    "requestTimestamp(source_file='%s',timestamp_file='%s') failed.";

const char* notificationTemplate(int number) {
  switch (number) {
    case 700:
      return "Kavlet 'clockette' failed in requesting timestamp for file '%1/%2' from Timestamp "
             "Server";
    case 701:
      return "Kavlet 'clockette' failed because of wrong COMP COMMANDS statement in document '%1'";
    case 702:
      return "Kavlet 'clockette' cannot write COMMANDS file of document '%1'";
    case 703:
      // A local failure, told apart from the Timestamp Server's.
      return "Kavlet 'clockette' cannot write timestamp file '%1' of document '%2'";
    default:
      return "Kavlet 'clockette' cannot read file '%1' of document '%2'";
  }
}

// One argument of a notification: in braces, at most 250 characters.
std::string braced(const std::string& text) { return "{" + text.substr(0, 250) + "}"; }

// The arguments of the "'%1/%2'" notification, so that it names the file
// once: the directory and the path below it, or the path cut at its last "/".
std::string fileArguments(const std::string& dir, const std::string& path) {
  std::string prefix = dir + "/";
  size_t slash = path.rfind('/');
  if (path.compare(0, prefix.size(), prefix) == 0) {
    return braced(dir) + " " + braced(path.substr(prefix.size()));
  }
  if (slash != std::string::npos) {
    return braced(path.substr(0, slash)) + " " + braced(path.substr(slash + 1));
  }
  return braced(dir) + " " + braced(path);
}

int statusByStat(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? 0 : errno;
}

// Whether anything (a symbolic link too) sits at path.
bool entryExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The directory part of a path ("." when it has none).
std::string directoryPart(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The name part of a path, in lower case (names that differ only in case
// are one file on some file systems).
std::string lowerName(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return name;
}

std::vector<std::string> values(Document* document, const char* key) {
  List<String> found;
  document->getValueForFromCommands(String(key), found);
  std::vector<std::string> out;
  for (const String& v : found) out.push_back(v.str());
  return out;
}

// Early writing only where no two files of the document can meet at one
// temporary file: not for a name that comes again (through another path
// perhaps), not at all when a target is named like a temporary file.
void chooseEarlyWrites(const std::vector<std::unique_ptr<Stamp>>& stamps) {
  std::set<std::string> names;
  bool temporaryNamed = false;
  for (const auto& stamp : stamps) {
    std::string name = lowerName(stamp->planned.target);
    temporaryNamed = temporaryNamed || (name.size() > 4 && name[0] == '.' &&
                                        name.compare(name.size() - 4, 4, ".tmp") == 0);
    stamp->early = names.insert(name).second;
  }
  if (temporaryNamed) {
    for (const auto& stamp : stamps) stamp->early = false;
  }
}

}  // namespace

DocumentStamper::DocumentStamper(Document* document, std::string directory, TsRequester* requester,
                                 Notifier* notifier, Metrics* metrics, int parallel,
                                 const ConfinementSettings& confinement)
    : document_(document),
      dir_(std::move(directory)),
      requester_(requester),
      notifier_(notifier),
      metrics_(metrics),
      parallel_(parallel),
      confinement_(dir_, confinement) {}

DocumentStamper::~DocumentStamper() = default;

StampStatements DocumentStamper::readStatements() {
  StampStatements s;
  s.tokenMode = document_->options().tokenMode();
  s.files = values(document_, "TIMESTAMP_FILE");
  String unused;
  s.stampComponents = document_->getValueForFromCommands(String("TIMESTAMP_COMP"), unused) > 0;
  if (s.stampComponents) {
    s.stampedComponents = values(document_, "COMP_TIMESTAMP_FILE");
    s.components = values(document_, "COMP");
  }
  return s;
}

int DocumentStamper::run() {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  StampPlan plan = planStamps(dir_, readStatements(), statusByStat);
  for (PlannedStamp& p : plan.stamps) stamps_.push_back(std::make_unique<Stamp>(std::move(p)));
  StampFailure failure = checkTargets();
  if (failure.result == StampResult::kOk) failure = hashSources();
  if (failure.result == StampResult::kOk) failure = exchangeAndCommit();
  if (failure.result == StampResult::kOk) failure = plan.failure;
  if (failure.result != StampResult::kOk) return report(failure);
  if (stamps_.empty()) {
    document_->docMessage(log, __LINE__, 8, "no timestamping required for document '%s'",
                          dir_.c_str());
    return 1;
  }
  document_->docMessage(log, __LINE__, 8, "got timestamps from Timestamp Server for document '%s'",
                        dir_.c_str());
  failure = sync();
  return failure.result == StampResult::kOk ? 1 : report(failure);
}

// The document's bookkeeping files and the source itself are never written
// over, whatever path leads to them, nor is anything outside the document's
// directories.
StampFailure DocumentStamper::checkTargets() {
  for (const auto& stamp : stamps_) {
    const PlannedStamp& p = stamp->planned;
    String which;
    std::string refusal;
    if (document_->isBookkeepingFile(String(p.target.c_str()), &which) == 1) {
      refusal = "it is the document's file '" + which.str() + "'";
    } else if (utlSameFile(p.source.c_str(), p.target.c_str()) == 1) {
      refusal = "it is its source file '" + p.source + "'";
    } else {
      refusal = confinement_.targetRefusal(p.target);
    }
    if (!refusal.empty()) return {StampResult::kTargetRefused, p.source, p.target, refusal};
  }
  return {};
}

StampFailure DocumentStamper::openSources(size_t first, size_t end, std::vector<UniqueFd>* files) {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  files->clear();
  for (size_t i = first; i < end; ++i) {
    const PlannedStamp& p = stamps_[i]->planned;
    std::string refusal;
    int err = 0;
    files->push_back(confinement_.openSource(p.source, &refusal, &err));
    if (!refusal.empty()) return {StampResult::kSourceRefused, p.source, p.target, refusal};
    if (!files->back().valid()) {
      log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", p.source.c_str(), err,
              systemError(err).c_str());
      if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
      metrics_->countTimestamp(metricsCode(StampResult::kHashFailed));
      log.msg(__LINE__, 2, "Hashing %s failed", p.source.c_str());
      return {StampResult::kHashFailed, p.source, p.target, ""};
    }
  }
  return {};
}

// Every file is hashed from the descriptor its confined open gave, side by
// side, a few at a time so that a document of many files does not run out of
// descriptors. A file that cannot be hashed fails the document without any
// exchange.
StampFailure DocumentStamper::hashSources() {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  constexpr size_t kOpenAtOnce = 64;
  std::vector<UniqueFd> files;
  for (size_t first = 0; first < stamps_.size(); first += kOpenAtOnce) {
    size_t end = std::min(stamps_.size(), first + kOpenAtOnce);
    StampFailure failure = openSources(first, end, &files);
    if (failure.result != StampResult::kOk) return failure;
    std::vector<FileToHash> jobs;
    for (size_t i = first; i < end; ++i) {
      jobs.push_back({stamps_[i]->planned.source, files[i - first].get(), &stamps_[i]->imprint});
    }
    size_t failed = hashFiles(&jobs, requester_->digest(), requester_->hashThreads());
    if (failed < jobs.size()) {
      const PlannedStamp& p = stamps_[first + failed]->planned;
      metrics_->countTimestamp(metricsCode(StampResult::kHashFailed));
      log.msg(__LINE__, 2, "Hashing %s failed", p.source.c_str());
      return {StampResult::kHashFailed, p.source, p.target, ""};
    }
  }
  return {};
}

// The round trips overlap and each answer is written to its temporary file
// and synced on the same thread; the renames follow in statement order, and
// the first file that fails ends the document: answers for later files are
// dropped and their temporary files removed.
StampFailure DocumentStamper::exchangeAndCommit() {
  chooseEarlyWrites(stamps_);
  FileSystem& fs = document_->fileSystem();
  OrderedWork exchanges(stamps_.size(), parallel_, [this, &fs](size_t i) {
    Stamp& s = *stamps_[i];
    s.result = fromFetchCode(requester_->fetchTimestamp(&s.imprint, &s.response));
    if (s.result == StampResult::kOk && s.early) {
      s.result = fromStoreCode(prepareTimestamp(&s.response, s.planned.target.c_str(), fs));
      s.prepared = s.result == StampResult::kOk;
    }
  });
  auto dropFrom = [&](size_t first) {
    exchanges.dropFrom(first);
    for (size_t j = first; j < stamps_.size(); ++j) {
      if (exchanges.waitFor(j) && stamps_[j]->prepared) {
        discardTimestamp(stamps_[j]->planned.target.c_str(), fs);
      }
    }
  };
  for (size_t i = 0; i < stamps_.size(); ++i) {
    Stamp& stamp = *stamps_[i];
    const PlannedStamp& p = stamp.planned;
    exchanges.waitFor(i);
    // Files this attempt creates are noted, so that a failed document can be
    // left as it was.
    bool existed = entryExists(p.target);
    StampResult result = stamp.result;
    if (result == StampResult::kOk && !stamp.early) {
      result = fromStoreCode(prepareTimestamp(&stamp.response, p.target.c_str(), fs));
    }
    if (result == StampResult::kOk) {
      result = fromStoreCode(commitTimestamp(p.source.c_str(), p.target.c_str(), false, fs));
    }
    metrics_->countTimestamp(metricsCode(result));
    if (result != StampResult::kOk) {
      dropFrom(i + 1);
      return {result, p.source, p.target, ""};
    }
    if (!existed) document_->noteCreatedFile(String(p.target.c_str()));
    // The renames of a directory reach the disk with one sync of it at the
    // end, not one per file; the document counts as done only after that.
    unsyncedDirectories_[directoryPart(p.target)] = &stamp;
    if (!p.statement.empty() && document_->appendToCommands(String(p.statement.c_str())) == 0) {
      dropFrom(i + 1);
      return {StampResult::kCommandsNotWritten, p.source, p.target, p.statement};
    }
  }
  return {};
}

// The renames reach the disk with their directories' syncs. The protocol
// line is written by the work cycle once COMMANDS holds the new statements,
// so that it never tells of an outcome that did not come.
StampFailure DocumentStamper::sync() {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  FileSystem& fs = document_->fileSystem();
  for (const auto& entry : unsyncedDirectories_) {
    std::string step;
    int err = syncDirectoryOf(entry.second->planned.target.c_str(), &step, fs);
    if (err != 0) {
      const PlannedStamp& p = entry.second->planned;
      log.msg(__LINE__, 2, "Unable to open %s for writing: %s failed: errno=%d (%s)",
              p.target.c_str(), step.c_str(), err, systemError(err).c_str());
      if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
      return {StampResult::kTargetNotWritten, p.source, p.target, ""};
    }
  }
  return {};
}

int DocumentStamper::report(const StampFailure& f) {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  const char* source = f.source.c_str();
  const char* target = f.target.c_str();
  std::string arguments = braced(f.target) + " " + braced(dir_);
  switch (f.result) {
    case StampResult::kTargetNameTooLong:
      document_->docMessage(log, __LINE__, 2, "timestamp file name too long: '%s'", target);
      arguments = braced(dir_) + " " + braced(f.target);
      break;
    case StampResult::kSourceNameTooLong:
      document_->docMessage(log, __LINE__, 2, "source file name too long: '%s'", source);
      arguments = braced(dir_) + " " + braced(f.source);
      break;
    case StampResult::kTargetNotWritten:
      document_->docMessage(log, __LINE__, 2,
                            "the timestamp for '%s' couldn't be stored: the timestamp file '%s' "
                            "couldn't be written",
                            source, target);
      break;
    case StampResult::kTargetRefused:
      document_->docMessage(log, __LINE__, 2, "timestamp file '%s' refused: %s", target,
                            f.detail.c_str());
      break;
    case StampResult::kSourceRefused:
      document_->docMessage(log, __LINE__, 2, "source file '%s' refused: %s", source,
                            f.detail.c_str());
      break;
    case StampResult::kHashFailed:
      // The file itself failed, not the Timestamp Server: a local failure.
      document_->docMessage(log, __LINE__, 2, kRequestFailed, source, target);
      if (stopRequested()) return 0;  // hashing gave up for a stop: nothing to alarm about
      arguments = braced(f.source) + " " + braced(dir_);
      break;
    case StampResult::kWrongComp:
      document_->docMessage(log, __LINE__, 2,
                            "wrong COMP COMMANDS statement in document '%s': '%s'", dir_.c_str(),
                            f.detail.c_str());
      arguments = braced(dir_);
      break;
    case StampResult::kCommandsNotWritten:
      document_->docMessage(log, __LINE__, 2, "can't append string '%s' to COMMANDS file",
                            f.detail.c_str());
      arguments = braced(dir_);
      break;
    default:
      document_->docMessage(log, __LINE__, 2, kRequestFailed, source, target);
      // A stop of the worker is no Timestamp Server failure to alarm anyone about.
      if (stopRequested()) return 0;
      arguments = fileArguments(dir_, f.source);
      break;
  }
  int number = notificationNumber(f.result);
  notifier_->notify("SRV", "BASE", number, "ERR", notificationTemplate(number), arguments.c_str());
  return 0;
}
