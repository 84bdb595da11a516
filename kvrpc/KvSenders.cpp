#include "kvrpc/KvSenders.h"

#include <netinet/in.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/RateLimit.h"
#include "kvrpc/HostIdent.h"
#include "rpc/Svc.h"

namespace {

using Sender = KvSenderAddress;

// The address of a, an IPv4-mapped IPv6 address as the IPv4 address it is.
Sender senderOf(const sockaddr* a) {
  Sender s{};
  if (a->sa_family == AF_INET6) {
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
      s.family = AF_INET;
      memcpy(s.bytes, v6.s6_addr + 12, 4);
    } else {
      s.family = AF_INET6;
      memcpy(s.bytes, v6.s6_addr, 16);
    }
  } else if (a->sa_family == AF_INET) {
    s.family = AF_INET;
    memcpy(s.bytes, &reinterpret_cast<const sockaddr_in*>(a)->sin_addr, 4);
  }
  return s;
}

bool same(const Sender& a, const Sender& b) {
  return a.family == b.family && memcmp(a.bytes, b.bytes, a.family == AF_INET ? 4 : 16) == 0;
}

bool isLoopback(const Sender& s) {
  return s.family == AF_INET ? s.bytes[0] == 127
                             : IN6_IS_ADDR_LOOPBACK(reinterpret_cast<const in6_addr*>(s.bytes));
}

std::string trimmed(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

}  // namespace

void KvSenders::add(const Sender& s) {
  for (const Sender& known : accepted_) {
    if (same(known, s)) return;
  }
  accepted_.push_back(s);
}

bool KvSenders::addHost(const std::string& host, int preference) {
  HostAddressList list;
  if (resolveHost(host.c_str(), preference, &list) != 0) return false;
  for (const HostAddress& a : list) add(senderOf(a.sa()));
  return true;
}

void KvSenders::set(const char* kvHost, const char* acceptFrom, int preference) {
  Log log("KvSenders", "KVsetSenders", __FILE__, __LINE__, 13);
  accepted_.clear();
  kvHost_ = kvHost ? kvHost : "";
  limited_ = true;
  addHost(kvHost_, preference);  // a KV host that does not resolve fails the registration anyway
  bool loopbackKv = false;
  for (const Sender& a : accepted_) loopbackKv = loopbackKv || isLoopback(a);
  if (loopbackKv) {
    addHost("127.0.0.1", preference);
    addHost("::1", preference);
  }

  std::string list = acceptFrom ? acceptFrom : "";
  for (size_t start = 0; start <= list.size();) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    std::string host = trimmed(list.substr(start, comma - start));
    start = comma + 1;
    if (host.empty()) continue;
    if (strcasecmp(host.c_str(), "any") == 0) {
      limited_ = false;
    } else if (!addHost(host, preference)) {
      log.msg(__LINE__, 2, "KV_ACCEPT_FROM: cannot resolve '%s'; calls from it are refused",
              host.c_str());
    }
  }

  if (!limited_) {
    log.msg(__LINE__, 3, "KV_ACCEPT_FROM=any: calls from every host are carried out");
    return;
  }
  std::string text;
  char address[INET6_ADDRSTRLEN + 16];
  for (const Sender& a : accepted_) {
    sockaddr_storage ss{};
    if (a.family == AF_INET) {
      auto* v4 = reinterpret_cast<sockaddr_in*>(&ss);
      v4->sin_family = AF_INET;
      memcpy(&v4->sin_addr, a.bytes, 4);
    } else {
      auto* v6 = reinterpret_cast<sockaddr_in6*>(&ss);
      v6->sin6_family = AF_INET6;
      memcpy(&v6->sin6_addr, a.bytes, 16);
    }
    text += std::string(text.empty() ? "" : " ") +
            addressText(reinterpret_cast<sockaddr*>(&ss), 0, address, sizeof address);
  }
  log.msg(__LINE__, 9, "calls accepted from %s", text.c_str());
}

bool KvSenders::accepted(const sockaddr* addr, socklen_t len) const {
  if (!limited_) return true;
  if (addr == nullptr || len < static_cast<socklen_t>(sizeof(sa_family_t))) return false;
  Sender from = senderOf(addr);
  for (const Sender& a : accepted_) {
    if (same(a, from)) return true;
  }
  return false;
}

bool KvSenders::check(const sockaddr* from, socklen_t len) {
  if (accepted(from, len)) return true;
  Log log("KvSenders", "ToolSenderCheck", __FILE__, __LINE__, 13);
  int suppressed = 0;
  if (refusals_.admit(&suppressed)) {
    char text[INET6_ADDRSTRLEN + 16];
    log.msg(__LINE__, 3,
            "call from %s ignored: only the KV ('%s') may call; KV_ACCEPT_FROM adds senders",
            addressText(from, 1, text, sizeof text), kvHost_.c_str());
    if (suppressed > 0) {
      log.msg(__LINE__, 3, "calls from other hosts than the KV ... suppressed %d times",
              suppressed);
    }
  }
  return false;
}

int ToolSenderCheck(SVCXPRT* xprt) {
  auto* senders = static_cast<KvSenders*>(xprt->xp_check_context);
  if (senders == nullptr) return 1;
  return senders->check(reinterpret_cast<const sockaddr*>(&xprt->xp_raddr), xprt->xp_addrlen)
             ? 1
             : 0;
}
