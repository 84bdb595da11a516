// Resolver: host names to addresses, in the order the worker should try them.
//
// "[v6]" is a numeric IPv6 address; the address family preference comes from
// QR_PREF_IP (4 or 6) of the caller's settings; a link-local IPv6 address
// gives way at the front to a routable one, since only that one can be
// called back. Used for the KV, the own address and the Timestamp Servers.
#ifndef BASE_RESOLVER_H_
#define BASE_RESOLVER_H_

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Environment.h"

// One resolved address (IPv4 or IPv6) with its port.
struct HostAddress {
  sockaddr_storage addr;
  socklen_t len;

  int family() const { return addr.ss_family; }
  const sockaddr* sa() const { return reinterpret_cast<const sockaddr*>(&addr); }
  // Sets the port (host order) of an IPv4 or IPv6 address.
  void setPort(uint16_t port);
};
using HostAddressList = std::vector<HostAddress>;

// Resolves name into a non-empty address list ordered by the family
// preference (4, 6 or 0, see hostPreference) and the link-local rule (see
// orderHostAddresses). "[v6]" is a numeric IPv6 address. Returns 0, or a
// getaddrinfo error code (EAI_NONAME for an empty or null name).
int resolveHost(const char* name, int preference, HostAddressList* list);

// The preferred family that QR_PREF_IP in env names: 4, 6, or 0 for none.
int hostPreference(const Environment& env);

// Puts the addresses of the preferred family (4 or 6; anything else: no
// change) first, keeping relative orders; then, when the first address is a
// link-local IPv6 one (fe80::/16 by its first two bytes), moves the first
// later IPv6 address that is not link-local to the front.
void orderHostAddresses(HostAddressList* list, int preference);

// Writes the numeric host of addr ("[v6]" in brackets) and, with withPort,
// ":port" into buf. A host the system cannot render is written as
// "IP address". Returns buf.
char* addressText(const sockaddr* addr, int withPort, char* buf, size_t size);

#endif  // BASE_RESOLVER_H_
