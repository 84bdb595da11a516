#include "tstl/Der.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "tstl/CAsn1algorithmIdentifier.h"
#include "tstl/CAsn1bitString.h"
#include "tstl/CAsn1boolean.h"
#include "tstl/CAsn1integer.h"
#include "tstl/CAsn1issuerSerial.h"
#include "tstl/CAsn1messageImprint.h"
#include "tstl/CAsn1name.h"
#include "tstl/CAsn1nameAttribute.h"
#include "tstl/CAsn1oid.h"
#include "tstl/CAsn1size.h"
#include "tstl/CAsn1string.h"
#include "tstl/CAsn1time.h"
#include "tstl/asn1request.h"

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

// Every decoder, given any proper prefix of a valid encoding, fails with -1
// and stays inside the bytes it was given.
TEST(DerReader, EveryTypeRefusesEveryTruncation) {
  struct Case {
    const char* name;
    std::function<std::unique_ptr<CAsn1object>()> make;
    const char* hex;
  } cases[] = {
      {"size", [] { return std::make_unique<CAsn1size>(); }, "84 01 00 00 00"},
      {"integer", [] { return std::make_unique<CAsn1integer>(); }, "02 03 00 80 00"},
      {"boolean", [] { return std::make_unique<CAsn1boolean>(); }, "01 01 ff"},
      {"oid", [] { return std::make_unique<CAsn1oid>(); }, "06 09 60 86 48 01 65 03 04 02 01"},
      {"string", [] { return std::make_unique<CAsn1string>(); }, "13 03 61 62 63"},
      {"time", [] { return std::make_unique<CAsn1time>(); },
       "17 0d 39 39 31 32 33 31 32 33 35 39 35 39 5a"},
      {"bits", [] { return std::make_unique<CAsn1bitString>(); }, "03 02 05 20"},
      {"algorithm", [] { return std::make_unique<CAsn1algorithmIdentifier>(); },
       "30 0d 06 09 60 86 48 01 65 03 04 02 01 05 00"},
      {"imprint", [] { return std::make_unique<CAsn1messageImprint>(); },
       "30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
      {"rdn", [] { return std::make_unique<CAsn1nameAttribute>(); },
       "31 0a 30 08 06 03 55 04 03 13 01 41"},
      {"name", [] { return std::make_unique<CAsn1name>(); },
       "30 0c 31 0a 30 08 06 03 55 04 03 13 01 41"},
      {"issuerSerial", [] { return std::make_unique<CAsn1issuerSerial>(); },
       "30 13 30 0c 31 0a 30 08 06 03 55 04 03 13 01 41 02 03 01 00 01"},
      {"ietf", [] { return std::make_unique<CAsn1IETFrequest>(); },
       "30 1c 02 01 01 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab 06 03 2a 03 04 02 01 07 01 01 "
       "ff"},
      {"sigIA4", [] { return std::make_unique<CAsn1sigIA4request>(); },
       "a0 15 30 13 02 01 63 a2 0e 30 0c 30 07 06 05 2b 0e 03 02 1a 03 01 00"},
      {"pkcs7", [] { return std::make_unique<CAsn1Pkcs7request>(); },
       "a3 13 30 11 02 01 00 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
      {"certRequest", [] { return std::make_unique<CAsn1CertRequest>(); },
       "a2 0d 30 0b 02 01 01 30 06 04 01 0a 04 01 0b"},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> whole = testing_support::fromHex(c.hex);
    std::unique_ptr<CAsn1object> object = c.make();
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(*object, c.hex, &pos), 0) << c.name;
    EXPECT_EQ(pos, whole.size()) << c.name;
    for (size_t cut = 0; cut < whole.size(); ++cut) {
      std::unique_ptr<CAsn1object> part = c.make();
      std::string hex = testing_support::toHex(whole.data(), cut);
      EXPECT_EQ(setDerHex(*part, hex, &pos), -1) << c.name << " cut at " << cut;
      EXPECT_LE(pos, cut) << c.name;
    }
  }
}
