#include "kvrpc/KVclient.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/Log.h"
#include "kvrpc/KVprot.h"
#include "kvrpc/KvSenders.h"
#include "rpc/Clnt.h"

namespace {

constexpr int kByeSeconds = 5;
constexpr int kCrtTotalSeconds = 15;
constexpr int kCrtRetrySeconds = 2;

const char* orNull(const char* text) { return text ? text : "NULL"; }
// The wire has no null string; an absent text travels as an empty one.
char* wireText(const char* text) { return const_cast<char*>(text ? text : ""); }

// Prints the client's last RPC error to standard error and to the log.
void reportRpcError(Log& log, int line, CLIENT* client, const char* prefix) {
  log.msg(line, 2, "%s", clnt_sperror(client, prefix));
  clnt_perror(client, prefix);
}

}  // namespace

void KvClient::applyOverrides(Log& log, const char** host, const char** type) {
  State& s = state_;
  if (s.hostOverridden) {
    log.msg(__LINE__, 5, "libkavlet: using hostname '%s' and not '%s'", s.hostOverride.c_str(),
            orNull(*host));
    *host = s.hostOverride.c_str();
  }
  if (s.typeOverridden) {
    log.msg(__LINE__, 5, "libkavlet: using type '%s' and not '%s'", s.typeOverride.c_str(),
            orNull(*type));
    *type = s.typeOverride.c_str();
  }
}

bool KvClient::ownAddress(sockaddr_kl* own) {
  const HostAddressList& mine = host_.addresses();
  if (mine.empty()) return false;
  const HostAddress& a = mine.front();
  sockaddr_kl& kl = *own;
  kl = sockaddr_kl{};
  kl.family = static_cast<u_short>(a.family());
  kl.port = 0;
  if (a.family() == AF_INET6) {
    memcpy(kl.address, &reinterpret_cast<const sockaddr_in6*>(&a.addr)->sin6_addr, 16);
  } else {
    memcpy(kl.address, &reinterpret_cast<const sockaddr_in*>(&a.addr)->sin_addr, 4);
  }
  return true;
}

namespace {

// Text form of a record's address for log lines.
std::string klText(const sockaddr_kl& kl) {
  sockaddr_storage ss{};
  if (kl.family == AF_INET) {
    auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
    s4->sin_family = AF_INET;
    s4->sin_port = htons(kl.port);
    memcpy(&s4->sin_addr, kl.address, 4);
  } else {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
    s6->sin6_family = AF_INET6;
    s6->sin6_port = htons(kl.port);
    memcpy(&s6->sin6_addr, kl.address, 16);
  }
  char text[INET6_ADDRSTRLEN + 16];
  return addressText(reinterpret_cast<sockaddr*>(&ss), 1, text, sizeof text);
}

timeval seconds(int s) { return timeval{s, 0}; }

bool utf8Continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// text made to fit a bounded string field of max bytes. A longer text is
// cut, and "..." marks the cut: with keepEnd the end stays (document paths
// differ at their end), else the start. No UTF-8 character is cut in two.
std::string fitted(const char* text, size_t max, bool keepEnd) {
  static const char kCut[] = "...";
  const size_t keep = max - (sizeof kCut - 1);
  std::string t = text ? text : "";
  if (t.size() <= max) return t;
  if (keepEnd) {
    size_t from = t.size() - keep;
    while (from < t.size() && utf8Continuation(t[from])) ++from;
    return kCut + t.substr(from);
  }
  size_t to = keep;
  while (to > 0 && utf8Continuation(t[to])) --to;
  return t.substr(0, to) + kCut;
}

}  // namespace

bool KvClient::startService(Log& log, const char* host, const char* caller) {
  State& s = state_;
  s.simulation = host != nullptr && strcmp(host, "DEBUG") == 0;
  if (s.simulation) log.msg(__LINE__, 5, "KVhi: simulation: no connection to KV");
  if (service_.socket() != 0 ||
      service_.create(s.simulation ? 17 : 0, &senders_, env_.get("KV_ORDER_PORT")) >= 0) {
    return true;
  }
  log.msg(__LINE__, 5, "%s: ToolCreateService() failed; creating the Kavlet service failed",
          caller);
  return false;
}

KvClient::KvClient(const Environment& env) : env_(env), host_(env) {}

KvClient::~KvClient() {
  if (state_.registration != nullptr) clnt_destroy(state_.registration);
}

void KvClient::getEnv() {
  Log log("KVclient", "getEnv", __FILE__, __LINE__, 13);
  State& s = state_;
  if (s.envRead) return;
  s.envRead = true;
  if (const char* host = env_.get("kavletHOST")) {
    s.hostOverride = host;
    s.hostOverridden = true;
  }
  if (const char* type = env_.get("kavletTYPE")) {
    s.typeOverride = type;
    s.typeOverridden = true;
  }
  if (const char* klcto = env_.get("KLCTO")) {
    char* end = nullptr;
    s.totalTimeout = static_cast<int>(strtol(klcto, &end, 10));
    if (s.totalTimeout < 0) s.totalTimeout = 0;
    if (*end == '/') {
      int retry = atoi(end + 1);
      // A zero interval would resend without pause; keep the default then.
      if (retry > 0) s.retryInterval = retry;
    }
    log.msg(__LINE__, 9, "KLCTO=%s: total %d s, retry %d s", klcto, s.totalTimeout,
            s.retryInterval);
  }
  if (const char* offset = env_.get("RPC_OFFSET")) s.programOffset = atol(offset);
  if (const char* port = env_.get("KVPORT")) {
    long p = atol(port);
    if (p > 0 && p <= 65535 && !s.portFixed) s.kvPort = static_cast<uint16_t>(p);
  }
}

KVtarget KvClient::KVlastTarget() const { return state_.lastTarget; }

void KvClient::KVSetPort(uint16_t port) {
  Log log("KVclient", "KVSetPort", __FILE__, __LINE__, 13);
  state_.kvPort = port;
  state_.portFixed = true;
}

int KvClient::KVclnt_create(const char* host, uint16_t port, CLIENT** client) {
  Log log("KVclient", "KVclnt_create", __FILE__, __LINE__, 13);
  State& s = state_;
  HostAddressList addresses;
  s.lastTarget = KVtarget{orNull(host), port, ""};
  int resolved = resolveHost(host, hostPreference(env_), &addresses);
  if (resolved != 0) {
    s.lastTarget.resolverError = gai_strerror(resolved);
    log.msg(__LINE__, 5, "KVconnect: cannot get addess for '%s'", orNull(host));
    return -2;
  }
  HostAddress& kv = addresses.front();
  if (kv.family() == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&kv.addr)->sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in*>(&kv.addr)->sin_port = htons(port);
  }
  s.sharedTimeout = seconds(s.retryInterval);
  int sock = RPC_ANYSOCK;
  CLIENT* c = clntudp_create(kv.sa(), KVPROG + s.programOffset, KVVERS, s.sharedTimeout, &sock);
  if (c == nullptr) {
    log.msg(__LINE__, 2, "%s", clnt_spcreateerror("clntudp_create").c_str());
    clnt_pcreateerror("clntudp_create");
    return -4;
  }
  *client = c;
  return 0;
}

int KvClient::KVconnect(const char* host, const char* type, uint16_t servicePort, int opOrInfo) {
  Log log("KVclient", "KVconnect", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "KVconnect(host='%s',type='%s',port=%u,op_or_info=%d)", orNull(host),
          orNull(type), servicePort, opOrInfo);
  getEnv();
  applyOverrides(log, &host, &type);
  State& s = state_;

  if (!ownAddress(&s.hello.address)) return kKvOwnAddressUnknown;
  s.hello.address.port = servicePort;
  s.helloType = type ? type : "";
  s.hello.type = const_cast<char*>(s.helloType.c_str());
  log.msg(__LINE__, 8, "I am %s on %s", s.hello.type, klText(s.hello.address).c_str());

  if (s.registration != nullptr) {  // left over from a hello that got no answer
    clnt_destroy(s.registration);
    s.registration = nullptr;
  }
  int rc = KVclnt_create(host, s.kvPort, &s.registration);
  if (rc != 0) return rc;
  // Before the hello: the KV may send an order as soon as it accepts us.
  senders_.set(host, env_.get("KV_ACCEPT_FROM"), hostPreference(env_));

  s.sharedTimeout.tv_sec = s.totalTimeout;
  int answer = 0;
  u_long proc = opOrInfo == 1 ? KVPROC_HI : KVPROC_INFO;
  if (clnt_call(s.registration, proc, xdr_proc<xdr_hello_kl>, &s.hello, xdr_proc<xdr_int>, &answer,
                s.sharedTimeout) != RPC_SUCCESS) {
    reportRpcError(log, __LINE__, s.registration, "rpc(hello)");
    return -3;
  }
  log.msg(__LINE__, 9, "answer %d", answer);
  if (answer != 0) {
    log.msg(__LINE__, 9, "KV accepted me");
    return 0;
  }
  clnt_destroy(s.registration);
  s.registration = nullptr;
  return -1;
}

int KvClient::KVhi(const char* host, const char* type, ToolHandler* handler) {
  Log log("KVclient", "KVhi", __FILE__, __LINE__, 13);
  if (!startService(log, host, "KVhi")) return -5;
  if (handler != nullptr) service_.setHandler(handler);
  if (state_.simulation) return service_.socket();
  int rc = KVconnect(host, type, service_.port(), 1);
  return rc < 0 ? rc : service_.socket();
}

int KvClient::KVinfo(const char* host, const char* type, ToolHandler* handler) {
  Log log("KVclient", "KVinfo", __FILE__, __LINE__, 13);
  if (!startService(log, host, "KVinfo")) return -1;
  service_.setInfoHandler(handler);
  if (state_.simulation) return service_.socket();
  int rc = KVconnect(host, type, service_.port(), 0);
  if (rc < 0) return rc;
  log.msg(__LINE__, 8, "KVinfo on in_sock %d", service_.socket());
  return service_.socket();
}

int KvClient::KVop(const char* document, const char* text2, const char* text3) {
  Log log("KVclient", "KVop", __FILE__, __LINE__, 13);
  State& s = state_;
  if (s.simulation) {
    log.msg(__LINE__, 5, "KVop('%s','%s','%s')\n", orNull(document), orNull(text2), orNull(text3));
    return 0;
  }
  if (s.registration == nullptr) {
    log.msg(__LINE__, 2, "KVop: not registered with a KV");
    return 1;
  }
  // The fields are bounded: a longer text would make the report fail to
  // encode, and the KV would never hear of the document.
  std::string doc = fitted(document, KL_DOCUMENT_MAX, true);
  std::string status = fitted(text2, KL_STATUS_MAX, false);
  std::string comment = fitted(text3, KL_COMMENT_MAX, false);
  if (document != nullptr && doc != document) {
    log.msg(__LINE__, 2,
            "document path '%s' is longer than the %d bytes of a report: reported as '%s'",
            document, KL_DOCUMENT_MAX, doc.c_str());
  }
  op_kl op{};
  op.address = s.hello.address;
  op.document = const_cast<char*>(doc.c_str());
  op.status = const_cast<char*>(status.c_str());
  op.comment = const_cast<char*>(comment.c_str());
  int answer = 0;
  if (clnt_call(s.registration, KVPROC_OP, xdr_proc<xdr_op_kl>, &op, xdr_proc<xdr_int>, &answer,
                s.sharedTimeout) != RPC_SUCCESS) {
    reportRpcError(log, __LINE__, s.registration, "KVop");
    return 1;
  }
  return answer;
}

int KvClient::KVcrt(const char* hostname, const char* type, const char* path,
                   const char* operation, const char* comment) {
  Log log("KVclient", "KVcrt", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "KVcrt(hostname='%s', type='%s', path='%s', operation='%s',comment='%s')",
          orNull(hostname), orNull(type), orNull(path), orNull(operation), orNull(comment));
  State& s = state_;
  // Deliberately client-wide: every later call (KVop too) keeps these values.
  s.totalTimeout = kCrtTotalSeconds;
  s.retryInterval = kCrtRetrySeconds;
  getEnv();
  applyOverrides(log, &hostname, &type);
  if (s.simulation) {
    log.msg(__LINE__, 5, "KVcrt('%s', '%s', '%s', '%s', '%s')", orNull(hostname), orNull(type),
            orNull(path), orNull(operation), orNull(comment));
    return 0;
  }
  crt_kl crt{};
  crt.type = wireText(type);
  if (!ownAddress(&crt.address)) return kKvOwnAddressUnknown;
  crt.path = wireText(path);
  crt.operation = wireText(operation);
  crt.comment = wireText(comment);
  CLIENT* raw = nullptr;
  int rc = KVclnt_create(hostname, s.kvPort, &raw);
  if (rc != 0) return rc;
  // Released on every path, a failed call too: each KVcrt makes a client of
  // its own, and keeping the failed ones would leak a socket per call.
  ClientPtr client(raw);

  s.sharedTimeout.tv_sec = s.totalTimeout;
  int answer = 0;
  if (clnt_call(client.get(), KVPROC_CRT, xdr_proc<xdr_crt_kl>, &crt, xdr_proc<xdr_int>, &answer,
                s.sharedTimeout) != RPC_SUCCESS) {
    reportRpcError(log, __LINE__, client.get(), "KVcrt");
    return 1;
  }
  log.msg(__LINE__, 9, "answer %d", answer);
  client.reset();
  log.msg(__LINE__, 8, answer != 0 ? "KV refuses document" : "KV accepted document");
  return answer;
}

int KvClient::KVcrt2(const char* path, const char* operation, const char* comment) {
  Log log("KVclient", "KVcrt2", __FILE__, __LINE__, 13);
  State& s = state_;
  if (s.registration == nullptr) {
    log.msg(__LINE__, 2, "KVcrt2: not registered with a KV");
    return 1;
  }
  crt_kl crt{};
  crt.type = s.hello.type;
  crt.address = s.hello.address;
  crt.path = wireText(path);
  crt.operation = wireText(operation);
  crt.comment = wireText(comment);
  int answer = 0;
  if (clnt_call(s.registration, KVPROC_CRT, xdr_proc<xdr_crt_kl>, &crt, xdr_proc<xdr_int>, &answer,
                s.sharedTimeout) != RPC_SUCCESS) {
    reportRpcError(log, __LINE__, s.registration, "KVcrt2");
    return 1;
  }
  return answer;
}

void KvClient::KValive() {
  Log log("KVclient", "KValive", __FILE__, __LINE__, 13);
  State& s = state_;
  if (s.registration == nullptr) return;
  // A zero time-out sends the message once and waits for nothing.
  clnt_call(s.registration, KVPROC_ALIVE, xdr_proc<xdr_hello_kl>, &s.hello, xdr_proc<xdr_void>,
            nullptr, seconds(0));
}

void KvClient::KVbye() {
  Log log("KVclient", "KVbye", __FILE__, __LINE__, 13);
  State& s = state_;
  if (s.registration == nullptr) return;
  // From now on a late control message ends the process and a late order is only logged.
  service_.setHandler(nullptr);
  if (clnt_call(s.registration, KVPROC_BYE, xdr_proc<xdr_hello_kl>, &s.hello, xdr_proc<xdr_void>,
                nullptr, seconds(kByeSeconds)) != RPC_SUCCESS) {
    reportRpcError(log, __LINE__, s.registration, "KVbye");
  }
  clnt_destroy(s.registration);
  s.registration = nullptr;
}
