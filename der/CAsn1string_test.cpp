#include "der/CAsn1string.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"

using namespace testing_support;

namespace {
const unsigned char kAbc[] = {'a', 'b', 'c'};
}

// Written with the caller's tag; read with any tag, the bytes copied.
// Truncations: Der_test.
TEST(CAsn1string, EncodesWithTheCallersTagAndDecodesAnyTag) {
  CAsn1string octets(0x04, kAbc, 3), printable(0x13, kAbc, 3), empty(0x05);
  EXPECT_EQ(derHex(octets), "04 03 61 62 63");
  EXPECT_EQ(derHex(printable), "13 03 61 62 63");
  EXPECT_EQ(derHex(empty), "05 00");
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(octets, "0c 02 68 69 ff", &pos), 0);
  EXPECT_EQ(octets.tag(), 0x0C);
  ASSERT_EQ(octets.length(), 2u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(octets.data())), "hi");  // NUL kept after
  EXPECT_EQ(pos, 4u);
}

TEST(CAsn1string, LogTextShowsTagLengthAndEightBytes) {
  // Only printable ASCII is shown as it is: DEL is a dot too.
  CAsn1string s(0x04, reinterpret_cast<const unsigned char*>("012345\177789"), 10);
  EXPECT_EQ(s.logText(), "STRING[4](10 bytes) 30 31 32 33 34 35 7F 37:012345.7");
}
