#include "tstl/CAsn1bitString.h"

#include <gtest/gtest.h>

#include "testing/DerTest.h"

using testing_support::derHex;
using testing_support::setDerHex;

TEST(CAsn1bitString, PacksEntriesInReversedOrder) {
  CAsn1bitString three(3);
  three.setBit(0, 1);  // entry 0 is the last used bit
  EXPECT_EQ(derHex(three), "03 02 05 20");
  CAsn1bitString nine(9);
  nine.setBit(8, 1);  // the last entry is bit 7 of the first octet
  nine.setBit(0, 1);
  EXPECT_EQ(derHex(nine), "03 03 07 80 80");
  CAsn1bitString eight(8);
  eight.setBit(7, 1);
  EXPECT_EQ(derHex(eight), "03 02 00 80");
  CAsn1bitString none;
  EXPECT_EQ(derHex(none), "03 00");
}

TEST(CAsn1bitString, DecodingUndoesTheOrder) {
  CAsn1bitString bits;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(bits, "03 02 05 20 ff", &pos), 0);
  EXPECT_EQ(pos, 4u);
  ASSERT_EQ(bits.bitCount(), 3u);
  EXPECT_EQ(bits.getBit(0), 1);
  EXPECT_EQ(bits.getBit(1), 0);
  EXPECT_EQ(bits.getBit(2), 0);
  EXPECT_EQ(bits.countSet(), 1u);
  EXPECT_EQ(derHex(bits), "03 02 05 20");

  ASSERT_EQ(setDerHex(bits, "03 00"), 0);
  EXPECT_EQ(bits.bitCount(), 0u);

  // The count is length * 8 - 8 - unused, also for an unused-bits octet above 7.
  ASSERT_EQ(setDerHex(bits, "03 03 09 80 00"), 0);
  ASSERT_EQ(bits.bitCount(), 7u);
  EXPECT_EQ(bits.getBit(6), 1);
  EXPECT_EQ(bits.countSet(), 1u);
  ASSERT_EQ(setDerHex(bits, "03 02 08 ff"), 0);
  EXPECT_EQ(bits.bitCount(), 0u);
}

TEST(CAsn1bitString, RefusesBadInput) {
  for (const char* hex : {"04 02 05 20", "03 03 05 20", "03 02 09 00", "03 01 01", "03", ""}) {
    CAsn1bitString bits;
    EXPECT_EQ(setDerHex(bits, hex), -1) << hex;
  }
}
