#include "der/CAsn1integer.h"

#include <gtest/gtest.h>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "der/CAsn1bigInteger.h"
#include "der/CAsn1boolean.h"

using namespace testing_support;

// Minimal forms; negative values keep their lowest octet only, and nothing
// is sign-extended when read. Refusals: Der_test.
TEST(CAsn1integer, EncodesMinimalFormsAndDecodesWithoutSignExtension) {
  const struct {
    int value;
    const char* hex;
    int read;
    bool written = true;  // value gives hex
  } cases[] = {
      {0, "02 01 00", 0},
      {127, "02 01 7f", 127},
      {128, "02 02 00 80", 128},
      {32767, "02 02 7f ff", 32767},
      {32768, "02 03 00 80 00", 32768},
      {0x7FFFFF, "02 03 7f ff ff", 0x7FFFFF},
      {0x800000, "02 04 00 80 00 00", 0x800000},
      {0x7FFFFFFF, "02 04 7f ff ff ff", 0x7FFFFFFF},
      {-1, "02 01 ff", 255},
      {-128, "02 01 80", 128},
      {-129, "02 01 7f", 127},
      {0, "02 04 ff ff ff ff", -1, false},
      {0, "02 00", 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    CAsn1integer i(c.value);
    if (c.written) {
      EXPECT_EQ(derHex(i), c.hex);
    }
    CAsn1integer back(99);
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(back, c.hex, &pos), 0);
    EXPECT_EQ(back.value, c.read);
    EXPECT_EQ(pos, testing_support::fromHex(c.hex).size());
  }
}

// Decoded as they came; written from a number in minimal form.
TEST(CAsn1bigInteger, KeepsUpTo64OctetsAsTheyCame) {
  const std::string serial20 = "02 14 7f 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13";
  std::string octets63;
  for (int i = 0; i < 63; ++i) octets63 += " 55";
  const struct {
    std::string der;
    std::string hex;  // "" = refused
    bool fromValue = false;
    uint64_t value = 0;
  } cases[] = {
      {"02 01 00", "00", true, 0},
      {"02 02 00 80", "80", true, 0x80},
      {"02 09 00 f1 02 03 04 05 06 07 08", "F102030405060708", true, 0xF102030405060708},
      {"02 03 00 00 80", "000080"},  // not minimal, kept so
      {serial20, "7F0102030405060708090A0B0C0D0E0F10111213"},
      {"02 15 00 c3 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13",
       "C30102030405060708090A0B0C0D0E0F10111213"},
      {"02 40 7f" + octets63, "7F" + std::string(126, '5')},
      {"02 41 00 ff" + octets63, ""},
      {"02 00", ""},
  };
  LogCapture log;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.der);
    CAsn1bigInteger i;
    const bool ok = !c.hex.empty();
    EXPECT_EQ(setDerHex(i, c.der), ok ? 0 : -1);
    if (!ok) continue;
    EXPECT_EQ(i.hex(), c.hex);
    EXPECT_EQ(derHex(i), c.der);
    if (!c.fromValue) continue;
    CAsn1bigInteger made(c.value);
    EXPECT_EQ(derHex(made), c.der);
    uint64_t back = 1;
    EXPECT_TRUE(made.toUint64(&back));
    EXPECT_EQ(back, c.value);
  }
  EXPECT_TRUE(log.contains("Size of integer value > 64 bytes"));
  EXPECT_TRUE(log.contains("INTEGER without content octets"));
}

TEST(CAsn1boolean, EncodesAndDecodes) {
  CAsn1boolean t(1), f(0), negative(-5), b;
  EXPECT_EQ(derHex(t), "01 01 ff");
  EXPECT_EQ(derHex(f), "01 01 00");
  EXPECT_EQ(derHex(negative), "01 01 00");
  ASSERT_EQ(setDerHex(b, "01 01 01"), 0);
  EXPECT_EQ(b.value, 1);
  ASSERT_EQ(setDerHex(b, "01 01 00"), 0);
  EXPECT_EQ(b.value, 0);
}
