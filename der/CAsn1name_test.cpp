// Names and their RDNs; more round trips and refusals, and the
// IssuerSerial: Der_test.
#include "der/CAsn1name.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <string>

#include "testing/DerTest.h"

using namespace testing_support;

namespace {

// A Name of n RDNs SET { SEQUENCE { commonName, PrintableString "A" } }.
std::string nameOf(int n) {
  char head[16];
  snprintf(head, sizeof head, n * 12 < 128 ? "30 %02x " : "30 81 %02x ", n * 12);
  std::string hex = head;
  for (int i = 0; i < n; ++i) hex += "31 0a 30 08 06 03 55 04 03 13 01 41 ";
  return hex;
}

CAsn1string text(unsigned char tag, const std::string& s) {
  return CAsn1string(tag, reinterpret_cast<const unsigned char*>(s.data()),
                     static_cast<unsigned int>(s.size()));
}

}  // namespace

TEST(CAsn1name, BuildsAndRoundTrips) {
  CAsn1name name, back, empty;
  ASSERT_EQ(name.addVal(NID_countryName, text(kTagPrintableString, "DE")), 0);
  ASSERT_EQ(name.addVal(NID_commonName, text(kTagUtf8String, "Ab")), 0);
  const char* hex =
      "30 1a 31 0b 30 09 06 03 55 04 06 13 02 44 45 31 0b 30 09 06 03 55 04 03 0c 02 41 62";
  EXPECT_EQ(derHex(name), hex);
  ASSERT_EQ(setDerHex(back, hex), 0);
  ASSERT_EQ(back.attributeCount(), 2);
  EXPECT_EQ(back.attribute(1).type(0).nid, NID_commonName);
  EXPECT_EQ(back.attribute(1).value(0).tag(), kTagUtf8String);
  EXPECT_EQ(derHex(back), hex);
  EXPECT_EQ(derHex(empty), "30 00");
  ASSERT_EQ(setDerHex(back, "30 00"), 0);
  EXPECT_EQ(back.attributeCount(), 0);
}

// Ten attributes are read and an eleventh is left unread; addVal stops at
// nine; an RDN holds up to three elements.
TEST(CAsn1name, HoldsTenAttributesOfThreeElements) {
  CAsn1name name;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(name, nameOf(10), &pos), 0);
  EXPECT_EQ(name.attributeCount(), 10);
  EXPECT_EQ(pos, 2u + 120u);
  ASSERT_EQ(setDerHex(name, nameOf(11), &pos), 0);
  EXPECT_EQ(name.attributeCount(), 10);
  EXPECT_EQ(pos, 3u + 120u);  // stops before the 11th
  const std::string ten = nameOf(10);
  EXPECT_EQ(setDerHex(name, ten.substr(0, ten.size() - 3)), -1);  // cut in the last RDN

  CAsn1name built;
  for (int i = 0; i < 9; ++i) EXPECT_EQ(built.addVal(NID_commonName, text(0x13, "A")), 0) << i;
  EXPECT_EQ(built.addVal(NID_commonName, text(0x13, "A")), -1);
  EXPECT_EQ(built.attributeCount(), 9);

  const std::string seq = " 30 08 06 03 55 04 03 13 01 41";
  CAsn1nameAttribute rdn;
  ASSERT_EQ(setDerHex(rdn, "31 1e" + seq + seq + seq), 0);
  EXPECT_EQ(rdn.elementCount(), 3);
  EXPECT_EQ(derHex(rdn), "31 1e" + seq + seq + seq);
  EXPECT_EQ(rdn.addElement(NID_commonName, text(0x13, "B")), -1);
}

