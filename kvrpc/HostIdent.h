// HostIdent: who this host is.
//
// The tool tells the KV where its callback service can be reached, so it needs
// its own host name and address. A HostIdent reads them from the settings it
// is given (MY_HOST_NAME, MYHOSTNAME, KVHOST, QR_PREF_IP) and the system on
// first use and keeps them: the KV client owns one and hands it to whoever
// needs the host's names. The settings are read late, so that the setup
// packages stored before the first registration count. Not thread-safe; the
// worker uses it from its main thread only.
#ifndef KVRPC_HOSTIDENT_H_
#define KVRPC_HOSTIDENT_H_

#include <cstddef>
#include <string>

#include "base/Environment.h"
#include "base/Resolver.h"

// The full host name cut at its first '.', letters A-Z lower-cased.
void shortHostName(const char* fullName, char* buf, size_t size);

class HostIdent {
 public:
  // env: borrowed, must outlive the object.
  explicit HostIdent(const Environment& env) : env_(env) {}
  HostIdent(const HostIdent&) = delete;
  HostIdent& operator=(const HostIdent&) = delete;

  // The configured host name (MY_HOST_NAME, else MYHOSTNAME) when not empty,
  // else the system host name cut at its first '.' and lower-cased (ASCII).
  // The pointer stays valid as long as the object.
  const char* name();

  // The system host name as the system gives it (at most 256 characters).
  const char* fullName();

  // The own address list: the first of name(), the full host name, the short
  // host name and KVHOST that resolves. When none does, logs at level 1 and
  // returns an empty list (and tries again on the next call).
  const HostAddressList& addresses();

 private:
  static constexpr size_t kHostNameSize = 256;

  void readNames();

  const Environment& env_;
  bool known_ = false;
  char full_[kHostNameSize + 1] = "";
  char short_[kHostNameSize + 1] = "";
  std::string configured_;
  HostAddressList mine_;
};

#endif  // KVRPC_HOSTIDENT_H_
