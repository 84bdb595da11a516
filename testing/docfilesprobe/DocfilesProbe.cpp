// docfiles_probe: runs document-file operations in a process of its own, for
// tests of what only shows across processes: switches read once per
// process, and a COMMANDS rewrite killed half-way.
//
// Each argument is one step, run in order:
//   env:NAME=VALUE            setenv
//   tok:<line>                prints the tokens of line as [t1][t2]... and
//                             a newline; stops at the first null token
//   proto:<dir>:<0|1>:<text>  Document(dir, "probe", 0|1), appendToProtocol,
//                             closeAll; prints "proto <result>"
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
#include "docfiles/TextLine.h"

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

void tokens(const std::string& line) {
  TextLine t(line.c_str());
  std::string out;
  while (char* token = t.getNextToken()) {
    out += "[" + std::string(token) + "]";
    TextLine::free(token);
  }
  printf("%s\n", out.c_str());
}

int proto(const std::string& args) {
  Document doc(field(args, 0).c_str(), "probe", atoi(field(args, 1).c_str()));
  doc.appendToProtocol(field(args, 2).c_str());
  return doc.closeAll();
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
    if (verb == "env") {
      size_t eq = rest.find('=');
      setenv(rest.substr(0, eq).c_str(), rest.substr(eq + 1).c_str(), 1);
    } else if (verb == "tok") {
      tokens(rest);
    } else if (verb == "proto") {
      printf("proto %d\n", proto(rest));
    } else if (verb == "rewrite") {
      printf("done %d\n", rewrite(rest));
    } else {
      fprintf(stderr, "unknown step '%s'\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
