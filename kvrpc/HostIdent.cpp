#include "kvrpc/HostIdent.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Log.h"

void shortHostName(const char* fullName, char* buf, size_t size) {
  if (size == 0) return;
  size_t i = 0;
  for (; fullName[i] != '\0' && fullName[i] != '.' && i + 1 < size; ++i) {
    char c = fullName[i];
    buf[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  buf[i] = '\0';
}

void HostIdent::readNames() {
  if (known_) return;
  if (gethostname(full_, kHostNameSize) != 0) full_[0] = '\0';
  full_[kHostNameSize] = '\0';
  shortHostName(full_, short_, sizeof short_);
  const char* configured = env_.get("MY_HOST_NAME");
  if (configured == nullptr || *configured == '\0') configured = env_.get("MYHOSTNAME");
  configured_ = configured ? configured : "";
  known_ = true;
}

const char* HostIdent::name() {
  Log log("HostIdent", "MY_HOST_NAME", __FILE__, __LINE__, 13);
  readNames();
  return configured_.empty() ? short_ : configured_.c_str();
}

const char* HostIdent::fullName() {
  readNames();
  return full_;
}

const HostAddressList& HostIdent::addresses() {
  Log log("HostIdent", "getMyInetAddr", __FILE__, __LINE__, 13);
  if (!mine_.empty()) return mine_;
  const char* myName = name();
  const char* kvHost = env_.get("KVHOST");
  const char* candidates[] = {myName, full_, short_, kvHost ? kvHost : ""};
  const int preference = hostPreference(env_);
  int err = 0;
  bool found = false;
  for (const char* candidate : candidates) {
    errno = 0;
    if (resolveHost(candidate, preference, &mine_) == 0) {
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
    mine_.clear();
    return mine_;  // empty: asked again next time
  }
  char text[INET6_ADDRSTRLEN + 16];
  for (const HostAddress& a : mine_) {
    log.msg(__LINE__, 8, "myInetAddr=%s", addressText(a.sa(), 0, text, sizeof text));
  }
  return mine_;
}
