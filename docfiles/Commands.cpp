#include "docfiles/Commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "base/ReplaceFile.h"
#include "docfiles/RolledBackStamps.h"
#include "docfiles/TextLine.h"
#include "docfiles/utl.h"

namespace {

// A malloc'ed copy of text, or null when memory ran out.
char* copyText(const String& text) {
  char* p = static_cast<char*>(malloc(text.length() + 1));
  if (p != nullptr) memcpy(p, text.c_str(), text.length() + 1);
  return p;
}

// Frees a null-ended array of texts as handed out by readAll(char***).
void freeTexts(char** texts) {
  if (texts == nullptr) return;
  for (char** p = texts; *p != nullptr; ++p) free(*p);
  free(texts);
}

// Builds a malloc'ed null-ended array from texts; -1 when memory ran out.
int toTextArray(const List<String>& texts, char*** out) {
  *out = static_cast<char**>(calloc(texts.count() + 1, sizeof(char*)));
  if (*out == nullptr) return -1;
  size_t i = 0;
  for (const String& t : texts) {
    (*out)[i] = copyText(t);
    if ((*out)[i] == nullptr) {
      freeTexts(*out);
      *out = nullptr;
      return -1;
    }
    ++i;
  }
  return static_cast<int>(i);
}

// True when the file's last byte ends no line: an appended line would then be
// glued to the last statement.
bool lacksFinalLineEnd(const String& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY));
  struct stat status;
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || status.st_size == 0) return false;
  char last = '\n';
  if (pread(fd.get(), &last, 1, status.st_size - 1) != 1) return false;
  // A lone CR at the end does not do: the appended line would sit behind
  // that CR and be cut off by every reader.
  return last != '\n';
}

// True when line holds anything but line ends and blanks after its first CR.
bool holdsTextAfterCr(const String& line) {
  long cr = line.index('\r');
  if (cr < 0) return false;
  for (size_t i = static_cast<size_t>(cr) + 1; i < line.length(); ++i) {
    char c = line[i];
    if (c != '\r' && c != '\n' && c != ' ' && c != '\t') return true;
  }
  return false;
}

}  // namespace

Commands::Commands(const String& dir, const String& suffix, FileSystem& fs, int tokenMode)
    : FileH(dir + "/COMMANDS", suffix, fs), tokenMode_(tokenMode) {
  Log log("Commands", "Commands", __FILE__, __LINE__, 13);
}

Commands::~Commands() {
  Log log("Commands", "~Commands", __FILE__, __LINE__, 13);
  closeCommands();
}

int Commands::openCommands() {
  Log log("Commands", "openCommands", __FILE__, __LINE__, 13);
  if (isOpen()) {
    log.msg(__LINE__, 9, "\n    COMMANDS file already open");
    return 1;
  }
  struct stat status;
  bool regular = false;
  if (lstat(fileName().c_str(), &status) == 0) {
    regular = S_ISREG(status.st_mode);
  } else if (errno != ENOENT) {
    log.msg(__LINE__, 1, "\n    stat64() failed\n    message: '%s' (file '%s')",
            errnoText(errno).c_str(), fileName().c_str());
    return 0;
  }
  return openFile(regular ? kAppendUpdate : kWriteText, 0);
}

int Commands::openForRead() {
  Log log("Commands", "openForRead", __FILE__, __LINE__, 13);
  missing_ = false;
  if (closeCommands() != 1) return 0;
  // The timestamp files of the statements the restore takes back go with them.
  std::vector<std::string> takenBack;
  if (!recovered()) {
    takenBack = rolledBackStamps(fileName().str(), backupName().str(), tokenMode_);
  }
  if (recoverFromBackup() != 1) return 0;
  removeStampFiles(takenBack);
  int result = openFile(kReadText, 0);
  missing_ = result != 1 && openError() == ENOENT;
  return result;
}

int Commands::openForWrite() {
  Log log("Commands", "openForWrite", __FILE__, __LINE__, 13);
  if (closeCommands() != 1) return 0;
  if (makeBackupCopy() != 1) return 0;
  return openFile(kWriteText, 0);
}

int Commands::openForAppend() {
  Log log("Commands", "openForAppend", __FILE__, __LINE__, 13);
  if (closeCommands() != 1) return 0;
  if (makeBackupCopy() != 1) return 0;
  return openFile(kAppendText, 0);
}

int Commands::closeCommands() {
  Log log("Commands", "closeCommands", __FILE__, __LINE__, 13);
  if (isOpen()) return closeFile();
  log.msg(__LINE__, 9, "nothing open ");
  return 1;
}

int Commands::addEntry(const String& line) {
  String key;
  String value;
  if (getKeyAndVal(line, key, value) != 1) return -1;
  return entries_.put(CommandsEntries(key, value)) == 1 ? 1 : 0;
}

int Commands::readAll() {
  Log log("Commands", "readAll", __FILE__, __LINE__, 13);
  if (!entries_.empty()) {
    log.msg(__LINE__, 9, "allready read");
    return 1;
  }
  if (openForRead() != 1) return 0;
  String line;
  int r;
  while ((r = readNextLine(line)) == 1) {
    // Every worker of the pipeline ends a line at its first CR: text after a
    // CR inside a line is no statement here either, but it is noted so that a
    // rewrite, which would lose it, is refused.
    if (holdsTextAfterCr(line)) textAfterCr_ = 1;
    if (addEntry(line) == 0) {
      log.msg(__LINE__, 2, "entries.put-Error ?? ");
      entries_.clear();
      return 0;
    }
  }
  if (r == 0) {
    // A read error: half a file must never be written back.
    entries_.clear();
    return 0;
  }
  return 1;
}

int Commands::readable() {
  Log log("Commands", "readable", __FILE__, __LINE__, 13);
  if (!entries_.empty()) return 1;
  int read = readAll();
  // Closed again: the tool's service finds COMMANDS as it would without this
  // check (hasReadPermission, for one, opens it itself).
  closeCommands();
  if (read == 1 || missing_) return 1;
  log.msg(__LINE__, 2, "COMMANDS file '%s' exists but cannot be read", fileName().c_str());
  return 0;
}

int Commands::readAll(List<CommandsEntries>& out) {
  Log log("Commands", "readAll", __FILE__, __LINE__, 13);
  if (entries_.empty()) {
    readAll();
  } else {
    log.msg(__LINE__, 9, "allready read");
  }
  out = entries_;
  return 1;
}

int Commands::readAll(char*** out) {
  Log log("Commands", "readAll", __FILE__, __LINE__, 13);
  readAll();
  List<String> texts;
  for (const CommandsEntries& e : entries_) {
    if (texts.put(e.value().empty() ? e.key() : e.key() + " " + e.value()) != 1) return -1;
  }
  return toTextArray(texts, out);
}

int Commands::read(const List<String>& keys, List<CommandsEntries>& out) {
  Log log("Commands", "read", __FILE__, __LINE__, 13);
  readAll();
  for (const String& key : keys) {
    for (const CommandsEntries& e : entries_) {
      if (e.key() == key) {
        out.put(e);
        break;
      }
    }
  }
  return 1;
}

int Commands::getValueFor1(const String& key, String& value) {
  Log log("Commands", "getValueFor1", __FILE__, __LINE__, 13);
  value = "";
  readAll();
  int count = 0;
  for (const CommandsEntries& e : entries_) {
    if (e.key() == key) {
      value = e.value();
      ++count;
    }
  }
  log.msg(__LINE__, 9, "%s: '%s' (%d found)", key.c_str(), value.c_str(), count);
  return count;
}

String Commands::getValueFor2(const String& key) {
  Log log("Commands", "getValueFor2", __FILE__, __LINE__, 13);
  String value;
  getValueFor1(key, value);
  return value;
}

int Commands::getValueFor3(const String& key, List<String>& values) {
  Log log("Commands", "getValueFor3", __FILE__, __LINE__, 13);
  readAll();
  int count = 0;
  for (const CommandsEntries& e : entries_) {
    if (e.key() == key && values.put(e.value()) == 1) ++count;
  }
  return count;
}

int Commands::getValueFor(const char* key, char*** values) {
  Log log("Commands", "getValueFor", __FILE__, __LINE__, 13);
  List<String> found;
  getValueFor3(String(key), found);
  return toTextArray(found, values);
}

int Commands::findKey(const String& key) {
  Log log("Commands", "findKey", __FILE__, __LINE__, 13);
  readAll();
  int count = 0;
  for (const CommandsEntries& e : entries_) {
    if (e.key() == key) ++count;
  }
  return count;
}

int Commands::appendToBuffer1(const String& line) {
  Log log("Commands", "appendToBuffer1", __FILE__, __LINE__, 13);
  if (toAdd_.put(line) != 1) {
    log.msg(__LINE__, 2, "to_add.put-Error ?? ");
    return 0;
  }
  return 1;
}

int Commands::appendToBuffer1(const List<String>& lines) {
  Log log("Commands", "appendToBuffer1", __FILE__, __LINE__, 13);
  for (const String& line : lines) {
    if (appendToBuffer1(line) != 1) return 0;
  }
  return 1;
}

int Commands::deleteFromCommands1(const String& key, const String& value) {
  Log log("Commands", "deleteFromCommands1", __FILE__, __LINE__, 13);
  return deleteFromCommands3(CommandsEntries(key, value));
}

int Commands::deleteFromCommands2(const List<CommandsEntries>& list) {
  Log log("Commands", "deleteFromCommands2", __FILE__, __LINE__, 13);
  int total = 0;
  for (const CommandsEntries& e : list) {
    int r = deleteFromCommands3(e);
    // One statement that matches nothing ends the run with its result, even
    // when earlier ones were marked; callers rely on this.
    if (r < 1) return r;
    total += r;
  }
  return total;
}

int Commands::deleteFromCommands3(const CommandsEntries& e) {
  Log log("Commands", "deleteFromCommands3", __FILE__, __LINE__, 13);
  if (entries_.empty()) {
    int r = readAll();
    if (r <= 0) return r - 1;
  }
  int marked = 0;
  for (CommandsEntries& entry : entries_) {
    if (entry == e) {
      entry.setDeleted(1);
      deletionsPending_ = 1;
      ++marked;
    }
  }
  log.msg(__LINE__, 9, "%d statement(s) '%s' '%s' marked for deletion", marked, e.key().c_str(),
          e.value().c_str());
  return marked;
}

int Commands::integrateChanges() {
  Log log("Commands", "integrateChanges", __FILE__, __LINE__, 13);
  if (entries_.empty() && readAll() == 0) return 0;
  if (deletionsPending_) {
    for (auto it = entries_.begin(); it != entries_.end();) {
      it = it->deleted() ? entries_.erase(it) : std::next(it);
    }
  }
  if (toAdd_.empty()) {
    integrated_ = 1;
    return 1;
  }
  for (const String& line : toAdd_) {
    if (addEntry(line) == 0) return 0;
  }
  toAdd_.clear();
  integrated_ = 1;
  return 1;
}

int Commands::writeBuffer() {
  Log log("Commands", "writeBuffer", __FILE__, __LINE__, 13);
  bool rewrite = (deletionsPending_ || integrated_) && !entries_.empty();
  if (rewrite) {
    if (textAfterCr_) {
      log.msg(__LINE__, 2,
              "COMMANDS file '%s' holds text after a carriage return inside a line; it is not "
              "rewritten, since that text would be lost",
              fileName().c_str());
      return 0;
    }
    if (rewriteWhole() != 1) return 0;
    // The document closes COMMANDS more than once (closeCommands, then
    // closeAll), and each close rewrites it from memory: the lines just
    // appended must be in memory too, or the next rewrite would drop them.
    for (const String& line : toAdd_) addEntry(line);
  } else if (!toAdd_.empty() && appendLines() != 1) {
    return 0;
  }
  toAdd_.clear();
  return 1;
}

int Commands::rewriteWhole() {
  Log log("Commands", "rewriteWhole", __FILE__, __LINE__, 13);
  if (closeCommands() != 1 || makeBackupCopy() != 1) return 0;
  std::string text;
  for (const CommandsEntries& e : entries_) {
    if (e.deleted()) continue;
    text += e.key().str() + "\t" + e.value().str() + "\n";
  }
  for (const String& line : toAdd_) text += line.str() + "\n";
  std::string step;
  const char* path = fileName().c_str();
  int err = writeReplacement(path, text.data(), text.size(), &step, fileSystem());
  if (err == 0) err = commitReplacement(path, &step, false, fileSystem());
  bool replaced = err == 0;
  if (replaced) err = syncDirectoryOf(path, &step, fileSystem());
  if (err == 0) return 1;
  log.msg(__LINE__, 3, "can't rewrite COMMANDS file '%s': %s failed: errno = '%s'", path,
          step.c_str(), errnoText(err).c_str());
  // Replaced but perhaps not on disk: the backup stays for the next read.
  if (!replaced) dropNewBackup();
  return 0;
}

int Commands::appendLines() {
  Log log("Commands", "appendLines", __FILE__, __LINE__, 13);
  if (openForAppend() != 1) {
    dropNewBackup();
    return 0;
  }
  // Only a line end is added in front; the bytes on disk stay as they are.
  std::string text = lacksFinalLineEnd(fileName()) ? "\n" : "";
  for (const String& line : toAdd_) text += line.str() + "\n";
  if (appendWhole(String(std::move(text))) == 1) return 1;
  closeCommands();
  dropNewBackup();
  return 0;
}

int Commands::write1(const String& line) {
  Log log("Commands", "write1", __FILE__, __LINE__, 13);
  List<String> lines;
  if (lines.put(line) != 1) return 0;
  return write2(lines);
}

int Commands::write2(const List<String>& lines) {
  Log log("Commands", "write2", __FILE__, __LINE__, 13);
  for (const String& line : lines) {
    if (writeLineToFile(line) != 1) return 0;
  }
  return 1;
}

int Commands::write3(const List<CommandsEntries>& list) {
  Log log("Commands", "write3", __FILE__, __LINE__, 13);
  for (const CommandsEntries& e : list) {
    if (e.deleted()) continue;
    if (writeLineToFile(e.key() + "\t" + e.value()) != 1) return 0;
  }
  return 1;
}
