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

class Environment;
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
  int digestNid = 0;           // TS_HASHALG, as getDigest reads it
  int hashThreads = 1;         // TS_HASH_THREADS and the usable cores, as hashThreads reads them
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
  bool verifyHost = false;            // TS_VERFHOST: the host name is checked without TS_CAFILE
  bool curlTrace = false;             // CURL_DEBUG: libcurl's trace goes to the log
  int hostPreference = 0;             // QR_PREF_IP: the address family tried first for raw TCP
  std::unique_ptr<TokenTrust> trust;  // null: no anchors, no extra certificates
};

// The whole number of seconds in the variable name of env (1 to INT_MAX /
// 1000, so that its milliseconds fit libcurl's and poll's int), else
// fallback; a value that is set but out of range or no number is logged at
// level 2.
long timeoutFromEnv(Log& log, const Environment& env, const char* name, long fallback);

// The answer size limit from TS_RESPONSE_LIMIT: whole bytes from 1024 to
// kMaxResponseLimit, else kResponseLimit with a level 2 message.
uint64_t responseLimitFromEnv(Log& log, const Environment& env);

// Reads TS_NONCE, TS_CERTREQ, TS_POLICY, TS_CAFILE, TS_TRUST_CA and
// TS_TSA_CERTS of env into s. False (after a level 2 message) when a setting
// is given but unusable: a worker that was asked to check tokens must not
// start without the means to.
bool readTokenSettings(Log& log, const Environment& env, TsSettings* s);

// TS_VERFHOST: host-name verification is on for exactly "on" or "ON", or a
// value that starts with 1, y or Y; unset and anything else is off.
bool verifyHostWanted(const Environment& env);

#endif  // TSCLIENT_TSSETTINGS_H_
