// StampAudit: does a timestamp file still prove its file?
//
// The timestamp file must be a regular file (so must the file it proves: a
// FIFO or a device is refused, never waited on or read) of at most the
// BASE64 size of the largest answer a worker takes (TS_RESPONSE_LIMIT's
// maximum), and hold one line of BASE64 of a DER TimeStampResp;
// its token is checked by checkTimestampResponse (status, imprint against a
// digest of the file as it is now, signature, and the chain when trust has
// anchors). A token whose signature could not be checked because no signer
// certificate was at hand counts as not verified. Thread-safe.
#ifndef TOOLS_VERIFY_STAMPAUDIT_H_
#define TOOLS_VERIFY_STAMPAUDIT_H_

#include <string>

#include "tools/verify/StampedFiles.h"
#include "tsclient/TokenCheck.h"

struct StampAudit {
  bool ok = false;
  std::string reason;  // one line; empty when ok
  TokenFacts facts;    // what the token says, as far as it was read
};

StampAudit auditStamp(const StampedFile& stamp, const TokenTrust& trust);

#endif  // TOOLS_VERIFY_STAMPAUDIT_H_
