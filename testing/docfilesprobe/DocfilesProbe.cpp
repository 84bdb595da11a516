// docfiles_probe: runs document-file operations in a process of its own, for
// tests of what only shows across processes: a COMMANDS rewrite killed
// half-way.
//
// Each argument is one step, run in order:
//   rewrite:<dir>:<tag>:<n>   Document(dir, tag, 0): reads COMMANDS, marks
//                             the first statement deleted, appends a line,
//                             and closes; after statement n of the rewrite
//                             it prints "STOPPED" and waits to be killed.
//                             Prints "done <result>" if it gets to the end.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/List.h"
#include "base/String.h"
#include "docfiles/Document.h"

namespace {

int g_stopAt = 0;

void stopHere(int written) {
  if (written != g_stopAt) return;
  printf("STOPPED\n");
  fflush(stdout);
  for (;;) pause();
}

// Field index (0 to 2) of "a:b:c"; the third keeps the rest, colons and all.
std::string field(const std::string& s, int index) {
  size_t start = 0;
  for (int i = 0; i < index; ++i) start = s.find(':', start) + 1;
  return s.substr(start, index == 2 ? std::string::npos : s.find(':', start) - start);
}

int rewrite(const std::string& args) {
  Document doc(field(args, 0).c_str(), field(args, 1).c_str(), 0);
  g_stopAt = atoi(field(args, 2).c_str());
  Commands::rewriteProbe = stopHere;
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
