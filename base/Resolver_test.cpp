#include "base/Resolver.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <string>
#include <vector>

#include "testing/MapEnvironment.h"

namespace {

// The numeric address text (IPv6 without brackets) with port.
HostAddress address(const std::string& text, uint16_t port = 0) {
  HostAddressList list;
  const bool v6 = text.find(':') != std::string::npos;
  EXPECT_EQ(resolveHost((v6 ? "[" + text + "]" : text).c_str(), 0, &list), 0) << text;
  HostAddress a = list.empty() ? HostAddress{} : list[0];
  a.setPort(port);
  return a;
}

std::string text(const HostAddress& a, int withPort = 0) {
  char buf[80];
  return addressText(a.sa(), withPort, buf, sizeof buf);
}

std::string texts(const HostAddressList& list) {
  std::string out;
  for (const auto& a : list) out += (out.empty() ? "" : " ") + text(a);
  return out;
}

TEST(ResolverTest, OrderPutsThePreferredFamilyFirstAndAvoidsLinkLocal) {
  const struct {
    std::vector<std::string> in;
    int preference;
    std::string expected;
  } cases[] = {
      {{"10.0.0.1", "2001:db8::1", "10.0.0.2", "2001:db8::2"},
       6,
       "[2001:db8::1] [2001:db8::2] 10.0.0.1 10.0.0.2"},
      {{"2001:db8::1", "10.0.0.1", "2001:db8::2", "10.0.0.2"},
       4,
       "10.0.0.1 10.0.0.2 [2001:db8::1] [2001:db8::2]"},
      {{"10.0.0.1", "2001:db8::1"}, 5, "10.0.0.1 [2001:db8::1]"},
      {{"fe80::1", "2001:db8::1"}, 0, "[2001:db8::1] [fe80::1]"},
      // Only the first routable IPv6 address moves; IPv4 ones are not considered.
      {{"fe80::1", "10.0.0.1", "fe80::2", "2001:db8::7", "2001:db8::8"},
       0,
       "[2001:db8::7] [fe80::1] 10.0.0.1 [fe80::2] [2001:db8::8]"},
      {{"fe80::1", "10.0.0.1"}, 0, "[fe80::1] 10.0.0.1"},
      // The preference first, then the link-local rule on the new first address.
      {{"10.0.0.1", "fe80::1", "2001:db8::1"}, 6, "[2001:db8::1] [fe80::1] 10.0.0.1"},
  };
  for (const auto& c : cases) {
    HostAddressList list;
    for (const auto& t : c.in) list.push_back(address(t));
    orderHostAddresses(&list, c.preference);
    EXPECT_EQ(texts(list), c.expected);
  }
}

TEST(ResolverTest, OnlyFourOrSixIsAPreference) {
  for (auto [value, preference] : {std::pair{"4", 4}, {"6", 6}, {"64", 0}, {"", 0}}) {
    EXPECT_EQ(hostPreference(MapEnvironment{{"QR_PREF_IP", value}}), preference) << value;
  }
  EXPECT_EQ(hostPreference(MapEnvironment{}), 0);
}

TEST(ResolverTest, ResolverTakesBracketsAsNumericIpv6) {
  HostAddressList list;
  ASSERT_EQ(resolveHost("[::1]", 0, &list), 0);
  EXPECT_EQ(texts(list), "[::1]");
  EXPECT_EQ(list[0].family(), AF_INET6);

  EXPECT_NE(resolveHost("[::1", 0, &list), 0);         // an ordinary name, and no such host
  EXPECT_NE(resolveHost("[127.0.0.1]", 0, &list), 0);  // brackets mean IPv6 only
  EXPECT_EQ(resolveHost("", 0, &list), EAI_NONAME);
  EXPECT_EQ(resolveHost(nullptr, 0, &list), EAI_NONAME);
  EXPECT_TRUE(list.empty());

  ASSERT_EQ(resolveHost("127.0.0.1", 0, &list), 0);
  EXPECT_EQ(texts(list), "127.0.0.1");
  ASSERT_EQ(resolveHost("localhost", 0, &list), 0);
  ASSERT_FALSE(list.empty());
  for (size_t i = 1; i < list.size(); ++i) EXPECT_NE(text(list[i]), text(list[0]));
}

TEST(ResolverTest, AddressTextIsNumericWithBracketsForIpv6) {
  EXPECT_EQ(text(address("127.0.0.1", 4032), 1), "127.0.0.1:4032");
  EXPECT_EQ(text(address("127.0.0.1", 4032), 0), "127.0.0.1");
  EXPECT_EQ(text(address("2001:db8::5", 80), 1), "[2001:db8::5]:80");
  EXPECT_EQ(text(address("::1")), "[::1]");
  HostAddress unknown{};
  unknown.addr.ss_family = 99;  // no family the system can render
  EXPECT_EQ(text(unknown, 1), "IP address");
  char tiny[6];
  addressText(address("127.0.0.1", 4032).sa(), 1, tiny, sizeof tiny);
  EXPECT_STREQ(tiny, "127.0");
}

}  // namespace
