#include "base/SecretFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
    int group;            // 0: as made; 1: the process's own (owner root); 2: another
    const char* secret;   // null: refused
    const char* problem;  // a part of the text when refused
  } cases[] = {
      {"plain", "pass word\n", 0600, 0, "pass word", nullptr},
      {"crlf", "pw\r\nsecond line\n", 0400, 0, "pw", nullptr},
      {"no line end", "pw", 0620, 0, "pw", nullptr},  // a writable group reads nothing
      {"root and own group", "pw\n", 0640, 1, "pw", nullptr},
      {"group", "pw\n", 0640, 2, nullptr, "may be read by its group or others (mode 0640)"},
      {"others", "pw\n", 0644, 1, nullptr, "(mode 0644)"},
      {"long", std::string(5000, 'x'), 0600, 0, nullptr, "is too long for a password"},
      {"directory", "", 0700, 0, nullptr, "is no regular file"},
      {"missing", "", 0, 0, nullptr, "cannot be read: No such file or directory"},
  };
  for (const Case& c : cases) {
    std::string path = dir.file(c.name);
    if (!c.content.empty()) writeFile(path, c.content);
    if (c.mode != 0) chmod(path.c_str(), c.mode);
    // Handing a file to root or to a foreign group takes root.
    if (c.group != 0 && chown(path.c_str(), 0, getegid() + (c.group == 2 ? 1 : 0)) != 0) continue;
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
