#include "kvrpc/HostIdent.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/Environment.h"
#include "base/Log.h"

namespace {

constexpr size_t kHostNameSize = 256;

struct HostNames {
  bool known = false;
  char full[kHostNameSize + 1] = "";
  char shortName[kHostNameSize + 1] = "";
  std::string configured;
};

// The host's names are facts of the process, read once; callers keep the
// pointers MY_HOST_NAME and myFullHostName return.
HostNames& names() {
  static HostNames n;
  return n;
}

}  // namespace

void shortHostName(const char* fullName, char* buf, size_t size) {
  if (size == 0) return;
  size_t i = 0;
  for (; fullName[i] != '\0' && fullName[i] != '.' && i + 1 < size; ++i) {
    char c = fullName[i];
    buf[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  buf[i] = '\0';
}

const char* MY_HOST_NAME() {
  Log log("HostIdent", "MY_HOST_NAME", __FILE__, __LINE__, 13);
  HostNames& n = names();
  if (!n.known) {
    if (gethostname(n.full, kHostNameSize) != 0) n.full[0] = '\0';
    n.full[kHostNameSize] = '\0';
    shortHostName(n.full, n.shortName, sizeof n.shortName);
    const char* configured = getenv("MY_HOST_NAME");
    if (configured == nullptr || *configured == '\0') configured = getenv("MYHOSTNAME");
    n.configured = configured ? configured : "";
    n.known = true;
  }
  return n.configured.empty() ? n.shortName : n.configured.c_str();
}

const char* myFullHostName() {
  MY_HOST_NAME();
  return names().full;
}

const HostAddressList& getMyInetAddr() {
  Log log("HostIdent", "getMyInetAddr", __FILE__, __LINE__, 13);
  // Kept for the process, like the names; the caller holds a reference.
  static HostAddressList mine;
  if (!mine.empty()) return mine;
  const char* myName = MY_HOST_NAME();
  const HostNames& n = names();
  const char* kvHost = getenv("KVHOST");
  const char* candidates[] = {myName, n.full, n.shortName, kvHost ? kvHost : ""};
  int err = 0;
  bool found = false;
  for (const char* candidate : candidates) {
    errno = 0;
    if (resolveHost(candidate, hostPreference(Environment::process()), &mine) == 0) {
      found = true;
      break;
    }
    if (errno != 0) err = errno;
  }
  if (!found) {
    log.msg(__LINE__, 1, "could not resolve address of %s, errno=%d", myName, err);
    log.msgc(
        "set MY_HOST_NAME to a name or address of this host that resolves and that the "
        "KV can reach");
    return mine;  // empty: asked again next time
  }
  char text[INET6_ADDRSTRLEN + 16];
  for (const HostAddress& a : mine) {
    log.msg(__LINE__, 8, "myInetAddr=%s", addressText(a.sa(), 0, text, sizeof text));
  }
  return mine;
}

