#include "docfiles/RolledBackStamps.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "docfiles/TextLine.h"

namespace {

constexpr size_t kMaxCommands = 64 << 20;  // a COMMANDS file larger than this is left alone

// The tokens of each line of the regular file at path (not followed through
// a symbolic link); false when it cannot be read.
bool readStatements(int dir, const std::string& name, int tokenMode,
                    std::vector<std::vector<std::string>>* statements) {
  UniqueFd fd(openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<size_t>(st.st_size) > kMaxCommands) {
    return false;
  }
  std::string text;
  char block[65536];
  ssize_t n;
  while ((n = read(fd.get(), block, sizeof block)) > 0 && text.size() <= kMaxCommands) {
    text.append(block, static_cast<size_t>(n));
  }
  if (n < 0) return false;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    TextLine line(text.substr(start, end - start).c_str());
    std::vector<std::string> tokens;
    while (TextLine::Token t{line.getNextToken(tokenMode)}) tokens.emplace_back(t.get());
    statements->push_back(std::move(tokens));
    start = end + 1;
  }
  return true;
}

bool isStampStatement(const std::vector<std::string>& s) {
  return s.size() >= 3 && s[0] == "COMP_TIMESTAMP_FILE";
}

// "<name>_ts<digits>.txt", the only names the worker gives timestamp files.
bool isStampName(const std::string& name, const std::string& file) {
  std::string head = name + "_ts";
  if (file.find('/') != std::string::npos || file.size() <= head.size() + 4 ||
      file.compare(0, head.size(), head) != 0 || file.compare(file.size() - 4, 4, ".txt") != 0) {
    return false;
  }
  for (size_t i = head.size(); i < file.size() - 4; ++i) {
    if (!isdigit(static_cast<unsigned char>(file[i]))) return false;
  }
  return true;
}

void addTokens(const std::vector<std::vector<std::string>>& statements,
               std::set<std::string>* tokens) {
  for (const auto& s : statements) tokens->insert(s.begin() + (s.empty() ? 0 : 1), s.end());
}

}  // namespace

std::vector<std::string> rolledBackStamps(const std::string& commands, const std::string& backup,
                                          int tokenMode) {
  Log log("RolledBackStamps", "rolledBackStamps", __FILE__, __LINE__, 13);
  size_t slash = commands.rfind('/');
  std::string directory = slash == std::string::npos ? "." : commands.substr(0, slash);
  UniqueFd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string backupName = backup.substr(backup.rfind('/') + 1);
  std::vector<std::vector<std::string>> now, before;
  // Only a backup that will be restored: a regular file of this worker's user.
  struct stat b;
  if (!dir.valid() || fstatat(dir.get(), backupName.c_str(), &b, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(b.st_mode) || b.st_uid != geteuid() ||
      !readStatements(dir.get(), commands.substr(slash + 1), tokenMode, &now) ||
      !readStatements(dir.get(), backupName, tokenMode, &before)) {
    return {};
  }
  std::set<std::pair<std::string, std::string>> kept;
  for (const auto& s : before) {
    if (isStampStatement(s)) kept.insert({s[1], s[2]});
  }
  std::vector<std::string> candidates;
  std::set<std::string> named;  // by any statement that is not taken back
  addTokens(before, &named);
  for (const auto& s : now) {
    if (isStampStatement(s) && kept.count({s[1], s[2]}) == 0 && isStampName(s[1], s[2])) {
      candidates.push_back(s[2]);
    } else {
      addTokens({s}, &named);
    }
  }
  if (candidates.empty()) return {};
  // Other workers' backups may still name a file.
  DirPtr entries(opendir(directory.c_str()));
  while (struct dirent* e = entries ? readdir(entries.get()) : nullptr) {
    std::string name = e->d_name;
    if (name.compare(0, 9, "COMMANDS.") != 0 || name == backupName) continue;
    std::vector<std::vector<std::string>> other;
    if (readStatements(dir.get(), name, tokenMode, &other)) addTokens(other, &named);
  }
  std::vector<std::string> files;
  for (const std::string& file : candidates) {
    if (named.count(file) == 0) files.push_back(directory + "/" + file);
  }
  return files;
}

int removeStampFiles(const std::vector<std::string>& files) {
  Log log("RolledBackStamps", "removeStampFiles", __FILE__, __LINE__, 13);
  int removed = 0;
  for (const std::string& file : files) {
    struct stat st;
    if (lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || unlink(file.c_str()) != 0) {
      continue;
    }
    log.msg(__LINE__, 8, "removed '%s': its statement was taken back with the backup",
            file.c_str());
    ++removed;
  }
  return removed;
}
