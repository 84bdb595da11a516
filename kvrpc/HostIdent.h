// HostIdent: who this host is and how host names become addresses.
//
// The tool tells the KV where its callback service can be reached, so it needs
// its own host name and address. The host name and the own address list are
// computed once per process and kept; the resolver's family preference
// (QR_PREF_IP, 4 or 6) is read on its first call. Not thread-safe on the first
// call; the worker calls these from its main thread only.
#ifndef KVRPC_HOSTIDENT_H_
#define KVRPC_HOSTIDENT_H_

#include <sys/socket.h>

#include <cstddef>
#include <vector>

// One resolved address (IPv4 or IPv6) with its port.
struct HostAddress {
  sockaddr_storage addr;
  socklen_t len;

  int family() const { return addr.ss_family; }
  const sockaddr* sa() const { return reinterpret_cast<const sockaddr*>(&addr); }
};
using HostAddressList = std::vector<HostAddress>;

// The configured host name (MY_HOST_NAME, else MYHOSTNAME) when not empty,
// else the system host name cut at its first '.' and lower-cased (ASCII).
const char* MY_HOST_NAME();

// The system host name as the system gives it (at most 256 characters).
const char* myFullHostName();

// The full host name cut at its first '.', letters A-Z lower-cased.
void shortHostName(const char* fullName, char* buf, size_t size);

// The own address list: the first of MY_HOST_NAME(), the full host name, the
// short host name and $KVHOST that resolves. When none does, logs at level 1
// and ends the process with exit status 1.
const HostAddressList& getMyInetAddr();

// Resolves name into a non-empty address list ordered by the family preference
// and the link-local rule (see orderHostAddresses). "[v6]" is a numeric IPv6
// address. Returns 0, or a getaddrinfo error code (EAI_NONAME for an empty or
// null name).
int resolveHost(const char* name, HostAddressList* list);

// The preferred family of QR_PREF_IP: 4, 6, or 0 for none. Read once.
int hostPreference();

// Puts the addresses of the preferred family (4 or 6; anything else: no
// change) first, keeping relative orders; then, when the first address is a
// link-local IPv6 one (fe80::/16 by its first two bytes), moves the first
// later IPv6 address that is not link-local to the front.
void orderHostAddresses(HostAddressList* list, int preference);

// Writes the numeric host of addr ("[v6]" in brackets) and, with withPort,
// ":port" into buf. A host the system cannot render is written as
// "IP address". Returns buf.
char* addressText(const sockaddr* addr, int withPort, char* buf, size_t size);

#endif  // KVRPC_HOSTIDENT_H_
