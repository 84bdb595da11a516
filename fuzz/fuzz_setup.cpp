// Feeds arbitrary bytes as a setup file (and, by the first byte, as a
// ".conf" file of the configuration list) through the setup reading: line
// rules, quote removal and both expansion passes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/Environment.h"
#include "base/Setup.h"
#include "base/String.h"
#include "fuzz/DiscardedLog.h"

namespace {

// Answers the references the expansion passes can resolve, and checks what
// would be stored without keeping it: the environment would grow with every
// input.
class CheckingEnvironment final : public Environment {
 public:
  const char* get(const char* name) const override {
    if (strcmp(name, "CONFIG") == 0) return config.c_str();
    if (strcmp(name, "ECM_CONF_DIRS") == 0) return confDirs.c_str();
    if (strcmp(name, "HOME") == 0) return "/home/fuzz";
    if (strcmp(name, "LONG") == 0) return longValue.c_str();
    return nullptr;
  }
  int set(const char* name, const char* value) override {
    // Every stored setting is NAME=VALUE within the expansion buffer.
    if (strlen(name) + 1 + strlen(value) >= static_cast<size_t>(kSetupBufferSize)) abort();
    return *name == '\0' ? -1 : 0;
  }
  std::string config, confDirs;
  std::string longValue = std::string(1500, 'x');
};

CheckingEnvironment& environment() {
  static CheckingEnvironment env;
  return env;
}

std::string directory() {
  static std::string dir = [] {
    static DiscardedLog quiet;
    char name[] = "/dev/shm/fuzz_setup.XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    // Replays run in every test run: leave nothing behind. (The path is
    // copied: the returned string may be gone when exit handlers run.)
    static char made[sizeof name];
    memcpy(made, name, sizeof name);
    atexit([] { std::filesystem::remove_all(made); });
    std::string d(name);
    mkdir((d + "/setup").c_str(), 0700);
    mkdir((d + "/conf").c_str(), 0700);
    environment().config = d;
    environment().confDirs = d + "/conf";
    return d;
  }();
  return dir;
}

void writeWhole(const std::string& path, const uint8_t* data, size_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) abort();
  if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string dir = directory();
  if (size > 0 && data[0] == 'C') {
    writeWhole(dir + "/conf/a.conf", data + 1, size - 1);
    String found;
    readConfigDirectory(environment(), "bare", &found);
    return 0;
  }
  writeWhole(dir + "/setup/F.Setup", data, size);
  readSetup(environment(), "F");
  return 0;
}
