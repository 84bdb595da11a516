// Round trips and refusals: Der_test; encoding with and without NULL
// parameters: asn1request_test.
#include "der/CAsn1algorithmIdentifier.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include "testing/DerTest.h"

using testing_support::setDerHex;

TEST(CAsn1algorithmIdentifier, KeepsParametersAsOpaqueBytesUnderAnyTag) {
  CAsn1algorithmIdentifier id;
  ASSERT_EQ(setDerHex(id, "30 0d 06 09 60 86 48 01 65 03 04 02 01 05 00"), 0);
  EXPECT_EQ(id.algorithm.nid, NID_sha256);
  EXPECT_EQ(testing_support::toHex(id.parameters(), id.parameterLength()), "05 00");
  ASSERT_EQ(setDerHex(id, "30 0b 06 09 60 86 48 01 65 03 04 02 01"), 0);
  EXPECT_EQ(id.parameterLength(), 0u);

  // [1] IMPLICIT AlgorithmIdentifier carrying a SEQUENCE as parameters.
  const char* hex = "a1 0e 06 05 2b 0e 03 02 1a 30 05 02 01 07 05 00";
  unsigned int pos = 0;
  std::vector<uint8_t> bytes = testing_support::fromHex(hex);
  ASSERT_EQ(id.setDER(bytes.data(), &pos, static_cast<unsigned int>(bytes.size()), 0xA1), 0);
  EXPECT_EQ(id.algorithm.nid, NID_sha1);
  EXPECT_EQ(testing_support::toHex(id.parameters(), id.parameterLength()), "30 05 02 01 07 05 00");
  DerWriter out;
  ASSERT_EQ(id.getDER(out, 0xA1), 0);
  EXPECT_EQ(testing_support::toHex(out.data()), hex);
  // Through the virtual slot the identifier must be 0x30.
  EXPECT_EQ(setDerHex(id, hex), -1);
}
