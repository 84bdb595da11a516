// Feeds arbitrary bytes as a document's COMMANDS file through the reader
// (Commands, getKeyAndVal) and every value through the argument tokenizer
// (TextLine, both rule sets), then appends a statement, rewrites the file
// and reads it back: what a rewrite writes must read back as the same
// statements.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/List.h"
#include "base/String.h"
#include "docfiles/Commands.h"
#include "docfiles/CommandsEntries.h"
#include "docfiles/TextLine.h"
#include "fuzz/DiscardedLog.h"

namespace {

std::string directory() {
  static std::string dir = [] {
    static DiscardedLog quiet;
    char name[] = "/dev/shm/fuzz_commands.XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    // Replays run in every test run: leave nothing behind. (The path is
    // copied: the returned string may be gone when exit handlers run.)
    static char made[sizeof name];
    memcpy(made, name, sizeof name);
    atexit([] { std::filesystem::remove_all(made); });
    return std::string(name);
  }();
  return dir;
}

void writeWhole(const std::string& path, const uint8_t* data, size_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) abort();
  if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

void checkTokens(const String& value) {
  for (int mode : {0, 1}) {
    TextLine line(value.c_str());
    // A quoted empty argument yields null without ending the line; either
    // way a line of n characters cannot give more than n tokens.
    for (int32_t i = 0; i <= line.length(); ++i) {
      char* token = line.getNextToken(mode);
      if (token == nullptr) break;
      if (mode == 0) {
        // Plain rules: a token is a run of non-blank characters.
        if (token[0] == '\0') abort();
        for (const char* p = token; *p != '\0'; ++p) {
          if (isBlank(*p)) abort();
        }
      }
      TextLine::free(token);
    }
  }
}

void checkKeyAndValue(const CommandsEntries& e) {
  const std::string& key = e.key().str();
  const std::string& value = e.value().str();
  size_t first = key.find_first_not_of(" \t");
  // A key has a non-blank character and no blank after it; a value starts
  // with none.
  if (key.empty() || first == std::string::npos) abort();
  if (key.find_first_of(" \t", first) != std::string::npos) abort();
  if (!value.empty() && isBlank(value[0])) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string dir = directory();
  unlink((dir + "/COMMANDS.fuzz").c_str());
  writeWhole(dir + "/COMMANDS", data, size);

  List<CommandsEntries> before;
  {
    Commands commands(dir, "fuzz");
    commands.readAll(before);
    for (const CommandsEntries& e : before) {
      checkKeyAndValue(e);
      checkTokens(e.value());
    }
    String last;
    commands.getValueFor1("TIMESTAMP_FILE", last);
    commands.appendToBuffer1(String("COMP_TIMESTAMP_FILE \"c\" \"c_ts0.txt\""));
    if (commands.integrateChanges() != 1) return 0;
    List<CommandsEntries> merged;
    commands.readAll(merged);
    if (commands.writeBuffer() != 1 || commands.closeCommands() != 1) return 0;

    // Another worker's reader (another backup suffix, so the backup this
    // one left is not restored) sees exactly the merged statements.
    Commands reader(dir, "reader");
    List<CommandsEntries> after;
    reader.readAll(after);
    if (after.count() != merged.count()) abort();
    auto m = merged.begin();
    for (const CommandsEntries& e : after) {
      if (!(e == *m)) abort();
      ++m;
    }
  }
  return 0;
}
