#include "base/ServiceNotify.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "testing/TempDir.h"
#include "testing/UnixDatagram.h"

namespace {

using namespace testing_support;

TEST(ServiceNotifyTest, TellsTheManagerAtNotifySocketAndNothingWithoutOne) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(service::notifyReady());
  TempDir dir;
  UnixDatagram manager(dir.file("notify"));
  ASSERT_TRUE(manager.bound());
  setenv("NOTIFY_SOCKET", dir.file("notify").c_str(), 1);
  EXPECT_TRUE(service::notifyReady());
  EXPECT_EQ(manager.receive(), "READY=1");
  EXPECT_TRUE(service::notifyStatus("3 documents done, 1 failed"));
  EXPECT_EQ(manager.receive(), "STATUS=3 documents done, 1 failed");
  unsetenv("NOTIFY_SOCKET");
}

}  // namespace
