// docfiles_probe: runs document-file operations in a process of its own, for
// tests of what only shows across processes: a COMMANDS rewrite killed
// half-way.
//
// Each argument is one step, run in order:
//   rewrite:<dir>:<tag>:<n>   Document(dir, tag, 0): reads COMMANDS, marks
//                             the first statement deleted, appends a line,
//                             and closes; once the first n statements of
//                             the rewritten copy are on disk it prints
//                             "STOPPED" and waits to be killed.
//                             Prints "done <result>" if it gets to the end.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "base/FileSystem.h"
#include "base/List.h"
#include "base/ReplaceFile.h"
#include "base/String.h"
#include "docfiles/Document.h"

namespace {

// The system's calls, but the write of the new copy of one file stops the
// process after its first lines: a rewrite killed half-way.
class StopInRewrite final : public FileSystem {
 public:
  StopInRewrite(const std::string& path, int lines)
      : temporary_(replaceFileTemporary(path.c_str())), lines_(lines) {}

  int open(const char* path, int flags, mode_t mode) override {
    int fd = posix().open(path, flags, mode);
    if (fd >= 0) paths_[fd] = path;
    return fd;
  }
  ssize_t write(int fd, const void* data, size_t size) override {
    if (paths_[fd] != temporary_) return posix().write(fd, data, size);
    const char* text = static_cast<const char*>(data);
    size_t keep = 0;
    for (int line = 0; line < lines_ && keep < size; ++line) {
      const void* end = memchr(text + keep, '\n', size - keep);
      keep = end == nullptr ? size : static_cast<size_t>(static_cast<const char*>(end) - text) + 1;
    }
    writeWhole(posix(), fd, text, keep);
    printf("STOPPED\n");
    fflush(stdout);
    for (;;) pause();
  }
  int sync(int fd) override { return posix().sync(fd); }
  int truncate(int fd, off_t length) override { return posix().truncate(fd, length); }
  int rename(const char* from, const char* to) override { return posix().rename(from, to); }
  int unlink(const char* path) override { return posix().unlink(path); }
  int syncDirectory(const char* directory) override { return posix().syncDirectory(directory); }
  int tryLock(int fd) override { return posix().tryLock(fd); }

 private:
  const std::string temporary_;
  const int lines_;
  std::map<int, std::string> paths_;  // what each descriptor was opened as
};

// Field index (0 to 2) of "a:b:c"; the third keeps the rest, colons and all.
std::string field(const std::string& s, int index) {
  size_t start = 0;
  for (int i = 0; i < index; ++i) start = s.find(':', start) + 1;
  return s.substr(start, index == 2 ? std::string::npos : s.find(':', start) - start);
}

int rewrite(const std::string& args) {
  const std::string dir = field(args, 0);
  StopInRewrite fs(dir + "/COMMANDS", atoi(field(args, 2).c_str()));
  Document doc(dir.c_str(), field(args, 1).c_str(), 0, fs);
  List<CommandsEntries> all;
  doc.getAllValuesFromCommands(all);
  if (all.empty()) return 0;
  doc.deleteFromCommands2(all[0]);
  doc.appendToCommands("ADDED by probe");
  return doc.closeAll();
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  for (int i = 1; i < argc; ++i) {
    std::string step = argv[i];
    size_t colon = step.find(':');
    std::string verb = step.substr(0, colon);
    std::string rest = colon == std::string::npos ? "" : step.substr(colon + 1);
    if (verb == "rewrite") {
      printf("done %d\n", rewrite(rest));
    } else {
      fprintf(stderr, "unknown step '%s'\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
