#include "tsclient/CurlTransport.h"

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/Log.h"
#include "base/LogTarget.h"
#include "base/Owners.h"
#include "base/Stop.h"
#include "tsclient/CurlShare.h"
#include "tsclient/TsSettings.h"

namespace {

const char kComponent[] = "zpTrequest";
constexpr long kKeptConnections = 64;  // at least the largest TS_PARALLEL

using CurlPtr = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;
using SlistPtr = std::unique_ptr<curl_slist, FreeWith<curl_slist_free_all>>;

// Failures of a transfer that say nothing about the request: the next
// attempt may well succeed.
bool curlFailureMayPass(CURLcode rc) {
  switch (rc) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return true;
    default:
      return false;
  }
}

// Replaces the value of every "Authorization:" header line in text with the mask.
std::string maskAuthorization(const char* data, size_t size) {
  std::string text(data, size);
  static const char kHeader[] = "authorization:";
  const size_t headerLen = sizeof kHeader - 1;
  size_t lineStart = 0;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string::npos) lineEnd = text.size();
    if (lineEnd - lineStart >= headerLen &&
        strncasecmp(text.c_str() + lineStart, kHeader, headerLen) == 0) {
      size_t valueStart = lineStart + headerLen;
      while (valueStart < lineEnd && text[valueStart] == ' ') ++valueStart;
      size_t schemeEnd = text.find(' ', valueStart);  // keep the scheme name ("Basic")
      if (schemeEnd != std::string::npos && schemeEnd < lineEnd) valueStart = schemeEnd + 1;
      size_t valueEnd = lineEnd;
      if (valueEnd > valueStart && text[valueEnd - 1] == '\r') --valueEnd;
      text.replace(valueStart, valueEnd - valueStart, kSecretMask);
      lineEnd = valueStart + strlen(kSecretMask);
      if (lineEnd < text.size() && text[lineEnd] == '\r') ++lineEnd;
    }
    lineStart = lineEnd + 1;
  }
  return text;
}

// Write callback: appends to the ResponseBuffer what fits and returns the
// number of bytes taken. A body that does not fit is cut off, and libcurl
// ends the transfer with a write error.
size_t collectResponse(char* data, size_t size, size_t count, void* buffer) {
  Log log(kComponent, "collectResponse", __FILE__, __LINE__, 13);
  auto* rb = static_cast<ResponseBuffer*>(buffer);
  uint64_t offered = static_cast<uint64_t>(size) * count;
  uint64_t room = rb->capacity - rb->used;
  uint64_t taken = offered < room ? offered : room;
  memcpy(rb->data + rb->used, data, taken);
  rb->used += taken;
  return static_cast<size_t>(taken);
}

// Debug callback: each piece of curl's trace at level 10; bodies are not
// shown, and the Authorization value is masked. Always 0.
int curldbg(CURL* /*handle*/, curl_infotype type, char* data, size_t size, void* /*user*/) {
  Log log(kComponent, "curldbg", __FILE__, __LINE__, 13);
  static const char* const kNames[] = {"TEXT",     "HEADER_IN",   "HEADER_OUT",  "DATA_IN",
                                       "DATA_OUT", "SSL_DATA_IN", "SSL_DATA_OUT"};
  const char* name = type >= 0 && type <= 6 ? kNames[type] : "??";
  std::string shown;
  if (type < CURLINFO_DATA_IN || type > CURLINFO_SSL_DATA_OUT) {
    size_t n = size;
    while (n > 0 && (data[n - 1] == '\r' || data[n - 1] == '\n')) --n;
    shown = maskAuthorization(data, n);
  }
  log.msg(__LINE__, 10, "%s %d: %.*s", name, static_cast<int>(size), static_cast<int>(shown.size()),
          shown.c_str());
  return 0;
}

// SSL context callback: does nothing. Always CURLE_OK.
CURLcode sslcb(CURL* /*curl*/, void* /*sslctx*/, void* /*user*/) {
  Log log(kComponent, "sslcb", __FILE__, __LINE__, 13);
  return CURLE_OK;
}

// libcurl's progress callback: a non-zero result abandons the transfer
// (CURLE_ABORTED_BY_CALLBACK), so a stop of the worker does not wait for the
// time-outs. libcurl calls it at least about once a second, also while the
// server is silent.
int abortOnStop(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return stopRequested() ? 1 : 0;
}

// The body of a failed HTTP answer as text for the log (NUL-terminated copy).
std::string bodyText(const ResponseBuffer& rb) {
  return std::string(reinterpret_cast<const char*>(rb.data), rb.used).c_str();
}

// What the operator most likely has to change when a failure has a usual
// cause; null otherwise.
const char* likelyCause(CURLcode rc, const char* details, const TsServer& server) {
  if (rc == CURLE_PEER_FAILED_VERIFICATION) {
    return "the server's certificate was not accepted: TS_CAFILE must hold the CA that issued "
           "it, and the host name must be one the certificate names";
  }
  // A plain HTTP server never answers a TLS greeting the way TLS expects:
  // the handshake times out or fails on the first bytes back.
  bool noHandshake = rc == CURLE_SSL_CONNECT_ERROR ||
                     (rc == CURLE_OPERATION_TIMEDOUT && strstr(details, "SSL") != nullptr);
  if (server.protocol == "https" && noHandshake) {
    return "connected, but no TLS handshake: is the port a plain HTTP port? https needs the "
           "server's TLS port (TIMESTAMP_PORT), or set TIMESTAMP_PROTOCOL=http";
  }
  return nullptr;
}

// The URL of server, "" when it cannot be allocated: as written when it has
// one, else "<protocol>://<host>:<port>/</<path>". The "/</" between port and
// path is what the deployed Timestamp Servers expect; it is not a typo.
std::string urlOf(Log& log, const TsServer& server) {
  if (!server.url.empty()) return server.url;
  size_t urlSize = server.host.size() + server.path.size() + 100;
  std::unique_ptr<char[]> url(new (std::nothrow) char[urlSize]);
  if (!url) {
    log.msg(__LINE__, 2, "Error allocating timestamp request URL.");
    return std::string();
  }
  snprintf(url.get(), urlSize, "%s://%s:%d/</%s", server.protocol.c_str(), server.host.c_str(),
           server.port, server.path.c_str());
  return url.get();
}

// Everything of the transfer but the request: shared caches, trace, TLS,
// redirects, time-outs, libcurl's error text and the stop check.
void setTransfer(CURL* c, const TsSettings& s, CURLSH* share, long long timeoutMs,
                 char* curlError) {
  if (share != nullptr) {
    curl_easy_setopt(c, CURLOPT_SHARE, share);
    // Room in the shared cache for the connections of every parallel request.
    curl_easy_setopt(c, CURLOPT_MAXCONNECTS, kKeptConnections);
  }
  if (s.curlTrace) {
    curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, curldbg);
    curl_easy_setopt(c, CURLOPT_STDERR, LogTarget::current().stream());
    curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);
  }
  if (!s.caFile.empty()) {
    // With a CA file the server's chain and name are checked.
    curl_easy_setopt(c, CURLOPT_CAINFO, s.caFile.c_str());
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
  } else {
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, s.verifyHost ? 1L : 0L);
    // Without one the server's chain is not checked; the token is.
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
  }
  curl_easy_setopt(c, CURLOPT_SSL_CTX_FUNCTION, sslcb);
  if (s.haveClientAuth) {
    curl_easy_setopt(c, CURLOPT_SSLCERT, s.clientCertFile.c_str());
    curl_easy_setopt(c, CURLOPT_SSLCERTTYPE, "DER");
    curl_easy_setopt(c, CURLOPT_SSLKEY, s.clientKeyFile.c_str());
    curl_easy_setopt(c, CURLOPT_SSLKEYTYPE, "DER");
  }
  curl_easy_setopt(c, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_301));
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, s.connectTimeoutS);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs));
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, curlError);
  curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, abortOnStop);
  curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
}

// The POST of request with its headers (kept in *headers until the transfer
// ends), the answer going to answer. false when an allocation failed.
bool setRequest(Log& log, CURL* c, const TsSettings& s, const std::vector<unsigned char>& request,
                SlistPtr* headers, ResponseBuffer* answer) {
  curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.data());
  curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
  curl_slist* list = nullptr;
  if (s.haveCredentials) {
    size_t authSize = s.credentials.size() + 30;
    std::unique_ptr<char[]> auth(new (std::nothrow) char[authSize]);
    if (!auth) {
      log.msg(__LINE__, 2, "Error allocating timestamp authentication.");
      return false;
    }
    snprintf(auth.get(), authSize, "Authorization: Basic %s", s.credentials.c_str());
    list = curl_slist_append(list, auth.get());
    OPENSSL_cleanse(auth.get(), authSize);  // curl keeps its own copy
  }
  list = curl_slist_append(list, "Content-Type: application/timestamp-query");
  headers->reset(list);
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, answer);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collectResponse);
  return true;
}

// The result of a finished transfer: 0 for HTTP 200, else -4 (libcurl
// failed) or -5 (another HTTP status), logged with the server.
int transferResult(Log& log, CURL* c, CURLcode rc, const TsServer& server,
                   const ResponseBuffer& answer, const char* curlError, TsAttempt* outcome) {
  if (rc != CURLE_OK) {
    log.msg(__LINE__, 2, "curl returns error %d(%s)", rc, curl_easy_strerror(rc));
    *outcome = {-4, curlFailureMayPass(rc), curl_easy_strerror(rc)};
    log.msgc("Timestamp Server %s: %s", serverName(server).c_str(),
             curlError[0] ? curlError : "no details");
    if (const char* cause = likelyCause(rc, curlError, server)) log.msgc("%s", cause);
    return -4;
  }
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    log.msg(__LINE__, 2, "HTTP error-code = %d (%s)", static_cast<int>(status),
            bodyText(answer).c_str());
    *outcome = {-5, status >= 500 && status <= 599, "HTTP " + std::to_string(status)};
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return -5;
  }
  return 0;
}

}  // namespace

int CurlTransport::exchange(Log& log, const TsServer& server,
                            const std::vector<unsigned char>& request, long long timeoutMs,
                            ResponseBuffer* answer, unsigned int* offset,
                            TsAttempt* outcome) const {
  *offset = 0;
  // libcurl's own words for a failure; outlives the handle that writes it.
  char curlError[CURL_ERROR_SIZE] = "";
  CurlPtr curl(curl_easy_init());
  if (!curl) {
    log.msg(__LINE__, 2, "curl returns error %d(%s)", CURLE_FAILED_INIT,
            curl_easy_strerror(CURLE_FAILED_INIT));
    return -4;
  }
  CURL* c = curl.get();
  const std::string url = urlOf(log, server);
  if (url.empty()) return -1;
  log.msg(__LINE__, 8, "url: %s", serverName(server).c_str());
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  setTransfer(c, *settings_, share_->get(), timeoutMs, curlError);
  SlistPtr headers;
  if (!setRequest(log, c, *settings_, request, &headers, answer)) return -1;
  CURLcode rc = curl_easy_perform(c);
  headers.reset();
  return transferResult(log, c, rc, server, *answer, curlError, outcome);
}
