#include "docfiles/Document.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Owners.h"
#include "base/Switch.h"
#include "docfiles/DocumentLock.h"
#include "docfiles/utl.h"

namespace {

// Names of the files the framework keeps in a document directory.
bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

DocumentOptions readDocumentOptions(const char* kvProtocol, const char* doubleQuoted) {
  Log log("Document", "readDocumentOptions", __FILE__, __LINE__, 13);
  DocumentOptions options;
  // Only "on" in any letter case keeps it on; unlike other switches, "yes"
  // and an empty value turn it off.
  if (kvProtocol != nullptr && String(kvProtocol).lower() != "on") options.protocolOn = false;
  if (doubleQuoted != nullptr && !switchIsOn(doubleQuoted)) options.quoting = false;
  log.msg(__LINE__, 8, "Env: DOUBLE_QUOTED_COMMANDS_ARGUMENTS='%s' (default=on)",
          options.quoting ? "on" : "off");
  return options;
}

Document::Document(const String& directory, const String& tag, int withProtocol, FileSystem& fs,
                   const DocumentOptions& options)
    : fs_(&fs),
      options_(options),
      tag_(tag),
      directory_(directory),
      commands_(new Commands(directory, tag, fs, options.tokenMode())) {
  Log log("Document", "Document", __FILE__, __LINE__, 13);
  if (withProtocol != 0) protocol_.reset(new Protocol(directory, tag, fs));
}

Document::~Document() {
  Log log("Document", "~Document", __FILE__, __LINE__, 13);
  fileHandles_.clear();
  commands_.reset();
  protocol_.reset();
}

int Document::openCommands() {
  Log log("Document", "openCommands", __FILE__, __LINE__, 13);
  return commands_->openCommands();
}

int Document::hasReadPermission() {
  Log log("Document", "hasReadPermission", __FILE__, __LINE__, 13);
  return commands_->openFile(FileH::kReadText, 0);
}

int Document::findKeyInCommands(const String& key) {
  Log log("Document", "findKeyInCommands", __FILE__, __LINE__, 13);
  return commands_->findKey(key);
}

int Document::getValueForFromCommands(const String& key, String& value) {
  Log log("Document", "getValueForFromCommands", __FILE__, __LINE__, 13);
  return commands_->getValueFor1(key, value);
}

String Document::getValueForFromCommands(const String& key) {
  Log log("Document", "getValueForFromCommands", __FILE__, __LINE__, 13);
  return commands_->getValueFor2(key);
}

int Document::getValueForFromCommands(const String& key, List<String>& values) {
  Log log("Document", "getValueForFromCommands", __FILE__, __LINE__, 13);
  return commands_->getValueFor3(key, values);
}

int Document::getValueForFromCommands(const char* key, char*** values) {
  Log log("Document", "getValueForFromCommands", __FILE__, __LINE__, 13);
  return commands_->getValueFor(key, values);
}

int Document::getValueForFromCommands(char*** lines) {
  Log log("Document", "getValueForFromCommands", __FILE__, __LINE__, 13);
  return commands_->readAll(lines);
}

int Document::getAllValuesFromCommands(List<CommandsEntries>& out) {
  Log log("Document", "getAllValuesFromCommands", __FILE__, __LINE__, 13);
  return commands_->readAll(out);
}

int Document::appendToCommands(const String& line) {
  Log log("Document", "appendToCommands", __FILE__, __LINE__, 13);
  return commands_->appendToBuffer1(line);
}

int Document::deleteFromCommands1(const List<CommandsEntries>& list) {
  Log log("Document", "deleteFromCommands1", __FILE__, __LINE__, 13);
  return commands_->deleteFromCommands2(list);
}

int Document::deleteFromCommands2(const CommandsEntries& e) {
  Log log("Document", "deleteFromCommands2", __FILE__, __LINE__, 13);
  return commands_->deleteFromCommands3(e);
}

int Document::deleteFromCommands3(const String& key, const String& value) {
  Log log("Document", "deleteFromCommands3", __FILE__, __LINE__, 13);
  return commands_->deleteFromCommands1(key, value);
}

int Document::integrateChanges() {
  Log log("Document", "integrateChanges", __FILE__, __LINE__, 13);
  return commands_->integrateChanges();
}

int Document::closeCommands() {
  Log log("Document", "closeCommands", __FILE__, __LINE__, 13);
  if (commands_->writeBuffer() == 0) return 0;
  return commands_->closeCommands() != 0 ? 1 : 0;
}

int Document::appendToProtocol(const String& text) {
  Log log("Document", "appendToProtocol", __FILE__, __LINE__, 13);
  if (!options_.protocolOn || !protocol_) return 1;
  return protocol_->appendToBuffer(text);
}

int Document::closeProtocol() {
  Log log("Document", "closeProtocol", __FILE__, __LINE__, 13);
  if (!protocol_) return 1;
  if (protocol_->writeBuffer() == 0) return 0;
  return protocol_->closeProtocol() != 0 ? 1 : 0;
}

int Document::closeAll() {
  Log log("Document", "closeAll", __FILE__, __LINE__, 13);
  int result = 1;
  if (commands_ && closeCommands() == 0) result = 0;
  if (protocol_ && closeProtocol() == 0) result = 0;
  for (auto& handle : fileHandles_) {
    if (handle->closeFile() == 0) result = 0;
  }
  return result;
}

FileH* Document::getfileHPtr(const String& fileName) {
  Log log("Document", "getfileHPtr", __FILE__, __LINE__, 13);
  for (auto& handle : fileHandles_) {
    if (*handle == fileName) return handle.get();
  }
  fileHandles_.push_back(std::make_unique<FileH>(fileName, tag_, *fs_));
  return fileHandles_.back().get();
}

FileH* Document::getFileH(const char* fileName) {
  Log log("Document", "getFileH", __FILE__, __LINE__, 13);
  return getfileHPtr(String(fileName));
}

int Document::docMessage(Log& log, int line, int level, const char* format, ...) {
  Log scope("Document", "docMessage", __FILE__, __LINE__, 13);
  va_list args;
  va_start(args, format);
  log.vmsg(line, level, format, args);
  va_end(args);
  char text[3000];
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  // Later errors are mostly consequences of the first.
  if (level <= 2 && failureReason_.empty()) failureReason_ = text;
  // Levels 5 and below are the error levels.
  String entry = level <= 5 ? String("ERROR: ") + text : String(text);
  return appendToProtocol(entry);
}

int Document::commandsReadable() {
  Log log("Document", "commandsReadable", __FILE__, __LINE__, 13);
  return commands_->readable();
}

bool Document::isBookkeepingName(const std::string& name) {
  return name == "COMMANDS" || name == "KVprotocol" || name == DocumentLock::kFileName ||
         name.compare(0, 9, "COMMANDS.") == 0;
}

int Document::isBookkeepingFile(const String& path, String* which) const {
  Log log("Document", "isBookkeepingFile", __FILE__, __LINE__, 13);
  struct stat dir;
  if (stat(directory_.c_str(), &dir) != 0) return 0;
  const std::string& p = path.str();
  size_t slash = p.rfind('/');
  std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "/" : p.substr(0, slash));
  std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
  // By name: "./COMMANDS", "../doc/COMMANDS" and a linked directory all
  // reach the same directory entry; a backup need not exist yet.
  struct stat status;
  if (isBookkeepingName(name) && stat(parent.c_str(), &status) == 0 && sameFile(status, dir)) {
    *which = directory_ + "/" + name;
    return 1;
  }
  // By identity: a link to one of them under another name.
  if (stat(p.c_str(), &status) != 0) return 0;
  DirPtr entries(opendir(directory_.c_str()));
  if (!entries) return 0;
  while (struct dirent* e = readdir(entries.get())) {
    if (!isBookkeepingName(e->d_name)) continue;
    String own = directory_ + "/" + e->d_name;
    struct stat ownStatus;
    if (stat(own.c_str(), &ownStatus) == 0 && sameFile(ownStatus, status)) {
      *which = own;
      return 1;
    }
  }
  return 0;
}

void Document::noteCreatedFile(const String& path) { createdFiles_.push_back(path); }

int Document::removeCreatedFiles() {
  Log log("Document", "removeCreatedFiles", __FILE__, __LINE__, 13);
  int result = 1;
  for (const String& file : createdFiles_) {
    if (fs_->unlink(file.c_str()) == 0) {
      log.msg(__LINE__, 8, "removed '%s', made for the failed document '%s'", file.c_str(),
              directory_.c_str());
    } else if (errno != ENOENT) {
      int err = errno;
      log.msg(__LINE__, 2, "cannot remove '%s', made for the failed document '%s': errno=%d (%s)",
              file.c_str(), directory_.c_str(), err, errnoText(err).c_str());
      result = 0;
    }
  }
  createdFiles_.clear();
  return result;
}
