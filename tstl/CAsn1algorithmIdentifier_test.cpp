#include "tstl/CAsn1algorithmIdentifier.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include "testing/DerTest.h"
#include "tstl/CAsn1messageImprint.h"

using testing_support::derHex;
using testing_support::setDerHex;

namespace {
const char kSha256WithNull[] = "30 0d 06 09 60 86 48 01 65 03 04 02 01 05 00";
const char kSha256Bare[] = "30 0b 06 09 60 86 48 01 65 03 04 02 01";
}  // namespace

TEST(CAsn1algorithmIdentifier, KeepsParametersAsOpaqueBytes) {
  CAsn1algorithmIdentifier withNull;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(withNull, kSha256WithNull, &pos), 0);
  EXPECT_EQ(pos, 15u);
  EXPECT_EQ(withNull.algorithm.nid, NID_sha256);
  ASSERT_EQ(withNull.parameterLength(), 2u);
  EXPECT_EQ(withNull.parameters()[0], 0x05);
  EXPECT_EQ(withNull.parameters()[1], 0x00);
  EXPECT_EQ(derHex(withNull), kSha256WithNull);

  CAsn1algorithmIdentifier bare;
  ASSERT_EQ(setDerHex(bare, kSha256Bare), 0);
  EXPECT_EQ(bare.parameterLength(), 0u);
  EXPECT_EQ(derHex(bare), kSha256Bare);

  CAsn1algorithmIdentifier made(NID_sha256, true), madeBare(NID_sha256, false);
  EXPECT_EQ(derHex(made), kSha256WithNull);
  EXPECT_EQ(derHex(madeBare), kSha256Bare);
}

TEST(CAsn1algorithmIdentifier, ImplicitTagsAndAnyParameters) {
  // [1] IMPLICIT AlgorithmIdentifier carrying a SEQUENCE as parameters.
  const char* hex = "a1 0e 06 05 2b 0e 03 02 1a 30 05 02 01 07 05 00";
  CAsn1algorithmIdentifier id;
  unsigned int pos = 0;
  std::vector<uint8_t> bytes = testing_support::fromHex(hex);
  ASSERT_EQ(id.setDER(bytes.data(), &pos, static_cast<unsigned int>(bytes.size()), 0xA1), 0);
  EXPECT_EQ(id.algorithm.nid, NID_sha1);
  EXPECT_EQ(id.parameterLength(), 7u);  // 30 05 02 01 07 05 00
  std::vector<unsigned char> out(id.getSize());
  pos = 0;
  ASSERT_EQ(id.getDER(out.data(), &pos, 0xA1), 0);
  EXPECT_EQ(testing_support::toHex(out), hex);
  // Through the virtual slot the identifier must be 0x30.
  EXPECT_EQ(setDerHex(id, hex), -1);
}

TEST(CAsn1algorithmIdentifier, RefusesBadInput) {
  // Truncations: Der_test.
  const char* cases[] = {
      "30 05 06 09 60 86 48 01 65 03 04 02 01",  // OID longer than the SEQUENCE
      "30 02 04 00",                             // no OID
  };
  for (const char* hex : cases) {
    CAsn1algorithmIdentifier id;
    EXPECT_EQ(setDerHex(id, hex), -1) << hex;
  }
}

TEST(CAsn1messageImprint, EncodesAlgorithmFirstAndRoundTrips) {
  const unsigned char digest[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  CAsn1messageImprint imprint;
  imprint.hashAlgorithm = CAsn1algorithmIdentifier(NID_sha1, true);
  imprint.hashedMessage.setVal(digest, 4);
  const char* hex = "30 11 30 09 06 05 2b 0e 03 02 1a 05 00 04 04 de ad be ef";
  EXPECT_EQ(derHex(imprint), hex);

  CAsn1messageImprint back;
  ASSERT_EQ(setDerHex(back, hex), 0);
  EXPECT_EQ(back.hashAlgorithm.algorithm.nid, NID_sha1);
  EXPECT_EQ(back.hashedMessage.comp(imprint.hashedMessage), 0);
  EXPECT_EQ(derHex(back), hex);
  EXPECT_EQ(setDerHex(back, "31" + std::string(hex).substr(2)), -1);
}
