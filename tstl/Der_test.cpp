#include "tstl/Der.h"

#include <gtest/gtest.h>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "tstl/CAsn1size.h"

using testing_support::derHex;
using testing_support::LogCapture;
using testing_support::setDerHex;

TEST(CAsn1size, EncodesShortAndLongForms) {
  struct Case {
    int value;
    const char* hex;
  } cases[] = {
      {0, "00"},
      {127, "7f"},
      {128, "81 80"},
      {255, "81 ff"},
      {256, "82 01 00"},
      {65535, "82 ff ff"},
      {65536, "83 01 00 00"},
      {0xFFFFFF, "83 ff ff ff"},
      {0x1000000, "84 01 00 00 00"},
  };
  for (const Case& c : cases) {
    CAsn1size size(c.value);
    EXPECT_EQ(derHex(size), c.hex) << c.value;
    CAsn1size back;
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(back, c.hex, &pos), 0) << c.hex;
    EXPECT_EQ(back.value, c.value);
    EXPECT_EQ(pos, size.getSize());
  }
}

TEST(CAsn1size, IndefiniteFormReadsAsZero) {
  CAsn1size size(7);
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(size, "80", &pos), 0);
  EXPECT_EQ(size.value, 0);
  EXPECT_EQ(pos, 1u);
}

TEST(CAsn1size, RefusesMoreThanFourLengthOctets) {
  LogCapture log;
  CAsn1size size;
  EXPECT_EQ(setDerHex(size, "85 01 00 00 00 00"), -1);
  EXPECT_TRUE(log.contains("Size of size value > 4 bytes"));
}

TEST(CAsn1size, TruncatedLengthOctetsFailWithDecodingError) {
  LogCapture log;
  for (const char* hex : {"", "81", "82 01", "84 01 00 00"}) {
    CAsn1size size;
    EXPECT_EQ(setDerHex(size, hex), -1) << hex;
  }
  EXPECT_TRUE(log.contains(" 2 DerReader::need: DER decoding-error at pos"));
}

TEST(DerReader, LengthRunningPastTheEndFails) {
  LogCapture log;
  unsigned char bytes[] = {0x04, 0x82, 0x01, 0x00, 0xAA};
  unsigned int pos = 1;
  DerReader in(bytes, &pos, sizeof bytes);
  unsigned int length = 0;
  EXPECT_FALSE(in.readLength(&length));
  EXPECT_TRUE(log.contains("DER decoding-error at pos 4. Needed 256 bytes, only 1 left"));
}

TEST(DerReader, NegativeLengthIsNotTakenForSmall) {
  // 84 FF FF FF FF holds -1 as a signed length: it must not pass as a short one.
  unsigned char bytes[] = {0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  unsigned int pos = 0;
  DerReader in(bytes, &pos, sizeof bytes);
  unsigned int length = 0;
  EXPECT_FALSE(in.readLength(&length));
}

TEST(DerHexText, ShowsHexThenPrintableCharacters) {
  const unsigned char bytes[] = {'A', 0x00, 'z', 0x7F};
  EXPECT_EQ(derHexText(bytes, 4, 8), "41 00 7A 7F:A.z.");
  EXPECT_EQ(derHexText(bytes, 4, 2), "41 00:A.");
  EXPECT_EQ(derHexText(bytes, 0, 8), "");
}
