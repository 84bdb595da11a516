#include "tsclient/TsSettings.h"

#include <openssl/objects.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Switch.h"
#include "ossl/OpenSslErrors.h"
#include "ossl/OpenSslPtr.h"
#include "tsclient/tsrequest.h"

namespace {

constexpr long kMaxTimeoutS = INT_MAX / 1000;

const char* envText(const Environment& env, const char* name) {
  const char* value = env.get(name);
  return value != nullptr ? value : "";
}

}  // namespace

long timeoutFromEnv(Log& log, const Environment& env, const char* name, long fallback) {
  const char* value = env.get(name);
  if (value == nullptr || *value == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  long seconds = strtol(value, &end, 10);
  if (end == value || *end != '\0' || errno == ERANGE || seconds <= 0 || seconds > kMaxTimeoutS) {
    log.msg(__LINE__, 2, "%s '%s' is no number of seconds from 1 to %ld, using %ld", name, value,
            kMaxTimeoutS, fallback);
    return fallback;
  }
  return seconds;
}

uint64_t responseLimitFromEnv(Log& log, const Environment& env) {
  const char* value = env.get("TS_RESPONSE_LIMIT");
  if (value == nullptr || *value == '\0') return kResponseLimit;
  char* end = nullptr;
  errno = 0;
  long long bytes = strtoll(value, &end, 10);
  if (end == value || *end != '\0' || errno == ERANGE || bytes < 1024 ||
      bytes > static_cast<long long>(kMaxResponseLimit)) {
    log.msg(__LINE__, 2,
            "TS_RESPONSE_LIMIT '%s' is no number of bytes from 1024 to %llu, using %llu", value,
            static_cast<unsigned long long>(kMaxResponseLimit),
            static_cast<unsigned long long>(kResponseLimit));
    return kResponseLimit;
  }
  return static_cast<uint64_t>(bytes);
}

bool readTokenSettings(Log& log, const Environment& env, TsSettings* s) {
  s->sendNonce = switchIsOn(env.get("TS_NONCE"));
  const char* certReq = env.get("TS_CERTREQ");
  s->certReq = switchIsOn(certReq);
  s->policyOid = envText(env, "TS_POLICY");
  s->policyNidRequested = 0;
  bool ok = true;
  if (!s->policyOid.empty()) {
    Asn1ObjectPtr obj(OBJ_txt2obj(s->policyOid.c_str(), 1));
    if (!obj) {
      log.msg(__LINE__, 2, "TS_POLICY '%s' is no object identifier", s->policyOid.c_str());
      takeOpenSslErrors();  // said above in the setting's own words
      ok = false;
    } else {
      const char* oid = s->policyOid.c_str();
      s->policyNidRequested = getOrCreateOID(oid, oid, oid);
      ok = s->policyNidRequested != 0;
    }
  }
  s->caFile = envText(env, "TS_CAFILE");
  if (!s->caFile.empty() && access(s->caFile.c_str(), R_OK) != 0) {
    log.msg(__LINE__, 2, "TS_CAFILE '%s' cannot be read: %d", s->caFile.c_str(), errno);
    ok = false;
  }
  s->trust.reset();
  const std::string ca = envText(env, "TS_TRUST_CA");
  const std::string certs = envText(env, "TS_TSA_CERTS");
  if (!ca.empty() || !certs.empty()) {
    auto trust = std::make_unique<TokenTrust>();
    std::string error;
    if (trust->load(ca, certs, &error)) {
      s->trust = std::move(trust);
    } else {
      log.msg(__LINE__, 2, "Timestamp trust settings unusable: %s", error.c_str());
      ok = false;
    }
  }
  // Anchors without the signer's certificates need the certificate in the
  // token: ask for it unless the operator said no.
  const bool certReqOff = certReq != nullptr && *certReq != '\0' && !s->certReq;
  if (!ca.empty() && certs.empty() && !certReqOff) s->certReq = true;
  if (ca.empty()) {
    log.msg(__LINE__, 4,
            "Timestamps are stored without a check of the signer certificate's chain: set "
            "TS_TRUST_CA to the trust anchors of the Timestamp Server");
  }
  log.msg(__LINE__, 9,
          "token checks: nonce %s, certReq %s, policy '%s', trust anchors '%s', TSA certificates "
          "'%s', TLS CA file '%s', answer limit %llu bytes",
          s->sendNonce ? "on" : "off", s->certReq ? "on" : "off", s->policyOid.c_str(), ca.c_str(),
          certs.c_str(), s->caFile.c_str(), static_cast<unsigned long long>(s->responseLimit));
  return ok;
}

bool verifyHostWanted(const Environment& env) {
  const char* v = env.get("TS_VERFHOST");
  if (v == nullptr) return false;
  return strcmp(v, "on") == 0 || strcmp(v, "ON") == 0 || v[0] == '1' || v[0] == 'y' || v[0] == 'Y';
}
