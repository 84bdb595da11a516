// hashFiles against the one-shot digest of each file, whatever the number of
// threads and however the files are handed over; which failure it reports.
#include "tsclient/HashFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <string>
#include <vector>

#include "base/Owners.h"
#include "der/CAsn1messageImprint.h"
#include "testing/Hex.h"
#include "testing/TempDir.h"
#include "testing/TokenMaker.h"

namespace {

using namespace testing_support;

// A big file among small ones, half of them handed over open.
TEST(HashFilesTest, EveryFileGetsItsOwnDigestOnAnyNumberOfThreads) {
  TempDir dir;
  const size_t sizes[] = {0, 9 << 20, 1, 5000, 5 << 20, 100};
  std::vector<std::string> contents;
  for (size_t size : sizes) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + contents.size()) % 251);
    writeFile(dir.file(std::to_string(contents.size())), data);
    contents.push_back(data);
  }
  for (int threads : {1, 2, 4}) {
    SCOPED_TRACE(threads);
    std::vector<CAsn1messageImprint> imprints(contents.size());
    std::vector<FileToHash> files;
    std::vector<UniqueFd> fds;
    for (size_t i = 0; i < contents.size(); ++i) {
      std::string path = dir.file(std::to_string(i));
      fds.emplace_back(i % 2 ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
      files.push_back({path, fds.back().get(), &imprints[i]});
    }
    ASSERT_EQ(hashFiles(&files, NID_sha256, threads), files.size());
    for (size_t i = 0; i < files.size(); ++i) {
      EXPECT_EQ(files[i].result, 0);
      EXPECT_EQ(toHex(imprints[i].hashedMessage.data(), imprints[i].hashedMessage.length()),
                toHex(digestOf(NID_sha256, contents[i])))
          << i;
    }
  }
}

// The failure reported is the first in the files' order, as one after the
// other would find it, even when a later file fails too.
TEST(HashFilesTest, TheFirstFailingFileInOrderIsReported) {
  TempDir dir;
  writeFile(dir.file("small"), "x");
  writeFile(dir.file("big"), std::string(6 << 20, 'b'));
  for (int threads : {1, 3}) {
    SCOPED_TRACE(threads);
    std::vector<CAsn1messageImprint> imprints(4);
    std::vector<FileToHash> files = {{dir.file("small"), -1, &imprints[0]},
                                     {dir.file("missing"), -1, &imprints[1]},
                                     {dir.file("big"), -1, &imprints[2]},
                                     {"/dev/zero", -1, &imprints[3]}};
    EXPECT_EQ(hashFiles(&files, NID_sha256, threads), 1u);
    EXPECT_EQ(files[0].result, 0);
    EXPECT_EQ(files[1].result, -1);
    if (threads == 1) {
      EXPECT_EQ(files[2].result, 1);  // never started
    }
  }
}

TEST(HashFilesTest, ThreadsAreTheCoresAtMostTheSetting) {
  const struct {
    int cores;
    const char* setting;
    int threads;
  } cases[] = {{4, nullptr, 4}, {4, "1", 1}, {4, "2", 2}, {2, "8", 2},  {4, "0", 4},
               {4, "-1", 4},    {4, "x", 4}, {4, "", 4},  {4, "2x", 4}, {0, nullptr, 1}};
  for (const auto& c : cases) {
    EXPECT_EQ(hashThreadsFor(c.cores, c.setting), c.threads)
        << c.cores << " " << (c.setting ? c.setting : "(unset)");
  }
}

}  // namespace
