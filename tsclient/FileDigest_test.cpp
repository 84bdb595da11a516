// computeHash over files of every size that matters to the block reading (an
// empty file, block edges, the read-ahead threshold and a large file) agrees
// with openssl dgst.
#include "tsclient/FileDigest.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <string>

#include "testing/ChildProcess.h"
#include "testing/Hex.h"
#include "testing/TempDir.h"
#include "der/CAsn1messageImprint.h"
#include "tsclient/tsrequest.h"

namespace {

using namespace testing_support;

// size bytes that do not repeat with the block size: the pattern's period is prime.
std::string pattern(size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i % 65521 * 131 + 7) % 251);
  return out;
}

TEST(FileDigestTest, DigestEqualsOpenSslAtEverySize) {
  const size_t kMiB = 1 << 20;
  const size_t sizes[] = {0,    1,        4095,         4097,     kMiB - 1,
                          kMiB, kMiB + 1, 4 * kMiB - 1, 4 * kMiB, 64 * kMiB + 12345};
  const struct {
    int nid;
    const char* option;
  } digests[] = {{NID_sha256, "-sha256"}, {NID_sha512, "-sha512"}};
  TempDir dir;
  for (size_t size : sizes) {
    std::string path = dir.file("data-" + std::to_string(size));
    writeFile(path, pattern(size));
    for (const auto& d : digests) {
      SCOPED_TRACE(std::to_string(size) + " bytes " + d.option);
      CAsn1messageImprint imprint;
      ASSERT_EQ(computeHash(path.c_str(), d.nid, &imprint), 0);
      auto r = runChild({"/usr/bin/openssl", "dgst", d.option, "-r", path});
      ASSERT_EQ(r.exitCode, 0) << r.err;
      EXPECT_EQ(toHex(imprint.hashedMessage.data(), imprint.hashedMessage.length()),
                toHex(fromHex(r.out.substr(0, r.out.find(' ')))));
    }
  }
}

}  // namespace
