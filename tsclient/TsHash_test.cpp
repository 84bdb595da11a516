// The digest names of TS_HASHALG, and computeHash with each digest against
// OpenSSL's one-shot digest of the same bytes, over files of every size that
// matters to the block reading; what it refuses to read.
#include "tsclient/TsHash.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <sys/stat.h>

#include <string>

#include "der/CAsn1messageImprint.h"
#include "testing/Hex.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "testing/TokenMaker.h"

namespace {

using namespace testing_support;

// Writes data to path and checks computeHash of it under nid (NID_undef: refused).
void expectHash(const std::string& path, const std::string& data, int nid) {
  writeFile(path, data);
  CAsn1messageImprint imprint;
  ASSERT_EQ(computeHash(path.c_str(), nid, &imprint), nid == NID_undef ? -2 : 0);
  if (nid == NID_undef) return;
  EXPECT_EQ(imprint.hashAlgorithm.algorithm.nid, nid);
  EXPECT_EQ(toHex(imprint.hashedMessage.data(), imprint.hashedMessage.length()),
            toHex(digestOf(nid, data)));
}

TEST(TsHashTest, DigestNamesAndTheirHashes) {
  TempDir dir;
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
    expectHash(dir.file("document.pdf"), "%PDF-1.4 something worth a timestamp\n", c.nid);
  }
}

// An empty file, block edges, the read-ahead threshold and a large file; the
// pattern's period is prime, so it does not repeat with the block size.
TEST(TsHashTest, DigestAtEverySizeOfTheBlockReading) {
  const size_t kMiB = 1 << 20;
  const size_t sizes[] = {0,    1,        4095,         4097,     kMiB - 1,
                          kMiB, kMiB + 1, 4 * kMiB - 1, 4 * kMiB, 64 * kMiB + 12345};
  TempDir dir;
  for (size_t size : sizes) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i % 65521 * 131 + 7) % 251);
    for (int nid : {NID_sha256, NID_sha512}) {
      SCOPED_TRACE(std::to_string(size) + " bytes, digest " + std::to_string(nid));
      expectHash(dir.file("data"), data, nid);
    }
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
