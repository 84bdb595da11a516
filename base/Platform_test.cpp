#include "base/Platform.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "base/SystemError.h"

namespace {

TEST(PlatformTest, SocketStartupMessages) {
  struct Case {
    int err, gotMajor, gotMinor;
    int result;
    const char* text;
  } cases[] = {
      {0, 2, 0, 0, ""},
      {10091, 0, 0, 10091, "could not WSAStartup, err = 10091"},
      // The granted version is printed high byte (minor) first.
      {0, 2, 1, 0, "Version mismatch in ws2_32.dll\nwanted 2.0, got 1.2\n"},
  };
  for (const Case& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(reportSocketStartup(c.err, 2, 0, c.gotMajor, c.gotMinor), c.result);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.text);
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(startSockets(2, 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(PlatformTest, HostNameFitsTheProtocolField) {
  String host = localHostName();
  EXPECT_FALSE(host.empty());
  EXPECT_LT(host.length(), 32u);
}

TEST(SystemErrorTest, KnownAndUnknownCodes) {
  EXPECT_EQ(systemError(ENOENT).str(), "No such file or directory");
  EXPECT_EQ(systemError(EACCES).str(), "Permission denied");
  EXPECT_EQ(systemError(99999).str(), "Unknown error 99999.");
  EXPECT_EQ(systemError(-3).str(), "Unknown error -3.");
}

}  // namespace
