// StampResult: how a document's stamping ended, one name per outcome.
//
// The stamping path carries this type from the plan to the report. The
// designed numbers appear only where a result leaves the program: the per-file
// result of the metrics (-1 .. -5) and the operator notification number
// (700 .. 703). The requester's own codes are turned into it at the two
// places they come in (fromFetchCode, fromStoreCode), so that a number that
// means one thing there ("HTTP status") never passes for another here.
#ifndef APP_STAMPRESULT_H_
#define APP_STAMPRESULT_H_

#include <string>

enum class StampResult {
  kOk,
  kHashFailed,          // the source could not be opened or read
  kExchangeFailed,      // the Timestamp Server could not be asked
  kAnswerRefused,       // its answer failed the checks
  kEncodingFailed,      // the answer could not be put into BASE64
  kTargetNotWritten,    // the timestamp file could not be written (a local failure)
  kTargetRefused,       // the timestamp file may not be written there
  kSourceRefused,       // the source may not be read
  kTargetNameTooLong,   // a timestamp file path the system cannot take
  kSourceNameTooLong,   // a source path the system cannot take
  kWrongComp,           // a COMP statement without name, type and file
  kCommandsNotWritten,  // COMP_TIMESTAMP_FILE could not be appended
};

// A failure of one document: what went wrong and with which files.
struct StampFailure {
  StampResult result = StampResult::kOk;
  std::string source;  // the file to stamp, when one is concerned
  std::string target;  // its timestamp file, when one is concerned
  std::string detail;  // the statement or the reason of a refusal
};

// fetchTimestamp's result: 0, -2 exchange failed, -3 answer refused.
StampResult fromFetchCode(int code);
// prepareTimestamp's and commitTimestamp's result: 0, -4 BASE64 failed, -5
// the timestamp file could not be written.
StampResult fromStoreCode(int code);

// The per-file result the metrics count: 0 stamped, -1 hashing failed, -2
// exchange failed, -3 answer refused, -4 encoding failed, -5 target not
// written; 1 for a result that is no per-file result.
int metricsCode(StampResult result);

// The operator notification number of a failure: 700 the timestamp could not
// be requested, 701 wrong COMP statement, 702 COMMANDS not writable, 703 the
// timestamp file cannot be written, 704 a file to stamp cannot be read; 0: none.
int notificationNumber(StampResult result);

#endif  // APP_STAMPRESULT_H_
