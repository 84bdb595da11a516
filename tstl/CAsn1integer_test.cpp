#include "tstl/CAsn1integer.h"

#include <gtest/gtest.h>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "tstl/CAsn1bigInteger.h"
#include "tstl/CAsn1boolean.h"

using testing_support::derHex;
using testing_support::LogCapture;
using testing_support::setDerHex;

TEST(CAsn1integer, EncodesMinimalFormsAndNegativeAsOneOctet) {
  struct Case {
    int value;
    const char* hex;
  } cases[] = {
      {0, "02 01 00"},
      {127, "02 01 7f"},
      {128, "02 02 00 80"},
      {32767, "02 02 7f ff"},
      {32768, "02 03 00 80 00"},
      {0x7FFFFF, "02 03 7f ff ff"},
      {0x800000, "02 04 00 80 00 00"},
      {0x7FFFFFFF, "02 04 7f ff ff ff"},
      // Negative values keep their lowest octet only.
      {-1, "02 01 ff"},
      {-128, "02 01 80"},
      {-129, "02 01 7f"},
  };
  for (const Case& c : cases) {
    CAsn1integer i(c.value);
    EXPECT_EQ(derHex(i), c.hex) << c.value;
  }
}

TEST(CAsn1integer, DecodesWithoutSignExtension) {
  struct Case {
    const char* hex;
    int value;
  } cases[] = {
      {"02 01 ff", 255},         {"02 02 00 80", 128}, {"02 03 00 80 00", 32768},
      {"02 04 ff ff ff ff", -1}, {"02 00", 0},
  };
  for (const Case& c : cases) {
    CAsn1integer i(99);
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(i, c.hex, &pos), 0) << c.hex;
    EXPECT_EQ(i.value, c.value) << c.hex;
    EXPECT_EQ(pos, testing_support::fromHex(c.hex).size());
  }
}

TEST(CAsn1integer, RefusesWrongTagAndLongValues) {
  LogCapture log;
  struct Case {
    const char* hex;
    const char* message;
  } cases[] = {
      {"04 01 05", "DER decoding-error at pos 0. Expected 0x02, got 0x04"},
      {"02 05 01 02 03 04 05", "Size of integer value > 4 bytes"},
  };
  for (const Case& c : cases) {
    CAsn1integer i;
    EXPECT_EQ(setDerHex(i, c.hex), -1) << c.hex;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
  }
}

TEST(CAsn1bigInteger, KeepsUpTo21OctetsAsTheyCame) {
  const std::string serial20 = "02 14 7f 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13";
  struct Case {
    std::string der;
    const char* hex;  // "" = refused
  } cases[] = {
      {"02 01 00", "00"},
      {"02 02 00 80", "80"},
      {"02 03 00 00 80", "000080"},  // not minimal, kept so
      {serial20, "7F0102030405060708090A0B0C0D0E0F10111213"},
      {"02 15 00 c3 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13",
       "C30102030405060708090A0B0C0D0E0F10111213"},
      {"02 16 00 c3 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14", ""},
      {"02 00", ""},
  };
  LogCapture log;
  for (const Case& c : cases) {
    CAsn1bigInteger i;
    const bool ok = *c.hex != '\0';
    EXPECT_EQ(setDerHex(i, c.der), ok ? 0 : -1) << c.der;
    if (!ok) continue;
    EXPECT_EQ(i.hex(), c.hex);
    EXPECT_EQ(derHex(i), c.der);
  }
  EXPECT_TRUE(log.contains("Size of integer value > 21 bytes"));
  EXPECT_TRUE(log.contains("INTEGER without content octets"));
  struct Value {
    uint64_t value;
    const char* der;
  } values[] = {
      {0, "02 01 00"},
      {0x80, "02 02 00 80"},
      {0xF102030405060708, "02 09 00 f1 02 03 04 05 06 07 08"},
  };
  for (const Value& v : values) {
    CAsn1bigInteger i(v.value);
    EXPECT_EQ(derHex(i), v.der);
    uint64_t back = 1;
    EXPECT_TRUE(i.toUint64(&back));
    EXPECT_EQ(back, v.value);
  }
}

TEST(CAsn1boolean, EncodesAndDecodes) {
  CAsn1boolean t(1), f(0), negative(-5);
  EXPECT_EQ(derHex(t), "01 01 ff");
  EXPECT_EQ(derHex(f), "01 01 00");
  EXPECT_EQ(derHex(negative), "01 01 00");
  CAsn1boolean b;
  ASSERT_EQ(setDerHex(b, "01 01 01"), 0);
  EXPECT_EQ(b.value, 1);
  ASSERT_EQ(setDerHex(b, "01 01 00"), 0);
  EXPECT_EQ(b.value, 0);
}

TEST(CAsn1boolean, RefusesWrongLengthOctetAndTag) {
  LogCapture log;
  CAsn1boolean b;
  EXPECT_EQ(setDerHex(b, "01 02 ff ff"), -1);
  EXPECT_TRUE(log.contains("DER decoding-error at pos 1. Expected 0x01, got 0x02"));
  EXPECT_EQ(setDerHex(b, "02 01 ff"), -1);
}
