#include "tools/verify/StampedFiles.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>

#include "base/List.h"
#include "base/Owners.h"
#include "base/String.h"
#include "docfiles/Commands.h"
#include "docfiles/TextLine.h"

namespace {

// No worker uses this tag, so no backup file carries it: reading restores nothing.
const char kReaderTag[] = "clockette-verify";

using Token = TextLine::Token;

// The first count tokens of a statement value; empty when one is missing.
std::vector<std::string> tokensOf(const String& value, int count, int mode) {
  TextLine line(value.c_str());
  std::vector<std::string> tokens;
  for (int i = 0; i < count; ++i) {
    Token t(line.getNextToken(mode));
    if (!t) return {};
    tokens.emplace_back(t.get());
  }
  return tokens;
}

std::string pathOf(const std::string& dir, const std::string& token) {
  bool absolute = token[0] == '/' || token[0] == '\\' || (token.size() > 1 && token[1] == ':');
  return absolute ? token : dir + "/" + token;
}

std::vector<String> valuesOf(Commands* commands, const char* key) {
  List<String> values;
  commands->getValueFor3(String(key), values);
  return std::vector<String>(values.begin(), values.end());
}

void readDocument(const std::string& dir, int mode, std::vector<StampedFile>* out) {
  Commands commands(String(dir.c_str()), String(kReaderTag));
  for (const String& value : valuesOf(&commands, "TIMESTAMP_FILE")) {
    std::vector<std::string> t = tokensOf(value, 2, mode);
    // The worker skips such a statement too: it names no timestamp file.
    if (t.empty()) continue;
    out->push_back({dir, pathOf(dir, t[0]), pathOf(dir, t[1]), ""});
  }
  std::map<std::string, std::string> componentFiles;
  for (const String& value : valuesOf(&commands, "COMP")) {
    std::vector<std::string> t = tokensOf(value, 3, mode);
    if (!t.empty()) componentFiles.emplace(t[0], t[2]);
  }
  for (const String& value : valuesOf(&commands, "COMP_TIMESTAMP_FILE")) {
    std::vector<std::string> t = tokensOf(value, 2, mode);
    if (t.empty()) {
      out->push_back({dir, "", dir + "/COMMANDS",
                      "COMP_TIMESTAMP_FILE statement without name and file: '" +
                          std::string(value.c_str()) + "'"});
      continue;
    }
    auto it = componentFiles.find(t[0]);
    if (it == componentFiles.end()) {
      out->push_back(
          {dir, "", pathOf(dir, t[1]), "no COMP statement for component '" + t[0] + "'"});
    } else {
      out->push_back({dir, pathOf(dir, it->second), pathOf(dir, t[1]), ""});
    }
  }
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int findStampedFiles(const std::string& root, std::vector<StampedFile>* out, int tokenMode) {
  if (!isDirectory(root)) return -1;
  struct stat st;
  int documents = 0;
  if (stat((root + "/COMMANDS").c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    readDocument(root, tokenMode, out);
    ++documents;
  }
  std::vector<std::string> names;
  if (DirPtr d{opendir(root.c_str())}) {
    while (dirent* e = readdir(d.get())) {
      std::string name = e->d_name;
      if (name != "." && name != ".." && isDirectory(root + "/" + name)) names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    documents += findStampedFiles(root + "/" + name, out, tokenMode);
  }
  return documents;
}
