#include "kvrpc/HostIdent.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "testing/MapEnvironment.h"

namespace {

TEST(HostIdentTest, ShortHostNameCutsAtTheFirstDotAndLowersAscii) {
  const struct {
    const char* full;
    const char* expected;
  } cases[] = {
      {"Node7.Example.Org", "node7"},  {"HOST", "host"}, {"a.b.c", "a"}, {"", ""}, {".lead", ""},
      {"Mixed_9-Name", "mixed_9-name"}};
  for (const auto& c : cases) {
    char buf[300];
    shortHostName(c.full, buf, sizeof buf);
    EXPECT_STREQ(buf, c.expected) << c.full;
  }
  char small[4];
  shortHostName("ABCDEFG", small, sizeof small);
  EXPECT_STREQ(small, "abc");
}

// The own address comes from the first of the configured name, the system
// host name and KVHOST that resolves.
TEST(HostIdentTest, HostNameAndAddressComeFromTheSettingsOrTheSystem) {
  char system[257] = "";
  ASSERT_EQ(gethostname(system, 256), 0);
  char shortName[257];
  shortHostName(system, shortName, sizeof shortName);
  const struct {
    const char* myHostName;  // null: unset
    const char* myhostname;
    std::string expected;
  } cases[] = {
      {"localhost", "other", "localhost"},
      {"", "localhost", "localhost"},
      {nullptr, nullptr, shortName},
      {"[::1", nullptr, "[::1"},  // cannot resolve: the address comes from another name
  };
  for (const auto& c : cases) {
    MapEnvironment env{{"KVHOST", "127.0.0.1"}};
    if (c.myHostName) env.set("MY_HOST_NAME", c.myHostName);
    if (c.myhostname) env.set("MYHOSTNAME", c.myhostname);
    HostIdent host(env);
    EXPECT_EQ(host.name(), c.expected);
    EXPECT_STREQ(host.fullName(), system);
    EXPECT_FALSE(host.addresses().empty()) << c.expected;
  }
}

}  // namespace
