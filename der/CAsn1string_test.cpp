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

TEST(CAsn1string, GetValChecksTheDestinationSize) {
  LogCapture log;
  Log::setLevel(9, 1);
  CAsn1string s(0x04, kAbc, 3);
  unsigned char dest[4] = {9, 9, 9, 9};
  unsigned int size = 2;
  s.getVal(dest, &size);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(dest[0], 0);
  EXPECT_TRUE(log.contains("destination too small: 2 < 3"));
  size = 4;
  s.getVal(dest, &size);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(dest[2], 'c');
  EXPECT_EQ(dest[3], 9);  // no terminator added

  unsigned char part[3] = {0, 0, 0};
  EXPECT_EQ(s.getVal(part, 1, 2), 0);
  EXPECT_EQ(part[0], 'b');
  EXPECT_EQ(s.getVal(part, 1, 0), 0);  // count 0: to the end
  EXPECT_EQ(part[1], 'c');
  EXPECT_EQ(s.getVal(part, 2, 2), -1);
  Log::setLevel(9, 0);
}

// comp orders by length, then by unsigned bytes; getInteger reads up to four
// bytes unsigned; logText shows the tag, the length and eight bytes.
TEST(CAsn1string, CompareGetIntegerAndLogText) {
  const unsigned char lo[] = {0x01, 0x7F}, hi[] = {0x01, 0x80}, one[] = {0xFF};
  CAsn1string a(0x04, lo, 2), b(0x04, hi, 2), c(0x04, one, 1), a2(0x13, lo, 2);
  EXPECT_EQ(a.comp(b), -1);
  EXPECT_EQ(b.comp(a), 1);
  EXPECT_EQ(c.comp(a), -1);
  EXPECT_EQ(a.comp(c), 1);
  EXPECT_EQ(a.comp(a2), 0);
  const unsigned char five[] = {1, 2, 3, 4, 5}, four[] = {0x01, 0x02, 0x03, 0x04};
  EXPECT_EQ(c.getInteger(), 255);
  EXPECT_EQ(CAsn1string(0x02, four, 4).getInteger(), 0x01020304);
  EXPECT_EQ(CAsn1string(0x02, five, 5).getInteger(), 0);
  EXPECT_EQ(CAsn1string(0x02).getInteger(), 0);
  // Only printable ASCII is shown as it is: DEL is a dot too.
  CAsn1string s(0x04, reinterpret_cast<const unsigned char*>("012345\177789"), 10);
  EXPECT_EQ(s.logText(), "STRING[4](10 bytes) 30 31 32 33 34 35 7F 37:012345.7");
}
