#include "kvrpc/HostIdent.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "testing/KvPeers.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

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

// MY_HOST_NAME and the own addresses are computed once per process, so each
// case runs in a fresh kvprobe. The own address comes from the first of the
// configured name, the system host name and KVHOST that resolves.
TEST(HostIdentTest, HostNameAndAddressComeFromTheEnvironmentOrTheSystem) {
  char system[257] = "";
  ASSERT_EQ(gethostname(system, 256), 0);
  char shortName[257];
  shortHostName(system, shortName, sizeof shortName);
  const struct {
    const char* myHostName;
    const char* myhostname;
    std::string expected;
  } cases[] = {
      {"localhost", "other", "localhost"},
      {"", "localhost", "localhost"},
      {kUnset, kUnset, shortName},
      {"[::1", kUnset, "[::1"},  // cannot resolve: the address comes from another name
  };
  for (const auto& c : cases) {
    ChildOptions o;
    o.env = {{"MY_HOST_NAME", c.myHostName}, {"MYHOSTNAME", c.myhostname}, {"KVHOST", "127.0.0.1"}};
    ChildResult r = runChild({kvprobePath(), "myname"}, o);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "myname " + c.expected);
    EXPECT_TRUE(contains(r.out, "\nmyaddr ")) << r.out;
  }
}

}  // namespace
