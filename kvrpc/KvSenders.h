// KvSenders: who may call the tool's callback service.
//
// Work orders and control messages (one of which ends the worker) are
// carried out only when they come from the KV: from an address that the KV
// host resolves to. KV_ACCEPT_FROM=<host>[,<host>...] adds the addresses of
// more hosts; KV_ACCEPT_FROM=any lets everyone call. Calls from elsewhere are
// dropped without a reply and logged at level 3 (a few lines a minute, then
// a "... suppressed N times" line).
//
// A KV on a loopback address may send from 127.0.0.1 or ::1 whatever address
// its host name has (the system picks those as the source), so with a
// loopback KV address both count as the KV's. That lets in no one new: every
// local process can send from the KV's loopback address anyway.
//
// The KV client (KVclient.h) owns the set and makes it at registration
// (KVconnect); before that, and in simulation, every caller is served. Main
// thread only.
#ifndef KVRPC_KVSENDERS_H_
#define KVRPC_KVSENDERS_H_

#include <sys/socket.h>

#include <string>
#include <vector>

#include "base/RateLimit.h"

struct SVCXPRT;

// An address without its port, IPv4 as 4 bytes, IPv6 as 16.
struct KvSenderAddress {
  int family;
  unsigned char bytes[16];
};

class KvSenders {
 public:
  KvSenders() = default;
  KvSenders(const KvSenders&) = delete;
  KvSenders& operator=(const KvSenders&) = delete;

  // Makes the set from the KV host (as resolved now) and acceptFrom, the
  // value of KV_ACCEPT_FROM (null: unset), resolved with the family
  // preference (base/Resolver.h). Names that do not resolve are logged at
  // level 2 and left out.
  void set(const char* kvHost, const char* acceptFrom, int preference);

  // True when a call from addr is to be carried out.
  bool accepted(const sockaddr* addr, socklen_t len) const;

  // accepted() for the caller of a request; logs the calls it refuses.
  bool check(const sockaddr* from, socklen_t len);

 private:
  void add(const KvSenderAddress& s);
  // Adds every address of host; false when it does not resolve.
  bool addHost(const std::string& host, int preference);

  bool limited_ = false;  // false: everyone may call
  std::string kvHost_;
  std::vector<KvSenderAddress> accepted_;
  RateLimit refusals_{5, 60};  // anyone can send datagrams: a few lines a minute
};

// The check of the tool service's transports (rpc/Svc.h): KvSenders::check
// of the transport's check context on the caller of the current request.
int ToolSenderCheck(SVCXPRT* xprt);

#endif  // KVRPC_KVSENDERS_H_
