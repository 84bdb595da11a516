// Known identifiers: Der_test, CAsn1algorithmIdentifier_test, CAsn1name_test.
#include "der/CAsn1oid.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"

using namespace testing_support;

// An identifier from a peer is never added to OpenSSL's object table.
TEST(CAsn1oid, UnknownIdentifierKeepsItsOctetsAndReencodes) {
  // 1.3.6.1.4.1.99999.42.7 is not one of OpenSSL's.
  const char* hex = "06 0a 2b 06 01 04 01 86 8d 1f 2a 07";
  CAsn1oid oid;
  ASSERT_EQ(setDerHex(oid, hex), 0);
  EXPECT_EQ(oid.nid, 0);
  EXPECT_TRUE(oid.isSet());
  EXPECT_EQ(OBJ_txt2nid("1.3.6.1.4.1.99999.42.7"), NID_undef);
  EXPECT_EQ(oid.dotted(), "1.3.6.1.4.1.99999.42.7");
  EXPECT_EQ(derHex(oid), hex);
  CAsn1oid again, known(NID_sha256);
  ASSERT_EQ(setDerHex(again, hex), 0);
  EXPECT_TRUE(again.sameAs(oid));
  EXPECT_FALSE(known.sameAs(oid));
  ASSERT_EQ(setDerHex(again, derHex(known)), 0);
  EXPECT_EQ(again.nid, NID_sha256);
  EXPECT_TRUE(again.sameAs(known));
}

// Refused input leaves no identifier behind; OpenSSL refuses an empty one.
TEST(CAsn1oid, RefusesBadInputAndUnsetIdentifiers) {
  LogCapture log;
  for (const char* hex : {"04 03 55 04 03", "06 03 55 04", "06", "06 00", "06 02 80 80"}) {
    CAsn1oid oid(NID_sha1);
    EXPECT_EQ(setDerHex(oid, hex), -1) << hex;
    EXPECT_FALSE(oid.isSet()) << hex;
  }
  EXPECT_TRUE(log.contains("Expected 0x06, got 0x04"));
  // An unset identifier cannot be encoded.
  CAsn1oid oid;
  EXPECT_EQ(oid.getSize(), 0u);
  DerWriter out;
  EXPECT_EQ(oid.getDER(out), -1);
  EXPECT_EQ(out.size(), 0u);
  EXPECT_TRUE(log.contains("Object not initialized"));
}
