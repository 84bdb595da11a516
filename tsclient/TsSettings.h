// TsSettings: the requester's configuration, held by its TsRequester. The
// init functions of tsclient/tsrequest.h fill it before any stamping; the
// exchanges then only read it, on several threads at once, without a lock.
#ifndef TSCLIENT_TSSETTINGS_H_
#define TSCLIENT_TSSETTINGS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tsclient/TokenCheck.h"
#include "tsclient/TsServers.h"

class Log;

// Shown wherever a message would otherwise carry the Basic credentials.
constexpr char kSecretMask[] = "********";

// Largest answer taken from a Timestamp Server unless TS_RESPONSE_LIMIT says
// otherwise (1024 to kMaxResponseLimit bytes); an answer that fills the
// buffer completely is rejected as too large.
constexpr uint64_t kResponseLimit = 4096;
constexpr uint64_t kMaxResponseLimit = 1024 * 1024;

constexpr long kDefaultConnectTimeoutS = 10;
constexpr long kDefaultTotalTimeoutS = 60;

struct TsSettings {
  bool haveCredentials = false;
  std::string credentials;  // BASE64 of login:password
  bool haveClientAuth = false;
  std::string clientKeyFile;   // DER
  std::string clientCertFile;  // DER
  TsServer primary;            // as configured; retries and fallbacks live in TsServers
  int digestNid = 0;  // TS_HASHALG, as getDigest reads it
  int tstInfoNid = 0;
  int policyNid = 0;
  long connectTimeoutS = kDefaultConnectTimeoutS;
  long totalTimeoutS = kDefaultTotalTimeoutS;
  uint64_t responseLimit = kResponseLimit;
  // Request options and answer checks beyond the plain request.
  bool sendNonce = false;
  bool certReq = false;
  std::string policyOid;  // dotted; empty: no reqPolicy
  int policyNidRequested = 0;
  std::string caFile;                 // TLS: the server chain is checked against it when set
  std::unique_ptr<TokenTrust> trust;  // null: no anchors, no extra certificates
};

// The whole number of seconds in the variable name (1 to INT_MAX / 1000, so
// that its milliseconds fit libcurl's and poll's int), else fallback; a value
// that is set but out of range or no number is logged at level 2.
long timeoutFromEnv(Log& log, const char* name, long fallback);

// The answer size limit from TS_RESPONSE_LIMIT: whole bytes from 1024 to
// kMaxResponseLimit, else kResponseLimit with a level 2 message.
uint64_t responseLimitFromEnv(Log& log);

// Reads TS_NONCE, TS_CERTREQ, TS_POLICY, TS_CAFILE, TS_TRUST_CA and
// TS_TSA_CERTS into s. False (after a level 2 message) when a setting is
// given but unusable: a worker that was asked to check tokens must not start
// without the means to.
bool readTokenSettings(Log& log, TsSettings* s);

// TS_VERFHOST: host-name verification is on for exactly "on" or "ON", or a
// value that starts with 1, y or Y; unset and anything else is off.
bool verifyHostWanted();

#endif  // TSCLIENT_TSSETTINGS_H_
