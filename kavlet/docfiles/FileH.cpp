#include "kavlet/docfiles/FileH.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "base/Log.h"
#include "kavlet/docfiles/utl.h"

namespace {

const char* modeOf(int type) {
  static const char* const kModes[] = {nullptr, "rb", "rt", "wb",  "wt",  "ab", "at",
                                       "r+",    "w+", "a+", "r+b", "w+b", "a+b"};
  return type >= 1 && type <= 12 ? kModes[type] : nullptr;
}

constexpr size_t kLineBuffer = 65536;

}  // namespace

FileH::FileH(const String& fileName, const String& suffix) : fileName_(fileName), suffix_(suffix) {
  Log log("FileH", "FileH", __FILE__, __LINE__, 13);
}

FileH::~FileH() {
  Log log("FileH", "~FileH", __FILE__, __LINE__, 13);
  if (isOpen()) FileH::closeFile();
}

int FileH::openFile(int type, int flag) {
  Log log("FileH", "openFile", __FILE__, __LINE__, 13);
  if (isOpen()) {
    log.msg(__LINE__, 3, "file '%s' is allready open", fileName_.c_str());
    return 0;
  }
  const char* mode = modeOf(type);
  if (mode == nullptr) {
    log.msg(__LINE__, 2, "wrong type: %d", type);
    return 0;
  }
  FILE* f = fopen(fileName_.c_str(), mode);
  if (f == nullptr) {
    log.msg(__LINE__, 3 + flag, "cannot open file %s: errno=%s", fileName_.c_str(),
            errnoText(errno).c_str());
    return 0;
  }
  stream_.reset(f);
  type_ = type;
  log.msg(__LINE__, 9, "open file '%s'", fileName_.c_str());
  return 1;
}

int FileH::closeFile() {
  Log log("FileH", "closeFile", __FILE__, __LINE__, 13);
  if (!isOpen()) {
    log.msg(__LINE__, 9, "file '%s' is already closed", fileName_.c_str());
    return 1;
  }
  int result = 1;
  // Only the plain write and append modes reach the disk before the close;
  // the update modes (an "a+" COMMANDS among them) deliberately do not.
  if (type_ >= kWriteBinary && type_ <= kAppendText) {
    if (fflush(stream_.get()) != 0) {
      log.msg(__LINE__, 3, "can't fflush file %s; the call of function fflush() failed:'%s'",
              fileName_.c_str(), errnoText(errno).c_str());
      result = 0;
    }
    if (fsync(fileno(stream_.get())) != 0) {
      log.msg(__LINE__, 3, "can't synchronize file %s; the call of function fsync() failed:'%s'",
              fileName_.c_str(), errnoText(errno).c_str());
      result = 0;
    }
  }
  FILE* f = stream_.release();
  type_ = 0;
  if (fclose(f) != 0) {
    log.msg(__LINE__, 3, "can't close file %s; the call of function fclose() failed:'%s'",
            fileName_.c_str(), errnoText(errno).c_str());
    return 0;
  }
  log.msg(__LINE__, 9, "closed file '%s'", fileName_.c_str());
  return result;
}

int FileH::readNextLine(String& line) {
  Log log("FileH", "readNextLine", __FILE__, __LINE__, 13);
  line = "";
  if (!isOpen()) {
    log.msg(__LINE__, 3, "can't read from file '%s' because it isn't open", fileName_.c_str());
    return 0;
  }
  FILE* f = stream_.get();
  std::string whole;
  std::string part;
  part.reserve(kLineBuffer);
  // Reads parts of at most kLineBuffer - 1 bytes (NUL bytes included) until
  // a line feed or the end of the file.
  for (;;) {
    part.clear();
    bool lineEnd = false;
    int c = 0;
    while (part.size() < kLineBuffer - 1 && (c = getc_unlocked(f)) != EOF) {
      part += static_cast<char>(c);
      if (c == '\n') {
        lineEnd = true;
        break;
      }
    }
    if (ferror(f)) {
      log.msg(__LINE__, 3, "read from file <%s> to errno= %s ", fileName_.c_str(),
              errnoText(errno).c_str());
      clearerr(f);
      return 0;
    }
    bool atEnd = c == EOF;
    if (!lineEnd && !atEnd) {
      log.msg(__LINE__, 9, "read partstr='%s' from File %s ", part.c_str(), fileName_.c_str());
      whole += part;
      continue;
    }
    whole += part;
    break;
  }
  if (whole.empty()) return -1;
  log.msg(__LINE__, 9, "read line <%s>, from file ", whole.c_str());
  line = String(std::move(whole));
  return 1;
}

int FileH::writeToFile(const String& s) {
  Log log("FileH", "writeToFile", __FILE__, __LINE__, 13);
  if (!isOpen()) {
    log.msg(__LINE__, 3,
            "can't write string '%s' to file '%s'\n    because the file isn't open for writing.",
            s.c_str(), fileName_.c_str());
    return 0;
  }
  if (s.length() > 0 && fwrite(s.c_str(), 1, s.length(), stream_.get()) != s.length()) {
    log.msg(__LINE__, 3, "can`t write string '%s' to '%s': errno = '%s'", s.c_str(),
            fileName_.c_str(), errnoText(errno).c_str());
    return 0;
  }
  log.msg(__LINE__, 9, "wrote string '%s' to file '%s'", s.c_str(), fileName_.c_str());
  return 1;
}

int FileH::writeLineToFile(const String& line) {
  Log log("FileH", "writeLineToFile", __FILE__, __LINE__, 13);
  if (writeToFile(line) != 1) return 0;
  if (fputc('\n', stream_.get()) == EOF) {
    log.msg(__LINE__, 3, "can`t write line feed to '%s': errno = '%s'", fileName_.c_str(),
            errnoText(errno).c_str());
    return 0;
  }
  return 1;
}

int FileH::makeBackupCopy() {
  Log log("FileH", "makeBackupCopy", __FILE__, __LINE__, 13);
  if (copied_) {
    log.msg(__LINE__, 9, "%s is allready copied", fileName_.c_str());
    return 1;
  }
  if (isOpen()) {
    log.msg(__LINE__, 3, "File '%s' is allready open, close it first", fileName_.c_str());
    return 0;
  }
  String backup = backupName();
  struct stat status;
  if (stat(backup.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      int err = errno;
      log.msg(__LINE__, 3,
              "can't recover the document, because the system call stat64('%s',..) "
              "failed:'%s', errno=0 %d",
              backup.c_str(), errnoText(err).c_str(), err);
      return 0;
    }
    // The rename keeps the saved content whole at every moment: either the
    // file or the backup holds it.
    if (rename(fileName_.c_str(), backup.c_str()) != 0) {
      log.msg(__LINE__, 3, "can't rename file ; the call of function rename('%s','%s') failed:'%s'",
              fileName_.c_str(), backup.c_str(), errnoText(errno).c_str());
      return 0;
    }
  }
  // An existing backup was left by an interrupted run of this worker; it
  // holds the content from before that run and is kept as it is.
  if (utlCopyAndSync(backup.c_str(), fileName_.c_str()) != 1) {
    log.msg(__LINE__, 3, "utlCopyAndSync('%s','%s') failed", backup.c_str(), fileName_.c_str());
    return 0;
  }
  copied_ = 1;
  log.msg(__LINE__, 8, "made backup from file '%s', backupfile: %s", fileName_.c_str(),
          backup.c_str());
  return 1;
}

int FileH::recoverFromBackup() {
  Log log("FileH", "recoverFromBackup", __FILE__, __LINE__, 13);
  if (copied_ || checked_) {
    log.msg(__LINE__, 9, "%s is allready recovered", fileName_.c_str());
    return 1;
  }
  String backup = backupName();
  struct stat status;
  if (stat(backup.c_str(), &status) != 0) {
    int err = errno;
    if (err != ENOENT) {
      log.msg(__LINE__, 3,
              "can't recover file '%s', because the system call stat64('%s',..) failed: '%s', "
              "errno: %d",
              fileName_.c_str(), backup.c_str(), errnoText(err).c_str(), err);
      return 0;
    }
    log.msg(__LINE__, 9, "backup doesn't exist, no need for recovery");
    checked_ = 1;
    return 1;
  }
  log.msg(__LINE__, 9, "recover %s is needed", fileName_.c_str());
  // The file is deleted before the copy: a backup that cannot be copied (a
  // directory in its place) would leave neither.
  if (!S_ISREG(status.st_mode)) {
    log.msg(__LINE__, 3, "can't recover file '%s', because the backup '%s' is no regular file",
            fileName_.c_str(), backup.c_str());
    return 0;
  }
  if (unlink(fileName_.c_str()) != 0 && errno != ENOENT) {
    log.msg(__LINE__, 3, "cannot unlink('%s') failed: %s", fileName_.c_str(),
            errnoText(errno).c_str());
    return 0;
  }
  if (utlCopyAndSync(backup.c_str(), fileName_.c_str()) != 1) {
    log.msg(__LINE__, 3, "utlCopyAndSync('%s','%s') failed", backup.c_str(), fileName_.c_str());
    return 0;
  }
  copied_ = 1;
  checked_ = 1;
  log.msg(__LINE__, 8, "%s is now recovered from %s", fileName_.c_str(), backup.c_str());
  return 1;
}
