#include "der/CAsn1bitString.h"

#include <gtest/gtest.h>

#include <set>

#include "testing/DerTest.h"

using namespace testing_support;

// Entry 0 is the last used bit, the last entry bit 7 of the first octet;
// the count read is length * 8 - 8 - unused, also for an unused-bits octet
// above 7. Refusals: Der_test.
TEST(CAsn1bitString, PacksEntriesInReversedOrderAndDecodingUndoesIt) {
  const struct {
    unsigned int count;
    std::set<unsigned int> set;
    const char* hex;
    bool written;  // count and bits give hex
  } cases[] = {
      {3, {0}, "03 02 05 20", true},     {9, {8, 0}, "03 03 07 80 80", true},
      {8, {7}, "03 02 00 80", true},     {0, {}, "03 00", true},
      {7, {6}, "03 03 09 80 00", false}, {0, {}, "03 02 08 ff", false},
  };
  CAsn1bitString back;  // each decoding replaces what the last one read
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    CAsn1bitString bits(c.count);
    for (unsigned int i : c.set) bits.setBit(i, 1);
    if (c.written) {
      EXPECT_EQ(derHex(bits), c.hex);
    }
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(back, std::string(c.hex) + " ff", &pos), 0);
    EXPECT_EQ(pos, testing_support::fromHex(c.hex).size());
    ASSERT_EQ(back.bitCount(), c.count);
    for (unsigned int i = 0; i < c.count; ++i)
      EXPECT_EQ(back.getBit(i), c.set.count(i) ? 1 : 0) << i;
    EXPECT_EQ(back.countSet(), c.set.size());
  }
}
