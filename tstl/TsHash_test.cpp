// The digest names of TS_HASHALG, and computeHash with each digest against
// OpenSSL's one-shot digest of the same bytes.
#include "tstl/TsHash.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <string>

#include "testing/Hex.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "tstl/CAsn1messageImprint.h"

namespace {

using testing_support::LogCapture;
using testing_support::TempDir;
using testing_support::toHex;

TEST(TsHashTest, DigestNamesAndTheirHashes) {
  TempDir dir;
  const std::string data = "%PDF-1.4 something worth a timestamp\n";
  const std::string path = dir.file("document.pdf");
  testing_support::writeFile(path, data);
  const struct {
    const char* name;  // nullptr: TS_HASHALG unset
    int nid;
  } cases[] = {
      {nullptr, NID_sha256},      {"SHA256", NID_sha256},     {"SHA1", NID_sha1},
      {"SHA384", NID_sha384},     {"SHA512", NID_sha512},     {"RIPEMD160", NID_ripemd160},
      {"SHA3-256", NID_sha3_256}, {"SHA3-512", NID_sha3_512}, {"sha256", NID_undef},
      {"MD5", NID_undef},         {"SHA256 ", NID_undef},     {"", NID_undef},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "(unset)");
    EXPECT_EQ(digestNidByName(c.name), c.nid);
    if (c.nid == NID_undef) continue;
    unsigned char expected[EVP_MAX_MD_SIZE];
    unsigned int expectedLen = 0;
    ASSERT_EQ(EVP_Digest(data.data(), data.size(), expected, &expectedLen,
                         EVP_get_digestbynid(c.nid), nullptr),
              1);
    CAsn1messageImprint imprint;
    ASSERT_EQ(computeHash(path.c_str(), c.nid, &imprint), 0);
    EXPECT_EQ(imprint.hashAlgorithm.algorithm.nid, c.nid);
    EXPECT_EQ(toHex(imprint.hashedMessage.data(), imprint.hashedMessage.length()),
              toHex(expected, expectedLen));
  }
  LogCapture log;
  CAsn1messageImprint imprint;
  EXPECT_EQ(computeHash(dir.file("missing").c_str(), NID_sha256, &imprint), -1);
  EXPECT_TRUE(log.contains("File " + dir.file("missing") +
                           " cannot be read: errno=2 (No such file or directory)"));
  EXPECT_EQ(computeHash(path.c_str(), NID_undef, &imprint), -2);
}

}  // namespace
