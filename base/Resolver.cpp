#include "base/Resolver.h"

#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Log.h"
#include "base/Owners.h"

namespace {

bool isLinkLocalV6(const HostAddress& a) {
  if (a.family() != AF_INET6) return false;
  const auto* s6 = reinterpret_cast<const sockaddr_in6*>(&a.addr);
  return s6->sin6_addr.s6_addr[0] == 0xFE && s6->sin6_addr.s6_addr[1] == 0x80;
}

socklen_t sockaddrLength(const sockaddr* addr) {
  return addr->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

}  // namespace

void HostAddress::setPort(uint16_t port) {
  if (family() == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port = htons(port);
  } else if (family() == AF_INET) {
    reinterpret_cast<sockaddr_in*>(&addr)->sin_port = htons(port);
  }
}

int hostPreference(const Environment& env) {
  const char* v = env.get("QR_PREF_IP");
  if (v != nullptr && strcmp(v, "4") == 0) return 4;
  if (v != nullptr && strcmp(v, "6") == 0) return 6;
  return 0;
}

void orderHostAddresses(HostAddressList* list, int preference) {
  if (preference == 4 || preference == 6) {
    int family = preference == 4 ? AF_INET : AF_INET6;
    std::stable_partition(list->begin(), list->end(),
                          [family](const HostAddress& a) { return a.family() == family; });
  }
  if (list->empty() || !isLinkLocalV6(list->front())) return;
  auto global = std::find_if(list->begin() + 1, list->end(), [](const HostAddress& a) {
    return a.family() == AF_INET6 && !isLinkLocalV6(a);
  });
  // A routable IPv6 address is the one a peer can call back; rotate it to the front.
  if (global != list->end()) std::rotate(list->begin(), global, global + 1);
}

int resolveHost(const char* name, int preference, HostAddressList* list) {
  Log log("Resolver", "resolveHost", __FILE__, __LINE__, 13);
  list->clear();
  if (name == nullptr || *name == '\0') return EAI_NONAME;

  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;  // one entry per address, not one per socket type
  std::string host = name;
  const char* close = strchr(name, ']');
  if (name[0] == '[' && close != nullptr) {
    host.assign(name + 1, close);
    hints.ai_family = AF_INET6;
    hints.ai_flags = AI_NUMERICHOST;
  } else {
    hints.ai_family = AF_UNSPEC;
  }
  addrinfo* raw = nullptr;
  int rc = getaddrinfo(host.c_str(), nullptr, &hints, &raw);
  AddrInfoPtr result(raw);
  if (rc != 0) {
    log.msg(__LINE__, 10, "getaddrinfo(%s): %s", host.c_str(), gai_strerror(rc));
    return rc;
  }
  for (addrinfo* ai = result.get(); ai != nullptr; ai = ai->ai_next) {
    if ((ai->ai_family != AF_INET && ai->ai_family != AF_INET6) ||
        ai->ai_addrlen > sizeof(sockaddr_storage)) {
      continue;
    }
    HostAddress a{};
    memcpy(&a.addr, ai->ai_addr, ai->ai_addrlen);
    a.len = ai->ai_addrlen;
    list->push_back(a);
  }
  if (list->empty()) return EAI_NONAME;
  orderHostAddresses(list, preference);
  return 0;
}

char* addressText(const sockaddr* addr, int withPort, char* buf, size_t size) {
  if (size == 0) return buf;
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  int rc = getnameinfo(addr, sockaddrLength(addr), host, sizeof host, port, sizeof port,
                       NI_NUMERICHOST | NI_NUMERICSERV);
  if (rc != 0) {
    snprintf(buf, size, "IP address");
    return buf;
  }
  int n = addr->sa_family == AF_INET6 ? snprintf(buf, size, "[%s]", host)
                                      : snprintf(buf, size, "%s", host);
  if (withPort && n >= 0 && static_cast<size_t>(n) < size) {
    snprintf(buf + n, size - n, ":%s", port);
  }
  return buf;
}
