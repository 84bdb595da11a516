// DocumentStamper: the stamping of one open document, step by step.
//
//   plan      which files, which timestamp files, which statements (StampPlan)
//   check     every timestamp file may be written (Confinement): nothing is
//             written otherwise
//   hash      every file, opened beneath the allowed directories, is hashed
//             before the first request
//   exchange  up to `parallel` requests at once; each answer is written to its
//             temporary file and synced on the thread that fetched it
//   commit    the renames and appended statements in statement order, until
//             the first file that fails (files stamped before it stay)
//   sync      the directories of the renamed files (the work cycle writes the
//             protocol once COMMANDS holds the new statements)
//   report    the outcome in the log, the protocol and, for a failure, an
//             operator notification
//
// Each step returns a StampFailure; the first one that is not kOk is
// reported and ends the document.
#ifndef APP_DOCUMENTSTAMPER_H_
#define APP_DOCUMENTSTAMPER_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/Confinement.h"
#include "app/StampPlan.h"
#include "app/StampResult.h"

class Document;
class Log;
class Metrics;
class Notifier;
class TsRequester;
struct Stamp;

class DocumentStamper {
 public:
  // document: open, borrowed for the stamper's life. directory: as the work
  // cycle named it ("NULL" when it gave none). requester: configured,
  // borrowed for the stamper's life; notifier and metrics (where each file's
  // result is counted) too.
  DocumentStamper(Document* document, std::string directory, TsRequester* requester,
                  Notifier* notifier, Metrics* metrics, int parallel,
                  const ConfinementSettings& confinement);
  ~DocumentStamper();
  DocumentStamper(const DocumentStamper&) = delete;
  DocumentStamper& operator=(const DocumentStamper&) = delete;

  // 1 when the document is done, 0 when it failed (logged, recorded in the
  // protocol and, but for a stop, sent as an operator notification).
  int run();

 private:
  StampStatements readStatements();
  StampFailure checkTargets();
  StampFailure hashSources();
  // Opens the sources of stamps [first, end) for hashSources.
  StampFailure openSources(size_t first, size_t end, std::vector<UniqueFd>* files);
  StampFailure exchangeAndCommit();
  StampFailure sync();
  // 0, after the failure's text and notification.
  int report(const StampFailure& failure);

  Document* document_;  // borrowed
  std::string dir_;
  TsRequester* requester_;  // borrowed
  Notifier* notifier_;      // borrowed
  Metrics* metrics_;        // borrowed
  int parallel_;
  Confinement confinement_;
  std::vector<std::unique_ptr<Stamp>> stamps_;
  // One file renamed into each directory, to name it should its sync fail.
  std::map<std::string, const Stamp*> unsyncedDirectories_;
};

#endif  // APP_DOCUMENTSTAMPER_H_
