// The work cycle of one document: Kavlet::work, createDocument,
// extendedKVop and getTime.
#include <cstdlib>
#include <ctime>
#include <memory>

#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Stop.h"
#include "kavlet/Kavlet.h"
#include "docfiles/Document.h"
#include "docfiles/DocumentLock.h"
#include "kvrpc/KVclient.h"

namespace {

// Every worker records its lines in the document's protocol file.
constexpr int kWithProtocol = 1;

// How long a worker waits for a document that another process holds.
constexpr int kDefaultLockWaitSeconds = 60;

// DOCUMENT_LOCK_WAIT's value v: seconds from 0 to 86400; anything else
// (null: unset) is the default.
int lockWaitSeconds(const char* v) {
  if (v == nullptr || *v == '\0') return kDefaultLockWaitSeconds;
  char* end = nullptr;
  long seconds = strtol(v, &end, 10);
  return *end == '\0' && seconds >= 0 && seconds <= 86400 ? static_cast<int>(seconds)
                                                          : kDefaultLockWaitSeconds;
}

}  // namespace

int Kavlet::createDocument(const char* directory, const char* workerType) {
  Log log("Kavlet", "createDocument", __FILE__, __LINE__, 13);
  document = std::make_unique<Document>(directory ? directory : "", workerType ? workerType : "",
                                        kWithProtocol, *fileSystem, documentOptions);
  return 1;
}

int Kavlet::work(const char* directory) {
  Log log("Kavlet", "work", __FILE__, __LINE__, 13);
  const char* dir = directory ? directory : "";
  curOkComment = okComment;
  curErrorComment = errorComment;

  int result = 0;
  // Why a failed document failed: the designed failure line names only its
  // status and comment, while the level-2 line with the cause may be far
  // above it among other documents' lines.
  String reason = "the document's lock couldn't be taken";
  // One worker per document: held until the document is closed and deleted.
  DocumentLock lock;
  if (lock.acquire(dir, lockWaitSeconds(env_.get("DOCUMENT_LOCK_WAIT")), *fileSystem) == 1 &&
      createDocument(dir, type.c_str()) != 0 && document != nullptr) {
    // A COMMANDS that exists but cannot be read must not pass for one
    // without statements: the document would go on without its work done.
    bool readable = document->commandsReadable() == 1;
    result = readable ? service(dir) : 0;
    reason = readable ? document->failureReason() : String("COMMANDS exists but cannot be read");
    bool commandsWritten = false;
    if (result >= 1) {
      // The protocol follows only once COMMANDS holds the outcome it tells.
      if (document->closeCommands() == 0) {
        result = 0;
        curErrorComment = "can't write to COMMANDS";
        reason = "COMMANDS couldn't be written";
      } else {
        commandsWritten = true;
        if (document->closeAll() == 0) {
          result = 0;
          reason = "the protocol or another file of the document couldn't be written";
        }
      }
    }
    if (result < 1) result = 0;
    // A failed document stays as it was: files made for it go again, so that
    // reruns do not pile them up; once COMMANDS names them they stay.
    if (result == 0 && !commandsWritten) document->removeCreatedFiles();
  }
  document.reset();
  metrics_.countDocument(result != 0);

  if (!testCount.empty()) return result;

  if (result == 0 && stopRequested()) {
    // Cut short by a stop, not failed: the document is left as a failed one
    // is left, but not reported, so the KV hands it out again instead of
    // sending it down its error path.
    log.msg(__LINE__, 3, "Document '%s' left unfinished: the worker is stopping", dir);
    return 0;
  }

  if (result == 0) {
    log.msg(
        __LINE__, 3,
        kvTest ? "TEST::Error on document '%s', '%s', '%s'" : "Error on document '%s', '%s', '%s'",
        dir, errorStatus.c_str(), curErrorComment.c_str());
    if (!reason.empty()) log.msgc("reason: %s", reason.c_str());
    return kvClient.KVop(dir, errorStatus.c_str(), curErrorComment.c_str());
  }
  if (kvTest) {
    // Deliberately "error" with the ok comment: lets the KV's error path be
    // exercised with documents that were in fact processed.
    log.msg(__LINE__, 8, "TEST::Document '%s' processed well", dir);
    return kvClient.KVop(dir, errorStatus.c_str(), curOkComment.c_str());
  }
  if (result == 1) {
    log.msg(__LINE__, 8, "Document '%s' processed well", dir);
    return kvClient.KVop(dir, okStatus.c_str(), curOkComment.c_str());
  }
  return extendedKVop(result, dir);
}

int Kavlet::extendedKVop(int result, const char* directory) {
  Log log("Kavlet", "extendedKVop", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "Document '%s' processed well (service_return_value=%d)", directory, result);
  return kvClient.KVop(directory, okStatus.c_str(), curOkComment.c_str());
}

std::string Kavlet::getTime() {
  Log log("Kavlet", "getTime", __FILE__, __LINE__, 13);
  char buffer[100];
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr ||
      strftime(buffer, sizeof buffer, "[%Y/%m/%d %H:%M:%S] ", &local) == 0) {
    buffer[0] = '\0';
  }
  return buffer;
}
