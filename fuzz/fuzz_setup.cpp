// Feeds arbitrary bytes as a setup file (and, by the first byte, as a
// ".conf" file of the configuration list) through the setup reading: line
// rules, quote removal and both expansion passes. The settings go to a
// collector instead of the process environment, which would grow with every
// input.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/Setup.h"
#include "base/String.h"
#include "fuzz/DiscardedLog.h"

namespace {

int collect(void* /*context*/, const char* text) {
  // Every stored text is NAME=VALUE within the expansion buffer.
  size_t length = strlen(text);
  if (length >= static_cast<size_t>(kSetupBufferSize)) abort();
  if (strchr(text, '=') == nullptr) abort();
  return 0;
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
    setenv("CONFIG", d.c_str(), 1);
    setenv("ECM_CONF_DIRS", (d + "/conf").c_str(), 1);
    // References the expansion passes can resolve.
    setenv("HOME", "/home/fuzz", 1);
    setenv("LONG", std::string(1500, 'x').c_str(), 1);
    setEnvironmentSetter(collect, nullptr);
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
    readConfigDirectory("bare", &found);
    return 0;
  }
  writeWhole(dir + "/setup/F.Setup", data, size);
  readSetup("F");
  return 0;
}
