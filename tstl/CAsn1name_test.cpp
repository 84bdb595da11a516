#include "tstl/CAsn1name.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <string>

#include "testing/DerTest.h"
#include "tstl/CAsn1issuerSerial.h"

using testing_support::derHex;
using testing_support::setDerHex;

namespace {

// SET { SEQUENCE { commonName, PrintableString "A" } }
const char kRdnCnA[] = "31 0a 30 08 06 03 55 04 03 13 01 41 ";

// A Name of n copies of kRdnCnA (each 12 bytes).
std::string nameOf(int n) {
  std::string rdns;
  for (int i = 0; i < n; ++i) rdns += kRdnCnA;
  int length = 12 * n;
  char head[16];
  if (length < 128) {
    snprintf(head, sizeof head, "30 %02x ", length);
  } else {
    snprintf(head, sizeof head, "30 81 %02x ", length);
  }
  return head + rdns;
}

CAsn1string text(unsigned char tag, const std::string& s) {
  return CAsn1string(tag, reinterpret_cast<const unsigned char*>(s.data()),
                     static_cast<unsigned int>(s.size()));
}

}  // namespace

TEST(CAsn1name, BuildsAndRoundTrips) {
  CAsn1name name;
  ASSERT_EQ(name.addVal(NID_countryName, text(kTagPrintableString, "DE")), 0);
  ASSERT_EQ(name.addVal(NID_commonName, text(kTagUtf8String, "Ab")), 0);
  const char* hex =
      "30 1a 31 0b 30 09 06 03 55 04 06 13 02 44 45 31 0b 30 09 06 03 55 04 03 0c 02 41 62";
  EXPECT_EQ(derHex(name), hex);
  EXPECT_EQ(name.length.value, 0x1a);

  CAsn1name back;
  ASSERT_EQ(setDerHex(back, hex), 0);
  ASSERT_EQ(back.attributeCount(), 2);
  EXPECT_EQ(back.attribute(1).type(0).nid, NID_commonName);
  EXPECT_EQ(back.attribute(1).value(0).tag(), kTagUtf8String);
  EXPECT_EQ(derHex(back), hex);

  CAsn1name empty;
  EXPECT_EQ(derHex(empty), "30 00");
  ASSERT_EQ(setDerHex(back, "30 00"), 0);
  EXPECT_EQ(back.attributeCount(), 0);
}

TEST(CAsn1name, DecodesTenAttributesAndLeavesAnEleventhUnread) {
  CAsn1name name;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(name, nameOf(10), &pos), 0);
  EXPECT_EQ(name.attributeCount(), 10);
  EXPECT_EQ(pos, 2u + 120u);

  ASSERT_EQ(setDerHex(name, nameOf(11), &pos), 0);
  EXPECT_EQ(name.attributeCount(), 10);
  EXPECT_EQ(pos, 3u + 120u);  // stops before the 11th
}

TEST(CAsn1name, AddValStopsAtNine) {
  CAsn1name name;
  for (int i = 0; i < 9; ++i) EXPECT_EQ(name.addVal(NID_commonName, text(0x13, "A")), 0) << i;
  EXPECT_EQ(name.addVal(NID_commonName, text(0x13, "A")), -1);
  EXPECT_EQ(name.attributeCount(), 9);
}

TEST(CAsn1nameAttribute, HoldsUpToThreeElements) {
  std::string seq = "30 08 06 03 55 04 03 13 01 41 ";
  CAsn1nameAttribute rdn;
  ASSERT_EQ(setDerHex(rdn, "31 1e " + seq + seq + seq), 0);
  EXPECT_EQ(rdn.elementCount(), 3);
  EXPECT_EQ(derHex(rdn),
            "31 1e " + seq.substr(0, seq.size() - 1) + " " + seq + seq.substr(0, seq.size() - 1));
  EXPECT_EQ(setDerHex(rdn, "31 28 " + seq + seq + seq + seq), -1);
  EXPECT_EQ(rdn.addElement(NID_commonName, text(0x13, "B")), -1);
}

TEST(CAsn1name, RefusesBadInput) {
  std::string ten = nameOf(10);
  const std::string cases[] = {
      "31 00",                                      // not a SEQUENCE
      "30 0c 31 0a 31 08 06 03 55 04 03 13 01 41",  // RDN element not a SEQUENCE
      "30 0c 31 0a 30 08 04 03 55 04 03 13 01 41",  // element type not an OID
      "30 0c 31 0a 30 08 06 03 55 04 03 13 05 41",  // value runs past the end
      ten.substr(0, ten.size() - 3),                // cut in the last RDN
      // An RDN length in long form counts one octet short: the name reads on
      // into the INTEGER after it.
      "30 0d 31 81 0a 30 08 06 03 55 04 03 13 01 41 02 01 05",
      "30 81",
  };
  for (const std::string& hex : cases) {
    CAsn1name name;
    EXPECT_EQ(setDerHex(name, hex), -1) << hex;
  }
}

TEST(CAsn1name, GetStringGivesOpenSslsOneLineText) {
  CAsn1name name;
  name.addVal(NID_countryName, text(kTagPrintableString, "DE"));
  name.addVal(NID_organizationName, text(kTagUtf8String, "Example Org"));
  name.addVal(NID_commonName, text(kTagPrintableString, "Clockette Test"));
  char buffer[256];
  ASSERT_EQ(name.getString(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "/C=DE/O=Example Org/CN=Clockette Test");
  ASSERT_EQ(name.getString(buffer, 8), 0);  // cut to the buffer, by whole entries
  EXPECT_STREQ(buffer, "/C=DE");

  CAsn1name empty;
  ASSERT_EQ(empty.getString(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "");
}

TEST(CAsn1issuerSerial, RoundTripsAndKeepsTheSerialTag) {
  std::string hex = "30 " + std::string("13 ") + nameOf(1) + "02 03 01 00 01";
  CAsn1issuerSerial is;
  ASSERT_EQ(setDerHex(is, hex), 0);
  EXPECT_EQ(is.issuer.attributeCount(), 1);
  EXPECT_EQ(is.serial.tag(), kTagInteger);
  EXPECT_EQ(is.serial.getInteger(), 0x010001);
  EXPECT_EQ(derHex(is), testing_support::toHex(testing_support::fromHex(hex)));
  EXPECT_EQ(setDerHex(is, "31" + hex.substr(2)), -1);
}
