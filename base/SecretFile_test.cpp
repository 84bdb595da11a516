#include "base/SecretFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "testing/TempDir.h"

using namespace testing_support;

TEST(SecretFile, ReadsTheFirstLineOfARegularFileOnlyItsOwnerMayRead) {
  TempDir dir;
  makeDir(dir.file("directory"));
  struct Case {
    const char* name;
    std::string content;  // written unless the file is there already
    mode_t mode;
    const char* secret;   // null: refused
    const char* problem;  // a part of the text when refused
  } cases[] = {
      {"plain", "pass word\n", 0600, "pass word", nullptr},
      {"crlf", "pw\r\nsecond line\n", 0400, "pw", nullptr},
      {"no line end", "pw", 0620, "pw", nullptr},  // a writable group reads nothing
      {"group", "pw\n", 0640, nullptr, "may be read by its group or others (mode 0640)"},
      {"others", "pw\n", 0604, nullptr, "(mode 0604)"},
      {"long", std::string(5000, 'x'), 0600, nullptr, "is too long for a password"},
      {"directory", "", 0700, nullptr, "is no regular file"},
      {"missing", "", 0, nullptr, "cannot be read: No such file or directory"},
  };
  for (const Case& c : cases) {
    std::string path = dir.file(c.name);
    if (!c.content.empty()) writeFile(path, c.content);
    if (c.mode != 0) chmod(path.c_str(), c.mode);
    std::string secret = "left over", problem;
    bool read = readSecretFile(path.c_str(), &secret, &problem);
    EXPECT_EQ(read, c.secret != nullptr) << c.name << ": " << problem;
    if (read) {
      EXPECT_EQ(secret, c.secret) << c.name;
    } else {
      EXPECT_EQ(secret, "") << c.name;
      EXPECT_EQ(problem.rfind("'" + path + "' ", 0), 0u) << problem;
      EXPECT_TRUE(contains(problem, c.problem)) << problem;
    }
  }
}
