#include "tstl/tsrequest.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Platform.h"
#include "base/ReplaceFile.h"
#include "base/SettingsLine.h"
#include "base/Stop.h"
#include "base/String.h"
#include "base/Switch.h"
#include "base/SystemError.h"
#include "tstl/CAsn1bigInteger.h"
#include "tstl/CAsn1ietfTSResp.h"
#include "tstl/CAsn1messageImprint.h"
#include "tstl/CAsn1string.h"
#include "tstl/Der.h"
#include "tstl/FileDigest.h"
#include "tstl/OpenSslPtr.h"
#include "tstl/TokenCheck.h"
#include "tstl/TsServers.h"
#include "tstl/asn1request.h"
#include "tstl/zpcryptbase.h"

namespace {

const char kComponent[] = "zpTrequest";
// Shown wherever a message would otherwise carry the Basic credentials.
const char kMask[] = "********";

constexpr long kDefaultConnectTimeoutS = 10;
constexpr long kDefaultTotalTimeoutS = 60;
constexpr long kMaxTimeoutS = INT_MAX / 1000;
constexpr int kConnectAttempts = 10;
constexpr int kRefusedRetryMs = 1000;
constexpr unsigned char kTsaMsg = 0;       // RFC 3161 TCP flag of a request
constexpr unsigned char kFinalMsgRep = 5;  // RFC 3161 TCP flag of the final answer
constexpr int kMaxDigest = 64;
constexpr long kKeptConnections = 64;  // at least the largest TS_PARALLEL
constexpr unsigned int kNonceOctets = 8;

// The servers themselves are kept by tsServers().
struct RequesterState {
  bool haveCredentials = false;
  std::string credentials;  // BASE64 of login:password
  bool haveClientAuth = false;
  std::string clientKeyFile;
  std::string clientCertFile;
  TsServer primary;  // as configured; retries and fallbacks live in tsServers()
  int digestNid = -1;
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
  std::string primaryProtocol;        // of the first server, for the credentials warning
  std::string caFile;                 // TLS: the server chain is checked against it when set
  std::unique_ptr<TokenTrust> trust;  // null: no anchors, no extra certificates
};

RequesterState& state() {
  static RequesterState s;
  return s;
}

// openSocket, giving up at notAfterMs (steady clock) at the latest.
int openSocketBefore(const char* host, uint16_t port, long long notAfterMs);

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
struct CurlCleanup {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using CurlPtr = std::unique_ptr<CURL, CurlCleanup>;
struct SlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;
struct AddrinfoFree {
  void operator()(addrinfo* a) const { freeaddrinfo(a); }
};
using AddrinfoPtr = std::unique_ptr<addrinfo, AddrinfoFree>;

// A descriptor (socket or file) that closes itself.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

long long nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// A number of seconds from the environment, else the default. Larger values
// than kMaxTimeoutS are refused: libcurl ignores a time-out whose milliseconds
// do not fit an int (leaving none at all), and poll takes an int too.
long timeoutFromEnv(Log& log, const char* name, long fallback) {
  const char* value = getenv(name);
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

// The answer size limit from TS_RESPONSE_LIMIT: whole bytes from 1024 to
// kMaxResponseLimit, else the default with a level 2 message.
uint64_t responseLimitFromEnv(Log& log) {
  const char* value = getenv("TS_RESPONSE_LIMIT");
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

const char* envText(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

// Reads the request options and the trust settings. False (after a level 2
// message) when a setting is given but unusable: a worker that was asked to
// check tokens must not start without the means to.
bool readTokenSettings(Log& log, RequesterState& s) {
  s.sendNonce = switchIsOn(getenv("TS_NONCE"));
  s.certReq = switchIsOn(getenv("TS_CERTREQ"));
  s.policyOid = envText("TS_POLICY");
  s.policyNidRequested = 0;
  bool ok = true;
  if (!s.policyOid.empty()) {
    Asn1ObjectPtr obj(OBJ_txt2obj(s.policyOid.c_str(), 1));
    if (!obj) {
      log.msg(__LINE__, 2, "TS_POLICY '%s' is no object identifier", s.policyOid.c_str());
      ERR_clear_error();
      ok = false;
    } else {
      s.policyNidRequested =
          getOrCreateOID(s.policyOid.c_str(), s.policyOid.c_str(), s.policyOid.c_str());
      ok = s.policyNidRequested != 0;
    }
  }
  s.caFile = envText("TS_CAFILE");
  if (!s.caFile.empty() && access(s.caFile.c_str(), R_OK) != 0) {
    log.msg(__LINE__, 2, "TS_CAFILE '%s' cannot be read: %d", s.caFile.c_str(), errno);
    ok = false;
  }
  s.trust.reset();
  const std::string ca = envText("TS_TRUST_CA");
  const std::string certs = envText("TS_TSA_CERTS");
  if (!ca.empty() || !certs.empty()) {
    auto trust = std::make_unique<TokenTrust>();
    std::string error;
    if (trust->load(ca, certs, &error)) {
      s.trust = std::move(trust);
    } else {
      log.msg(__LINE__, 2, "Timestamp trust settings unusable: %s", error.c_str());
      ok = false;
    }
  }
  log.msg(__LINE__, 9,
          "token checks: nonce %s, certReq %s, policy '%s', trust anchors '%s', TSA certificates "
          "'%s', TLS CA file '%s', answer limit %llu bytes",
          s.sendNonce ? "on" : "off", s.certReq ? "on" : "off", s.policyOid.c_str(), ca.c_str(),
          certs.c_str(), s.caFile.c_str(), static_cast<unsigned long long>(s.responseLimit));
  return ok;
}

// Host-name verification is on for exactly "on" or "ON", or a value that
// starts with 1, y or Y; unset and anything else is off.
bool verifyHostWanted() {
  const char* v = getenv("TS_VERFHOST");
  if (v == nullptr) return false;
  return strcmp(v, "on") == 0 || strcmp(v, "ON") == 0 || v[0] == '1' || v[0] == 'y' || v[0] == 'Y';
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
      text.replace(valueStart, valueEnd - valueStart, kMask);
      lineEnd = valueStart + strlen(kMask);
      if (lineEnd < text.size() && text[lineEnd] == '\r') ++lineEnd;
    }
    lineStart = lineEnd + 1;
  }
  return text;
}

// Name resolution with the address-family preference of QR_PREF_IP: "[v6]"
// is numeric IPv6; the preferred family goes first; a link-local IPv6 first
// address gives way to the first routable IPv6 address.
int resolveHost(const char* name, AddrinfoPtr* result) {
  static const int preference = [] {
    const char* pref = getenv("QR_PREF_IP");
    return pref && strcmp(pref, "4") == 0 ? 4 : pref && strcmp(pref, "6") == 0 ? 6 : 0;
  }();
  if (name == nullptr || *name == '\0') return EAI_NONAME;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  std::string host = name;
  const char* close = strchr(name, ']');
  if (name[0] == '[' && close != nullptr) {
    host.assign(name + 1, close - name - 1);
    hints.ai_family = AF_INET6;
    hints.ai_flags = AI_NUMERICHOST;
  }
  addrinfo* list = nullptr;
  int rc = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (rc != 0) return rc;
  std::vector<addrinfo*> items;
  for (addrinfo* a = list; a != nullptr; a = a->ai_next) items.push_back(a);
  if (preference != 0) {
    int family = preference == 4 ? AF_INET : AF_INET6;
    std::vector<addrinfo*> first, rest;
    for (addrinfo* a : items) (a->ai_family == family ? first : rest).push_back(a);
    first.insert(first.end(), rest.begin(), rest.end());
    items.swap(first);
  }
  auto linkLocal = [](const addrinfo* a) {
    const auto* b = reinterpret_cast<const sockaddr_in6*>(a->ai_addr)->sin6_addr.s6_addr;
    return b[0] == 0xFE && b[1] == 0x80;
  };
  if (items[0]->ai_family == AF_INET6 && linkLocal(items[0])) {
    for (size_t i = 1; i < items.size(); ++i) {
      if (items[i]->ai_family == AF_INET6 && !linkLocal(items[i])) {
        addrinfo* better = items[i];
        items.erase(items.begin() + static_cast<long>(i));
        items.insert(items.begin(), better);
        break;
      }
    }
  }
  for (size_t i = 0; i < items.size(); ++i) {
    items[i]->ai_next = i + 1 < items.size() ? items[i + 1] : nullptr;
  }
  result->reset(items[0]);
  return 0;
}

// The numeric host of an address, IPv6 in brackets; "IP address" when the
// system cannot give it.
std::string addressText(const sockaddr* addr, socklen_t len) {
  char host[NI_MAXHOST];
  if (getnameinfo(addr, len, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) {
    return "IP address";
  }
  return addr->sa_family == AF_INET6 ? std::string("[") + host + "]" : std::string(host);
}

// Connects fd to addr within timeoutMs. 0, or an errno value.
int connectWithin(int fd, const sockaddr* addr, socklen_t len, long long timeoutMs) {
  int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  int err = 0;
  if (connect(fd, addr, len) != 0) {
    err = errno;
    if (err == EINPROGRESS) {
      pollfd p[2] = {{fd, POLLOUT, 0}, {stopWakeFd(), POLLIN, 0}};
      int r;
      do {
        r = poll(p, 2, static_cast<int>(timeoutMs < 0 ? 0 : timeoutMs));
      } while (r < 0 && errno == EINTR);
      if (r == 0) {
        err = ETIMEDOUT;
      } else if (r < 0) {
        err = errno;
      } else if (p[1].revents != 0) {
        err = ECANCELED;  // the worker is stopping
      } else {
        socklen_t errLen = sizeof err;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errLen) != 0) err = errno;
      }
    }
  }
  fcntl(fd, F_SETFL, flags);
  return err;
}

// Receives until the peer closes, the buffer is full, an error, deadlineMs
// passes (then errno is ETIMEDOUT) or a stop is requested (ECANCELED).
// Returns the number of bytes received.
uint64_t receiveAll(int fd, unsigned char* buffer, uint64_t capacity, long long deadlineMs) {
  uint64_t used = 0;
  while (used < capacity) {
    long long left = deadlineMs - nowMs();
    if (left <= 0) {
      errno = ETIMEDOUT;
      break;
    }
    pollfd p[2] = {{fd, POLLIN, 0}, {stopWakeFd(), POLLIN, 0}};
    int r = poll(p, 2, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) {
      errno = ETIMEDOUT;
      break;
    }
    if (r > 0 && p[1].revents != 0) {
      errno = ECANCELED;
      break;
    }
    ssize_t got = r < 0 ? -1 : recv(fd, buffer + used, capacity - used, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // closed by the peer, or an error (errno kept)
    used += static_cast<uint64_t>(got);
  }
  return used;
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

// Where an exchange goes, for messages: the URL (as sent) for HTTP(S),
// host:port for raw TCP. Credentials written into the host ("user:pw@host")
// show as the mask.
std::string serverName(const TsServer& server) {
  std::string host = server.host;
  size_t at = host.rfind('@');
  if (at != std::string::npos) host.replace(0, at, kMask);
  char text[64];
  if (server.protocol == "http" || server.protocol == "https") {
    snprintf(text, sizeof text, ":%d/</", server.port);
    return server.protocol + "://" + host + text + server.path;
  }
  snprintf(text, sizeof text, ":%u", server.port);
  return host + text;
}

// Fills the DER TimeStampReq for imprint, with the configured options and
// the nonce when one is given. False when encoding fails.
bool encodeRequest(CAsn1messageImprint* imprint, const std::vector<unsigned char>* nonce,
                   std::vector<unsigned char>* der) {
  const RequesterState& s = state();
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
  unsigned int size = request.getSize();
  der->assign(size, 0);
  unsigned int pos = 0;
  return size > 0 && request.getDER(der->data(), &pos) == 0 && pos == size;
}

// What the exchanges of the process share through libcurl: open connections
// (keep-alive), name lookups and TLS sessions (resumption). Exchanges run on
// several threads at once, so every kind of shared data has a lock of its own.
class CurlShare {
 public:
  CurlShare() {
    // Once per process: curl_global_init itself is not safe to call from
    // threads running at the same time.
    curl_global_init(CURL_GLOBAL_NOTHING);
    share_ = curl_share_init();
    if (share_ == nullptr) return;
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
  CurlShare(const CurlShare&) = delete;
  CurlShare& operator=(const CurlShare&) = delete;
  CURLSH* get() const { return share_; }

  // The one share of the process. It lives until the process ends: easy
  // handles may still use it while static objects are destroyed.
  static CurlShare& instance() {
    static CurlShare* share = new CurlShare;
    return *share;
  }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlShare*>(self)->mutexFor(data).lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlShare*>(self)->mutexFor(data).unlock();
  }
  std::mutex& mutexFor(curl_lock_data data) {
    return mutexes_[data >= 0 && data < CURL_LOCK_DATA_LAST ? data : 0];
  }

  CURLSH* share_ = nullptr;
  std::mutex mutexes_[CURL_LOCK_DATA_LAST];
};

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

// HTTP or HTTPS exchange with server through libcurl, within timeoutMs.
// Fills rb; says in *outcome whether a failure may pass.
int exchangeHttp(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
                 long long timeoutMs, ResponseBuffer* rb, TsAttempt* outcome) {
  RequesterState& s = state();
  CURLSH* share = CurlShare::instance().get();
  // libcurl's own words for a failure; outlives the handle that writes it.
  char curlError[CURL_ERROR_SIZE] = "";
  CurlPtr curl(curl_easy_init());
  if (!curl) {
    log.msg(__LINE__, 2, "curl returns error %d(%s)", CURLE_FAILED_INIT,
            curl_easy_strerror(CURLE_FAILED_INIT));
    return -4;
  }
  CURL* c = curl.get();
  if (share != nullptr) {
    curl_easy_setopt(c, CURLOPT_SHARE, share);
    // Room in the shared cache for the connections of every parallel request.
    curl_easy_setopt(c, CURLOPT_MAXCONNECTS, kKeptConnections);
  }
  if (getenv("CURL_DEBUG") != nullptr) {
    curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, curldbg);
    curl_easy_setopt(c, CURLOPT_STDERR, Log::logfile);
    curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);
  }
  // The "/</" between port and path is what the deployed Timestamp Servers
  // expect; it is not a typo.
  size_t urlSize = server.host.size() + server.path.size() + 100;
  std::unique_ptr<char[]> url(new (std::nothrow) char[urlSize]);
  if (!url) {
    log.msg(__LINE__, 2, "Error allocating timestamp request URL.");
    return -1;
  }
  snprintf(url.get(), urlSize, "%s://%s:%d/</%s", server.protocol.c_str(), server.host.c_str(),
           server.port, server.path.c_str());
  log.msg(__LINE__, 8, "url: %s", url.get());
  curl_easy_setopt(c, CURLOPT_URL, url.get());
  if (!s.caFile.empty()) {
    // With a CA file the server's chain and name are checked.
    curl_easy_setopt(c, CURLOPT_CAINFO, s.caFile.c_str());
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
  } else {
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, verifyHostWanted() ? 1L : 0L);
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
  curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.data());
  curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, s.connectTimeoutS);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs));
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, curlError);
  curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, abortOnStop);
  curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);

  curl_slist* headers = nullptr;
  if (s.haveCredentials) {
    size_t authSize = s.credentials.size() + 30;
    std::unique_ptr<char[]> auth(new (std::nothrow) char[authSize]);
    if (!auth) {
      log.msg(__LINE__, 2, "Error allocating timestamp authentication.");
      return -1;
    }
    snprintf(auth.get(), authSize, "Authorization: Basic %s", s.credentials.c_str());
    headers = curl_slist_append(headers, auth.get());
    OPENSSL_cleanse(auth.get(), authSize);  // curl keeps its own copy
  }
  headers = curl_slist_append(headers, "Content-Type: application/timestamp-query");
  SlistPtr headerList(headers);
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, rb);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collectResponse);

  CURLcode rc = curl_easy_perform(c);
  headerList.reset();
  if (rc != CURLE_OK) {
    log.msg(__LINE__, 2, "curl returns error %d(%s)", rc, curl_easy_strerror(rc));
    *outcome = {-4, curlFailureMayPass(rc), curl_easy_strerror(rc)};
    log.msgc("Timestamp Server %s: %s", serverName(server).c_str(),
             curlError[0] ? curlError : "no details");
    return -4;
  }
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    log.msg(__LINE__, 2, "HTTP error-code = %d (%s)", static_cast<int>(status),
            bodyText(*rb).c_str());
    *outcome = {-5, status >= 500 && status <= 599, "HTTP " + std::to_string(status)};
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return -5;
  }
  return 0;
}

// Raw RFC 3161 TCP exchange with server (length + flag framing), within
// timeoutMs. Fills rb; *offset is where the answer's DER starts. Says in
// *outcome whether a failure may pass.
int exchangeTcp(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
                long long timeoutMs, ResponseBuffer* rb, unsigned int* offset, TsAttempt* outcome) {
  long long deadline = nowMs() + timeoutMs;
  uint32_t length = static_cast<uint32_t>(request.size() + 1);
  std::vector<unsigned char> frame = {
      static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
      static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length), kTsaMsg};
  frame.insert(frame.end(), request.begin(), request.end());

  ScopedFd sock(openSocketBefore(server.host.c_str(), server.port, deadline));
  if (sock.get() < 0) {
    log.msg(__LINE__, 2, "openSocket failed");
    *outcome = {-4, true, "no connection"};
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return -4;
  }
  long long left = deadline - nowMs();
  timeval sendTimeout{left > 0 ? left / 1000 : 0, left > 0 ? (left % 1000) * 1000 : 1000};
  setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
  ssize_t sent = send(sock.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(frame.size())) {
    int err = sent < 0 ? errno : EMSGSIZE;
    log.msg(__LINE__, 2, "send failed (errno %d)", err);
    log.msgc("Timestamp Server %s: %s", serverName(server).c_str(), systemErrorText(err));
    *outcome = {-4, true, "send failed"};
    return -4;
  }
  errno = 0;
  rb->used = receiveAll(sock.get(), rb->data, rb->capacity, deadline);
  if (stopRequested()) {
    log.msg(__LINE__, 2, "exchange with timestamp server %s given up: the worker is stopping",
            server.host.c_str());
    *outcome = {-4, false, "stopped"};
    return -4;
  }
  bool notWorking = rb->used == 2 && rb->data[0] == 0x05 && rb->data[1] == 0x00;
  // A reply too short to hold the frame header is no timestamp either.
  if ((rb->used > 5 && rb->data[4] != kFinalMsgRep) ||
      (rb->used > 0 && rb->used <= 5 && !notWorking)) {
    log.msg(__LINE__, 2, "timestamp server %s did not respond with a valid timestamp",
            server.host.c_str());
    *outcome = {-10, false, "no valid timestamp"};
    return -10;
  }
  *offset = notWorking ? 0 : 5;
  // The frame says how long the answer is: one that ends early was cut off
  // on the way and is worth another attempt.
  if (!notWorking && rb->used >= 5 && rb->used < rb->capacity) {
    uint64_t framed = (uint64_t{rb->data[0]} << 24) | (uint64_t{rb->data[1]} << 16) |
                      (uint64_t{rb->data[2]} << 8) | rb->data[3];
    if (rb->used - 4 < framed) *outcome = {0, true, "answer cut short"};
  }
  return 0;
}

// One exchange with server for the DER request, within timeoutMs: the
// designed exchange and its checks. The answer goes into response.
TsAttempt exchangeWith(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
                       long long timeoutMs, CAsn1string* response) {
  const uint64_t limit = state().responseLimit;
  std::vector<unsigned char> buffer(limit + 1, 0);
  ResponseBuffer rb{buffer.data(), 0, limit};
  unsigned int offset = 0;
  TsAttempt outcome;
  errno = 0;
  int rc;
  long long started = nowMs();
  if (server.protocol == "http" || server.protocol == "https") {
    rc = exchangeHttp(log, server, request, timeoutMs, &rb, &outcome);
  } else {
    rc = exchangeTcp(log, server, request, timeoutMs, &rb, &offset, &outcome);
  }
  metrics::observeAnswer((nowMs() - started) / 1000.0);
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
    log.msg(__LINE__, 2, "no data received. errno = %d(%s)", err, systemErrorText(err));
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return {-8, true, "no data received"};
  }
  if (rb.used == 2 && rb.data[0] == 0x05 && rb.data[1] == 0x00) {
    log.msg(__LINE__, 2, "timestamp server %s is currently not working", server.host.c_str());
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
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) return;
  ERR_print_errors(bio.get());
  char* text = nullptr;
  long len = BIO_get_mem_data(bio.get(), &text);
  if (len <= 0) return;
  std::string message(text, static_cast<size_t>(len));
  message.pop_back();  // the final line feed
  log.msg(__LINE__, 2, "%s", message.c_str());
}

int initTimeStamper() {
  Log log(kComponent, "initTimeStamper", __FILE__, __LINE__, 13);
  OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
  RequesterState& s = state();
  s.tstInfoNid = getOrCreateOID("1.2.840.113549.1.9.16.1.4", "TSTInfo", "id-smime-ct-TSTInfo");
  if (s.tstInfoNid == 0) return 1;
  s.policyNid = getOrCreateOID("1.3.6.1.4.1.7359.1.2", "tsPol", "Timestamper Policy");
  return s.policyNid == 0 ? 1 : 0;
}

int initTsServer(const char* host, uint16_t port, const char* protocol, const char* path) {
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

  RequesterState& s = state();
  TsServer primary;
  primary.host = host ? host : "";
  primary.port = port;
  primary.protocol = protocol ? protocol : "";
  primary.path = path ? path : "/";
  s.primaryProtocol = primary.protocol;
  s.connectTimeoutS = timeoutFromEnv(log, "TS_CONNECT_TIMEOUT", kDefaultConnectTimeoutS);
  s.totalTimeoutS = timeoutFromEnv(log, "TS_TIMEOUT", kDefaultTotalTimeoutS);
  s.responseLimit = responseLimitFromEnv(log);
  const bool settingsOk = readTokenSettings(log, s);
  log.msg(__LINE__, 9, "TimestampRequester initialized. Host: %s Port: %d Protocol: %s Path: %s",
          primary.host.c_str(), primary.port, primary.protocol.c_str(), primary.path.c_str());
  log.msg(__LINE__, 9, "connect time-out %ld s, total time-out %ld s", s.connectTimeoutS,
          s.totalTimeoutS);
  tsServers().configureFromEnvironment(log, primary, s.totalTimeoutS);
  s.primary = primary;
  return settingsOk ? 0 : -1;
}

void describeTimestampSettings(SettingsLine* line) {
  const RequesterState& s = state();
  line->add("tsa", serverName(s.primary));
  line->add("protocol", s.primary.protocol);
  line->add("hash", OBJ_nid2sn(getDigest()));
  line->add("connect_timeout", std::to_string(s.connectTimeoutS) + "s");
  line->add("timeout", std::to_string(s.totalTimeoutS) + "s");
  line->add("verify_host", verifyHostWanted() ? "on" : "off");
  line->add("verify_peer", s.caFile.empty() ? "off" : "on");  // TS_CAFILE
  line->addSecret("basic_auth", s.haveCredentials && s.credentials != "Og==");
  line->add("nonce", s.sendNonce ? "on" : "off");
  line->add("certreq", s.certReq ? "on" : "off");
  line->add("policy", s.policyOid.empty() ? "none" : s.policyOid);
  line->add("trust_anchors", s.trust && s.trust->hasAnchors() ? "on" : "off");  // TS_TRUST_CA
  line->add("response_limit", static_cast<long>(s.responseLimit));
  line->addPairs(tsServers().settingsText());
}

int initStamperAuth(const char* login, const char* password) {
  Log log(kComponent, "initStamperAuth", __FILE__, __LINE__, 13);
  RequesterState& s = state();
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
  log.msg(__LINE__, 9, "TimestampRequester Authentication credentials set: %s", kMask);
  const bool http = s.primaryProtocol == "http";
  if ((*login != '\0' || *password != '\0') &&
      (http || (s.primaryProtocol == "https" && s.caFile.empty()))) {
    log.msg(__LINE__, 4,
            "Basic credentials go to the Timestamp Server %s; set TS_CAFILE and use https",
            http ? "over plain HTTP" : "over HTTPS without a checked server certificate");
  }
  return 0;
}

int initSSLAuth(const char* keyFile, const char* certFile) {
  Log log(kComponent, "initSSLAuth", __FILE__, __LINE__, 13);
  RequesterState& s = state();
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

int getDigest() {
  Log log(kComponent, "getDigest", __FILE__, __LINE__, 13);
  RequesterState& s = state();
  if (s.digestNid != -1) return s.digestNid;
  const char* name = getenv("TS_HASHALG");
  int nid = NID_sha256;
  if (name == nullptr || strcmp(name, "SHA256") == 0) {
    nid = NID_sha256;
  } else if (strcmp(name, "RIPEMD160") == 0) {
    nid = NID_ripemd160;
  } else if (strcmp(name, "SHA1") == 0) {
    nid = NID_sha1;
  } else if (strcmp(name, "SHA512") == 0) {
    nid = NID_sha512;
  } else if (strcmp(name, "SHA384") == 0) {
    nid = NID_sha384;
  } else if (strcmp(name, "SHA3-256") == 0) {
    nid = NID_sha3_256;
  } else if (strcmp(name, "SHA3-512") == 0) {
    nid = NID_sha3_512;
  } else {
    log.msg(__LINE__, 2, "Message Digest '%s' unknown .. defaulting to SHA256", name);
  }
  s.digestNid = nid;
  return nid;
}

int computeHash(const char* path, int nid, CAsn1messageImprint* imprint) {
  Log log(kComponent, "computeHash", __FILE__, __LINE__, 13);
  // Neither a FIFO without a writer nor a terminal may block the open, and
  // only a regular file is hashed: a device (/dev/zero) would be read for
  // ever.
  ScopedFd file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (file.get() < 0 || fstat(file.get(), &st) != 0) {
    int err = errno;
    log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", path, err,
            systemError(err).c_str());
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    log.msg(__LINE__, 2, "File %s is no regular file", path);
    return -1;
  }
  const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(nid));
  if (md == nullptr) {
    log.msg(__LINE__, 2, "Message digest algorithm ID %d doesn't produce a usable hash object",
            nid);
    log.msg(__LINE__, 2, "Digest name was %s", OBJ_nid2sn(nid) ? OBJ_nid2sn(nid) : "(none)");
    return -2;
  }
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx) {
    log.msg(__LINE__, 2, "Allocation of digest context failed");
    return -2;
  }
  if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
    log.msg(__LINE__, 2, "Message digest algorithm ID %d doesn't produce a usable hash object",
            nid);
    logOpenSslErrors();
    return -2;
  }
  int err = 0;
  switch (digestFile(file.get(), static_cast<uint64_t>(st.st_size), ctx.get(), &err)) {
    case FileDigestResult::kDone:
      break;
    case FileDigestResult::kReadFailed:
      log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", path, err,
              systemError(err).c_str());
      return -1;
    case FileDigestResult::kStopped:
      log.msg(__LINE__, 2, "hashing of %s stopped", path);
      return -1;
  }
  file.reset();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLen = 0;
  EVP_DigestFinal_ex(ctx.get(), digest, &digestLen);
  imprint->hashAlgorithm.algorithm.nid = nid;
  imprint->hashedMessage.setVal(kTagOctetString, digest, digestLen);
  if (Log::getLevel(9)) {
    std::string hex;
    char byte[4];
    for (unsigned int i = 0; i < digestLen; ++i) {
      snprintf(byte, sizeof byte, "%02X ", digest[i]);
      hex += byte;
    }
    log.msg(__LINE__, 9, "%s", hex.c_str());
  }
  return 0;
}

int requestTimestamp(CAsn1messageImprint* imprint, CAsn1string* response,
                     const std::vector<unsigned char>* nonce) {
  Log log(kComponent, "requestTimestamp", __FILE__, __LINE__, 13);
  std::vector<unsigned char> request;
  if (!encodeRequest(imprint, nonce, &request)) {
    log.msg(__LINE__, 2, "Error while creating timestamp request.");
    return -1;
  }
  // Retries and fallback servers, when configured, happen in here.
  return tsServers().run([&](const TsServer& server, long long timeoutMs) {
    return exchangeWith(log, server, request, timeoutMs, response);
  });
}

size_t collectResponse(void* data, size_t size, size_t count, void* buffer) {
  Log log(kComponent, "collectResponse", __FILE__, __LINE__, 13);
  auto* rb = static_cast<ResponseBuffer*>(buffer);
  uint64_t offered = static_cast<uint64_t>(size) * count;
  uint64_t room = rb->capacity - rb->used;
  uint64_t taken = offered < room ? offered : room;
  memcpy(rb->data + rb->used, data, taken);
  rb->used += taken;
  return static_cast<size_t>(taken);
}

int curldbg(void* /*handle*/, int type, char* data, size_t size, void* /*user*/) {
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

int sslcb(void* /*curl*/, void* /*sslctx*/, void* /*user*/) {
  Log log(kComponent, "sslcb", __FILE__, __LINE__, 13);
  return CURLE_OK;
}

int openSocket(const char* host, uint16_t port) { return openSocketBefore(host, port, LLONG_MAX); }

namespace {

int openSocketBefore(const char* host, uint16_t port, long long notAfterMs) {
  Log log(kComponent, "openSocket", __FILE__, __LINE__, 13);
  if (port == 0) return -1;
  RequesterState& s = state();
  AddrinfoPtr addresses;
  if (resolveHost(host, &addresses) != 0) {
    log.msg(__LINE__, 2, "timestamp server host %s unknown", host);
    return -1;
  }
  addrinfo* ai = addresses.get();
  if (ai->ai_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(ai->ai_addr)->sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_port = htons(port);
  }
  // Refused connections are retried (the server may be restarting), but
  // never beyond the connect time-out.
  long long deadline = std::min(nowMs() + s.connectTimeoutS * 1000LL, notAfterMs);
  int fd = -1;
  int err = 0;
  for (int attempt = 0; attempt < kConnectAttempts; ++attempt) {
    ScopedFd sock(socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) {
      err = errno;
      break;
    }
    err = connectWithin(sock.get(), ai->ai_addr, ai->ai_addrlen, deadline - nowMs());
    if (err == 0) {
      fd = sock.release();
      break;
    }
    if (err != ECONNREFUSED || attempt + 1 == kConnectAttempts ||
        nowMs() + kRefusedRetryMs >= deadline) {
      break;
    }
    if (waitForStop(kRefusedRetryMs)) {
      err = ECANCELED;
      break;
    }
  }
  log.msg(__LINE__, 10, "made new socket FD%d", fd);
  if (fd < 0) {
    log.msg(__LINE__, 2,
            "cannot connect to timestamp server host %s, port %d, addr %s, errno=%d(%s)", host,
            port, addressText(ai->ai_addr, ai->ai_addrlen).c_str(), err, systemErrorText(err));
    return -1;
  }
  sockaddr_storage local{};
  socklen_t localLen = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen);
  int localPort =
      ntohs(local.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                                        : reinterpret_cast<sockaddr_in*>(&local)->sin_port);
  log.msg(__LINE__, 10, "connected local port %d to remote port %d on FD%d", localPort, port, fd);
  return fd;
}

}  // namespace

const char* systemErrorText(int code) {
  Log log(kComponent, "systemErrorText", __FILE__, __LINE__, 13);
  // One buffer per thread: exchanges run on several threads at once.
  static thread_local char buffer[256];
  String text = systemError(code);
  // Texts that do not fit the buffer with their NUL are cut to 254 characters.
  size_t keep = text.str().size() >= sizeof buffer ? 254 : text.str().size();
  memcpy(buffer, text.c_str(), keep);
  buffer[keep] = '\0';
  return buffer;
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
  log.msgc("%s", text.c_str());
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

int timestampCheck(CAsn1messageImprint* imprint, CAsn1string* response,
                   const std::vector<unsigned char>& nonce) {
  Log log(kComponent, "timestampCheck", __FILE__, __LINE__, 13);
  const RequesterState& s = state();
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
  log.msg(__LINE__, 9, "timestamp genTime %s serial %s policy %s, signature %s, chain %s",
          r.facts.genTime.c_str(), r.facts.serialHex.c_str(), r.facts.policyOid.c_str(),
          r.facts.signatureChecked ? "checked" : "not checked (no signer certificate at hand)",
          r.facts.chainChecked ? "checked" : "not checked");
  return 0;
}

int timestamp2base64(CAsn1string* response, char** out) {
  Log log(kComponent, "timestamp2base64", __FILE__, __LINE__, 13);
  int len = static_cast<int>(response->length());
  int size = (4 * len) / 3 + 10;
  char* text = new (std::nothrow) char[size];
  if (text == nullptr || encodeBase64(response->data(), response->length(), text,
                                      static_cast<unsigned int>(size)) != 0) {
    log.msg(__LINE__, 2, "encodeBase64 failed");
    delete[] text;
    *out = nullptr;
    return -1;
  }
  *out = text;
  return 0;
}

int fetchTimestamp(CAsn1messageImprint* imprint, CAsn1string* response) {
  Log log(kComponent, "fetchTimestamp", __FILE__, __LINE__, 13);
  std::vector<unsigned char> nonce;
  if (state().sendNonce && !newNonce(&nonce)) {
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

int prepareTimestamp(CAsn1string* response, const char* target) {
  Log log(kComponent, "prepareTimestamp", __FILE__, __LINE__, 13);
  char* base64 = nullptr;
  if (timestamp2base64(response, &base64) != 0) {
    log.msg(__LINE__, 2, "Converting timestamp to base64 failed");
    return -4;
  }
  std::unique_ptr<char[]> text(base64);
  // Through a temporary file and a rename: a crash leaves the old file or
  // the new one, never a cut-off or empty timestamp.
  std::string step;
  int err = writeReplacement(target, text.get(), strlen(text.get()), &step);
  if (err != 0) {
    log.msg(__LINE__, 2, "Unable to open %s for writing: %s failed: errno=%d (%s)", target,
            step.c_str(), err, systemError(err).c_str());
    return -5;
  }
  return 0;
}

int commitTimestamp(const char* source, const char* target, bool syncDirectory) {
  Log log(kComponent, "commitTimestamp", __FILE__, __LINE__, 13);
  std::string step;
  int err = commitReplacement(target, &step, syncDirectory);
  if (err != 0) {
    log.msg(__LINE__, 2, "Unable to open %s for writing: %s failed: errno=%d (%s)", target,
            step.c_str(), err, systemError(err).c_str());
    return -5;
  }
  log.msg(__LINE__, 8, "Timestamp for document %s written to %s", source, target);
  return 0;
}

void discardTimestamp(const char* target) { discardReplacement(target); }

int storeTimestamp(CAsn1string* response, const char* source, const char* target,
                   bool syncDirectory) {
  Log log(kComponent, "storeTimestamp", __FILE__, __LINE__, 13);
  int rc = prepareTimestamp(response, target);
  return rc != 0 ? rc : commitTimestamp(source, target, syncDirectory);
}

int requestTimestamp(const char* source, const char* target) {
  Log log(kComponent, "requestTimestamp", __FILE__, __LINE__, 13);
  CAsn1messageImprint imprint;
  if (computeHash(source, getDigest(), &imprint) != 0) {
    log.msg(__LINE__, 2, "Hashing %s failed", source);
    return -1;
  }
  CAsn1string response(kTagOctetString);
  int rc = fetchTimestamp(&imprint, &response);
  if (rc != 0) return rc;
  return storeTimestamp(&response, source, target);
}
