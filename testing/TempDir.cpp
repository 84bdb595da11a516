#include "testing/TempDir.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace testing_support {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/clockette-test-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed for " << templ;
  }
  path_ = templ;
}

TempDir::~TempDir() {
  nftw(
      path_.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) {
        chmod(p, 0700);  // a test may have made something unwritable
        return remove(p);
      },
      16, FTW_DEPTH | FTW_PHYS);
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(f.good()) << "cannot write " << path;
  f << content;
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  EXPECT_TRUE(f.good()) << "cannot read " << path;
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string readIfThere(const std::string& path) {
  return fileExists(path) ? readFile(path) : std::string();
}

bool waitForText(const std::string& path, const std::string& part, int timeoutSeconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  while (!fileExists(path) || !contains(readFile(path), part)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void makeDir(const std::string& path) { ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path; }

}  // namespace testing_support
