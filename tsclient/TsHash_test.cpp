// The digest names of TS_HASHALG, and computeHash with each digest against
// OpenSSL's one-shot digest of the same bytes; what it refuses to read.
#include "tsclient/TsHash.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <sys/stat.h>

#include <string>

#include "testing/Hex.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "testing/TokenMaker.h"
#include "der/CAsn1messageImprint.h"

namespace {

using namespace testing_support;

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
    CAsn1messageImprint imprint;
    EXPECT_EQ(computeHash(path.c_str(), c.nid, &imprint), c.nid == NID_undef ? -2 : 0);
    if (c.nid == NID_undef) continue;
    EXPECT_EQ(imprint.hashAlgorithm.algorithm.nid, c.nid);
    EXPECT_EQ(toHex(imprint.hashedMessage.data(), imprint.hashedMessage.length()),
              toHex(testing_support::digestOf(c.nid, data)));
  }
}

// A FIFO without a writer would block a plain open; a directory or a device
// would never end or not read at all.
TEST(TsHashTest, WhatIsNoRegularFileIsRefused) {
  TempDir dir;
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string missing = dir.file("missing");
  for (const std::string& path : {fifo, dir.path(), std::string("/dev/zero"), missing}) {
    LogCapture log;
    CAsn1messageImprint imprint;
    EXPECT_EQ(computeHash(path.c_str(), NID_sha256, &imprint), -1) << path;
    EXPECT_TRUE(
        log.contains("File " + path +
                     (path == missing ? " cannot be read: errno=2 (No such file or directory)"
                                      : " is no regular file")))
        << log.text();
  }
}

}  // namespace
