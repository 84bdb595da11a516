#include "tsclient/tsrequest.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Platform.h"
#include "base/Resolver.h"
#include "base/SettingsLine.h"
#include "base/String.h"
#include "base/SystemError.h"
#include "der/CAsn1bigInteger.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1string.h"
#include "der/Der.h"
#include "der/asn1request.h"
#include "encoding/Base64Crc.h"
#include "ossl/OpenSslErrors.h"
#include "tsclient/CurlTransport.h"
#include "tsclient/HashFiles.h"
#include "tsclient/TcpTransport.h"
#include "tsclient/TokenCheck.h"
#include "tsclient/TsServers.h"
#include "tsclient/TsSettings.h"
#include "tsclient/TsTransport.h"

namespace {

const char kComponent[] = "zpTrequest";
constexpr int kMaxDigest = 64;
constexpr unsigned int kNonceOctets = 8;

// Fills the DER TimeStampReq for imprint, with the configured options and
// the nonce when one is given. False when encoding fails.
bool encodeRequest(const TsSettings& s, CAsn1messageImprint* imprint,
                   const std::vector<unsigned char>* nonce, std::vector<unsigned char>* der) {
  CAsn1IETFrequest request;
  if (s.policyNidRequested != 0) {
    request.reqPolicy.nid = s.policyNidRequested;
    request.policyPresent = true;
  }
  if (nonce != nullptr && !nonce->empty()) {
    request.nonce.setVal(kTagInteger, nonce->data(), static_cast<unsigned int>(nonce->size()));
    request.noncePresent = true;
  }
  if (s.certReq) {
    request.certReq.value = 1;
    request.certReqPresent = true;
  }
  request.messageImprint.hashAlgorithm.algorithm.nid = imprint->hashAlgorithm.algorithm.nid;
  unsigned int digestLen = imprint->hashedMessage.length();
  if (digestLen > kMaxDigest) digestLen = kMaxDigest;
  request.messageImprint.hashedMessage.setVal(kTagOctetString, imprint->hashedMessage.data(),
                                              digestLen);
  *der = encodeDER(request);
  return !der->empty();
}

// One exchange with server for the DER request, within timeoutMs: the
// designed exchange and its checks, its time observed in metrics. The answer
// goes into response.
TsAttempt exchangeWith(Log& log, const TsSettings& settings, const CurlShare& share,
                       Metrics& metrics, const TsServer& server,
                       const std::vector<unsigned char>& request, long long timeoutMs,
                       CAsn1string* response) {
  const CurlTransport http(&settings, &share);
  const TcpTransport tcp(settings.connectTimeoutS, settings.hostPreference);
  const TsTransport& transport = isHttpServer(server) ? static_cast<const TsTransport&>(http) : tcp;
  const uint64_t limit = settings.responseLimit;
  std::vector<unsigned char> buffer(limit + 1, 0);
  ResponseBuffer rb{buffer.data(), 0, limit};
  unsigned int offset = 0;
  TsAttempt outcome;
  errno = 0;
  long long started = steadyNowMs();
  int rc = transport.exchange(log, server, request, timeoutMs, &rb, &offset, &outcome);
  metrics.observeAnswer(server.name(), (steadyNowMs() - started) / 1000.0);
  if (rc != 0) {
    outcome.result = rc;  // failures without a reason of their own are final
    return outcome;
  }
  if (rb.used == limit) {
    log.msg(__LINE__, 2, "timestamp received is larger than %d bytes!?", static_cast<int>(limit));
    return {-7, false, "answer too large"};
  }
  if (rb.used == 0) {
    int err = errno;
    log.msg(__LINE__, 2, "no data received. errno = %d(%s)", err, systemErrorText(err).c_str());
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return {-8, true, "no data received"};
  }
  if (rb.used == 2 && rb.data[0] == 0x05 && rb.data[1] == 0x00) {
    log.msg(__LINE__, 2, "timestamp server %s is currently not working",
            maskCredentials(server.host).c_str());
    return {-9, true, "currently not working"};
  }
  response->setVal(kTagOctetString, rb.data + offset, static_cast<unsigned int>(rb.used - offset));
  return outcome;
}

}  // namespace

int getOrCreateOID(const char* oid, const char* sn, const char* ln) {
  Log log(kComponent, "getOrCreateOID", __FILE__, __LINE__, 13);
  int nid = OBJ_txt2nid(oid);
  if (nid != NID_undef) {
    log.msg(__LINE__, 9, "oid %s -> nid %d", oid, nid);
    return nid;
  }
  nid = OBJ_create(oid, sn, ln);
  log.msg(__LINE__, 9, "create oid %s sn %s ln %s -> nid %d", oid, sn, ln, nid);
  if (nid == NID_undef) {
    log.msg(__LINE__, 2, "Unable to create ASN.1 object '%s' %s ('%s').", ln, oid, sn);
    logOpenSslErrors();
  }
  return nid;
}

void logOpenSslErrors() {
  Log log(kComponent, "logOpenSslErrors", __FILE__, __LINE__, 13);
  ERR_load_crypto_strings();
  std::string text = takeOpenSslErrors();
  if (!text.empty()) log.msg(__LINE__, 2, "%s", text.c_str());
}

int TsRequester::initTimeStamper() {
  Log log(kComponent, "initTimeStamper", __FILE__, __LINE__, 13);
  OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
  TsSettings& s = settings_;
  s.tstInfoNid = getOrCreateOID("1.2.840.113549.1.9.16.1.4", "TSTInfo", "id-smime-ct-TSTInfo");
  if (s.tstInfoNid == 0) return 1;
  s.policyNid = getOrCreateOID("1.3.6.1.4.1.7359.1.2", "tsPol", "Timestamper Policy");
  return s.policyNid == 0 ? 1 : 0;
}

int TsRequester::initTsServer(const char* host, uint16_t port, const char* protocol,
                              const char* path, const char* url) {
  Log log(kComponent, "initTsServer", __FILE__, __LINE__, 13);
  startSockets(1, 1);
  ERR_load_crypto_strings();
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  OPENSSL_init_ssl(0, nullptr);
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  // Extra seed from whatever the stack holds; OpenSSL seeds itself properly,
  // this only adds to it.
  unsigned char noise[1024];
  RAND_seed(noise, sizeof noise);

  TsSettings& s = settings_;
  TsServer primary;
  primary.host = host ? host : "";
  primary.port = port;
  primary.protocol = protocol ? protocol : "";
  primary.path = path ? path : "/";
  s.connectTimeoutS = timeoutFromEnv(log, env_, "TS_CONNECT_TIMEOUT", kDefaultConnectTimeoutS);
  s.totalTimeoutS = timeoutFromEnv(log, env_, "TS_TIMEOUT", kDefaultTotalTimeoutS);
  s.responseLimit = responseLimitFromEnv(log, env_);
  s.digestNid = getDigest(env_);
  s.hashThreads = ::hashThreads(env_);
  s.verifyHost = verifyHostWanted(env_);
  s.curlTrace = env_.get("CURL_DEBUG") != nullptr;
  s.hostPreference = hostPreference(env_);
  bool settingsOk = readTokenSettings(log, env_, &s);
  if (url != nullptr && *url != '\0' && !parseTsUrl(url, &primary)) {
    TsServer shown;
    shown.url = url;
    log.msg(__LINE__, 2, "TIMESTAMP_URL '%s' is no http or https URL without a login",
            serverName(shown).c_str());
    settingsOk = false;
  }
  log.msg(__LINE__, 9, "TimestampRequester initialized. Host: %s Port: %d Protocol: %s Path: %s",
          maskCredentials(primary.host).c_str(), primary.port, primary.protocol.c_str(),
          primary.path.c_str());
  log.msg(__LINE__, 9, "connect time-out %ld s, total time-out %ld s", s.connectTimeoutS,
          s.totalTimeoutS);
  servers_.configureFromEnvironment(log, env_, primary, s.totalTimeoutS);
  s.primary = primary;
  return settingsOk ? 0 : -1;
}

void TsRequester::describeTimestampSettings(SettingsLine* line) const {
  const TsSettings& s = settings_;
  line->add("tsa", serverName(s.primary));
  line->add("protocol", s.primary.protocol);
  line->add("hash", OBJ_nid2sn(s.digestNid));
  line->add("connect_timeout", std::to_string(s.connectTimeoutS) + "s");
  line->add("timeout", std::to_string(s.totalTimeoutS) + "s");
  line->add("verify_host", s.verifyHost ? "on" : "off");
  line->add("verify_peer", s.caFile.empty() ? "off" : "on");  // TS_CAFILE
  line->addSecret("basic_auth", s.haveCredentials && s.credentials != "Og==");
  line->add("nonce", s.sendNonce ? "on" : "off");
  line->add("certreq", s.certReq ? "on" : "off");
  line->add("policy", s.policyOid.empty() ? "none" : s.policyOid);
  line->add("trust_anchors", s.trust && s.trust->hasAnchors() ? "on" : "off");  // TS_TRUST_CA
  line->add("response_limit", static_cast<long>(s.responseLimit));
  line->addPairs(servers_.settingsText());
}

int TsRequester::initStamperAuth(const char* login, const char* password) {
  Log log(kComponent, "initStamperAuth", __FILE__, __LINE__, 13);
  TsSettings& s = settings_;
  OPENSSL_cleanse(s.credentials.data(), s.credentials.size());
  s.credentials.clear();
  s.haveCredentials = false;
  if (login == nullptr || password == nullptr) {
    log.msg(__LINE__, 2, "Parameter is null");
    return -1;
  }
  std::string plain = std::string(login) + ":" + password;
  unsigned int n = static_cast<unsigned int>(plain.size());
  std::vector<char> encoded((4 * n) / 3 + 10, '\0');
  encodeBase64(reinterpret_cast<const unsigned char*>(plain.data()), n, encoded.data(),
               static_cast<unsigned int>(encoded.size()));
  s.credentials = encoded.data();
  s.haveCredentials = true;
  OPENSSL_cleanse(plain.data(), plain.size());
  OPENSSL_cleanse(encoded.data(), encoded.size());
  // The credentials themselves never go to the log.
  log.msg(__LINE__, 9, "TimestampRequester Authentication credentials set: %s", kSecretMask);
  const bool http = s.primary.protocol == "http";
  if ((*login != '\0' || *password != '\0') &&
      (http || (s.primary.protocol == "https" && s.caFile.empty()))) {
    log.msg(__LINE__, 4,
            "Basic credentials go to the Timestamp Server %s; set TS_CAFILE and use https",
            http ? "over plain HTTP" : "over HTTPS without a checked server certificate");
  }
  return 0;
}

int TsRequester::initSSLAuth(const char* keyFile, const char* certFile) {
  Log log(kComponent, "initSSLAuth", __FILE__, __LINE__, 13);
  TsSettings& s = settings_;
  s.clientKeyFile.clear();
  s.clientCertFile.clear();
  s.haveClientAuth = false;
  if (keyFile == nullptr || certFile == nullptr) {
    log.msg(__LINE__, 2, "Parameter is null");
    return -1;
  }
  s.clientKeyFile = keyFile;
  s.clientCertFile = certFile;
  s.haveClientAuth = true;
  log.msg(__LINE__, 9,
          "SSL client authentication prepared with client key from '%s' and certificate from "
          "'%s'",
          keyFile, certFile);
  return 0;
}

int TsRequester::requestTimestamp(CAsn1messageImprint* imprint, CAsn1string* response,
                     const std::vector<unsigned char>* nonce) {
  Log log(kComponent, "requestTimestamp", __FILE__, __LINE__, 13);
  std::vector<unsigned char> request;
  if (!encodeRequest(settings_, imprint, nonce, &request)) {
    log.msg(__LINE__, 2, "Error while creating timestamp request.");
    return -1;
  }
  // Retries and fallback servers, when configured, happen in here.
  return servers_.run([&](const TsServer& server, long long timeoutMs) {
    return exchangeWith(log, settings_, curlShare_, metrics_, server, request, timeoutMs, response);
  });
}

std::string systemErrorText(int code) {
  Log log(kComponent, "systemErrorText", __FILE__, __LINE__, 13);
  // A text of 256 characters or more is cut to 254, as the log has always shown it.
  std::string text = systemError(code).str();
  if (text.size() >= 256) text.resize(254);
  return text;
}

int timestampParse(CAsn1string* response, CAsn1ietfTSResp* resp) {
  Log log(kComponent, "timestampParse", __FILE__, __LINE__, 13);
  unsigned int pos = 0;
  if (resp->setDER(response->data(), &pos, response->length()) != 0) {
    log.msg(__LINE__, 2, "Parsing timestamp status info failed");
    return -1;
  }
  unsigned int status = static_cast<unsigned int>(resp->getStatus());
  if (status < 2) return 0;
  log.msg(__LINE__, 2, "Timestamp server returned unexpected status %d", static_cast<int>(status));
  std::string text = resp->getStatusString();
  // The failure bits by name after the text: they say what the server disliked.
  const std::string failInfo = resp->statusInfo.failInfoNames();
  if (failInfo.empty()) {
    log.msgc("%s", text.c_str());
  } else {
    log.msgc("%s (failInfo: %s)", text.c_str(), failInfo.c_str());
  }
  return -1;
}

bool newNonce(std::vector<unsigned char>* nonce) {
  unsigned char random[kNonceOctets];
  if (RAND_bytes(random, sizeof random) != 1) {
    logOpenSslErrors();
    return false;
  }
  uint64_t value = 0;
  for (unsigned char b : random) value = (value << 8) | b;
  CAsn1bigInteger integer(value);
  *nonce = integer.octets();
  return true;
}

int TsRequester::timestampCheck(CAsn1messageImprint* imprint, CAsn1string* response,
                                const std::vector<unsigned char>& nonce) const {
  Log log(kComponent, "timestampCheck", __FILE__, __LINE__, 13);
  const TsSettings& s = settings_;
  TokenExpectations expect;
  expect.hashNid = imprint->hashAlgorithm.algorithm.nid;
  expect.digest.assign(imprint->hashedMessage.data(),
                       imprint->hashedMessage.data() + imprint->hashedMessage.length());
  expect.nonce = nonce;
  expect.policyOid = s.policyOid;
  const TokenCheckResult r =
      checkTimestampResponse(response->data(), response->length(), &expect, s.trust.get());
  if (!r.ok) {
    log.msg(__LINE__, 2, "Timestamp refused: %s", r.reason.c_str());
    return -1;
  }
  if (!r.facts.signatureChecked) {
    log.msg(__LINE__, 2,
            "Timestamp stored with its signature not checked: neither the token nor "
            "TS_TSA_CERTS holds the signer certificate");
  }
  log.msg(__LINE__, 9, "timestamp genTime %s serial %s policy %s, signature %s, chain %s",
          r.facts.genTime.c_str(), r.facts.serialHex.c_str(), r.facts.policyOid.c_str(),
          r.facts.signatureChecked ? "checked" : "not checked (no signer certificate at hand)",
          r.facts.chainChecked ? "checked" : "not checked");
  return 0;
}

int TsRequester::fetchTimestamp(CAsn1messageImprint* imprint, CAsn1string* response) {
  Log log(kComponent, "fetchTimestamp", __FILE__, __LINE__, 13);
  std::vector<unsigned char> nonce;
  if (settings_.sendNonce && !newNonce(&nonce)) {
    log.msg(__LINE__, 2, "Error while creating timestamp request.");
    log.msg(__LINE__, 2, "Requesting timestamp failed");
    return -2;
  }
  if (requestTimestamp(imprint, response, &nonce) != 0) {
    log.msg(__LINE__, 2, "Requesting timestamp failed");
    return -2;
  }
  CAsn1ietfTSResp resp;
  // An answer that fails the token checks is a parse failure of this file:
  // it proves nothing, and asking again would not change that.
  if (timestampParse(response, &resp) != 0 || timestampCheck(imprint, response, nonce) != 0) {
    log.msg(__LINE__, 2, "Parsing timestamp failed");
    return -3;
  }
  return 0;
}

int TsRequester::requestTimestamp(const char* source, const char* target) {
  Log log(kComponent, "requestTimestamp", __FILE__, __LINE__, 13);
  CAsn1messageImprint imprint;
  if (computeHash(source, settings_.digestNid, &imprint) != 0) {
    log.msg(__LINE__, 2, "Hashing %s failed", source);
    return -1;
  }
  CAsn1string response(kTagOctetString);
  int rc = fetchTimestamp(&imprint, &response);
  if (rc != 0) return rc;
  return storeTimestamp(&response, source, target);
}
