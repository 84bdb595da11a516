// Who may call: the KV host's addresses, loopback for a loopback KV, the
// hosts of KV_ACCEPT_FROM, or everyone with "any". Numeric names only, so
// that no resolver is asked.
#include "kvrpc/KvSenders.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <sstream>
#include <string>

namespace {

// Whether a call from the numeric address (IPv4 or IPv6) is carried out.
bool accepted(const KvSenders& senders, const std::string& address) {
  sockaddr_in6 v6{};
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v6.sin6_family = AF_INET6;
  if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
    return senders.accepted(reinterpret_cast<sockaddr*>(&v4), sizeof v4);
  }
  EXPECT_EQ(inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr), 1) << address;
  return senders.accepted(reinterpret_cast<sockaddr*>(&v6), sizeof v6);
}

TEST(KvSendersTest, OnlyTheKvAndTheNamedHostsMayCall) {
  const struct {
    const char* kvHost;
    const char* acceptFrom;  // null: unset
    const char* in;          // addresses that may call
    const char* out;         // and some that may not
  } cases[] = {
      {"192.0.2.1", nullptr, "192.0.2.1 ::ffff:192.0.2.1", "192.0.2.2 127.0.0.1 ::1"},
      // A loopback KV may send from either loopback address, but no other.
      {"127.0.0.5", nullptr, "127.0.0.5 127.0.0.1 ::1", "127.0.0.2 192.0.2.1"},
      {"::1", nullptr, "::1 127.0.0.1", "::2 10.0.0.1"},
      {"192.0.2.1", " 198.51.100.7 ,2001:db8::9,", "192.0.2.1 198.51.100.7 2001:db8::9",
       "198.51.100.8 2001:db8::8"},
      {"192.0.2.1", "198.51.100.7,AnY", "203.0.113.1 2001:db8::1 127.0.0.1", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.kvHost) + " / " + (c.acceptFrom ? c.acceptFrom : "unset"));
    KvSenders senders;
    senders.set(c.kvHost, c.acceptFrom, 0);
    for (bool expected : {true, false}) {
      std::istringstream list(expected ? c.in : c.out);
      for (std::string address; list >> address;) {
        EXPECT_EQ(accepted(senders, address), expected) << address;
      }
    }
  }
  // A sender address too short to hold its family is no sender.
  KvSenders senders;
  senders.set("192.0.2.1", nullptr, 0);
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  EXPECT_FALSE(senders.accepted(reinterpret_cast<sockaddr*>(&v4), 1));
}

}  // namespace
