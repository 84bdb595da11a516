#include "docfiles/FileH.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/Log.h"
#include "base/ReplaceFile.h"
#include "docfiles/utl.h"

namespace {

const char* modeOf(int type) {
  static const char* const kModes[] = {nullptr, "rb", "rt", "wb",  "wt",  "ab", "at",
                                       "r+",    "w+", "a+", "r+b", "w+b", "a+b"};
  return type >= 1 && type <= 12 ? kModes[type] : nullptr;
}

// open(2) flags of an fopen mode.
int flagsOf(const char* mode) {
  bool update = strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r':
      return update ? O_RDWR : O_RDONLY;
    case 'w':
      return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    default:
      return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
  }
}

// A backup is restored or kept only when it is a regular file of this
// worker's user: anything else may have been planted to make the worker
// copy a file it can read (a setup file with a password) into the document.
bool isOwnRegularFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

constexpr size_t kLineBuffer = 65536;

}  // namespace

FileH::FileH(const String& fileName, const String& suffix, FileSystem& fs)
    : fs_(&fs), fileName_(fileName), suffix_(suffix) {
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
  // Never through a symbolic link at the last component, and never blocked
  // by a FIFO: a document's files are regular files.
  UniqueFd fd(
      fs_->open(fileName_.c_str(), flagsOf(mode) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!fd.valid()) {
    openError_ = errno;
    if (openError_ == ELOOP) {
      log.msg(__LINE__, 2, "file '%s' is a symbolic link; it is not opened", fileName_.c_str());
    } else {
      log.msg(__LINE__, 3 + flag, "cannot open file %s: errno=%s", fileName_.c_str(),
              errnoText(openError_).c_str());
    }
    return 0;
  }
  struct stat status;
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    openError_ = EINVAL;
    log.msg(__LINE__, 2, "file '%s' is no regular file; it is not opened", fileName_.c_str());
    return 0;
  }
  FILE* f = nullptr;
  if (fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK) != 0 ||
      (f = fdopen(fd.get(), mode)) == nullptr) {
    openError_ = errno;
    log.msg(__LINE__, 3 + flag, "cannot open file %s: errno=%s", fileName_.c_str(),
            errnoText(openError_).c_str());
    return 0;
  }
  fd.release();
  openError_ = 0;
  stream_.reset(f);
  type_ = type;
  // Creating or truncating is a change that must reach the disk too.
  unsynced_ = mode[0] != 'r';
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
  // What appendWhole wrote is on disk already.
  if (type_ >= kWriteBinary && type_ <= kAppendText) {
    if (fflush(stream_.get()) != 0) {
      log.msg(__LINE__, 3, "can't fflush file %s; the call of function fflush() failed:'%s'",
              fileName_.c_str(), errnoText(errno).c_str());
      result = 0;
    }
    if (unsynced_ && fs_->sync(fileno(stream_.get())) != 0) {
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
  unsynced_ = true;
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

int FileH::appendWhole(const String& text) {
  Log log("FileH", "appendWhole", __FILE__, __LINE__, 13);
  if (!isOpen() || (type_ != kAppendBinary && type_ != kAppendText)) {
    log.msg(__LINE__, 3,
            "can't write string '%s' to file '%s'\n    because the file isn't open for writing.",
            text.c_str(), fileName_.c_str());
    return 0;
  }
  int fd = fileno(stream_.get());
  struct stat status;
  if (fflush(stream_.get()) == 0 && fstat(fd, &status) == 0) {
    if (writeWhole(*fs_, fd, text.c_str(), text.length()) == 0 && fs_->sync(fd) == 0) {
      unsynced_ = false;
      log.msg(__LINE__, 9, "wrote string '%s' to file '%s'", text.c_str(), fileName_.c_str());
      return 1;
    }
    int err = errno;
    // Readers must never see half of it, nor a line that the next append
    // would be glued onto.
    if (fs_->truncate(fd, status.st_size) != 0 || fs_->sync(fd) != 0) {
      log.msg(__LINE__, 2, "cannot cut file '%s' back to %lld bytes: errno = '%s'",
              fileName_.c_str(), static_cast<long long>(status.st_size), errnoText(errno).c_str());
    }
    errno = err;
  }
  log.msg(__LINE__, 3, "can`t write string '%s' to '%s': errno = '%s'", text.c_str(),
          fileName_.c_str(), errnoText(errno).c_str());
  return 0;
}

int FileH::copyOver(const String& from, const String& to, bool ownOnly) {
  Log log("FileH", "copyOver", __FILE__, __LINE__, 13);
  String partial = backupName() + ".tmp";
  if (utlRestoreCopy(from.c_str(), partial.c_str(), ownOnly, *fs_) != 1) {
    log.msg(__LINE__, 3, "utlCopyAndSync('%s','%s') failed", from.c_str(), partial.c_str());
    fs_->unlink(partial.c_str());
    return 0;
  }
  if (fs_->rename(partial.c_str(), to.c_str()) != 0) {
    log.msg(__LINE__, 3, "can't rename file ; the call of function rename('%s','%s') failed:'%s'",
            partial.c_str(), to.c_str(), errnoText(errno).c_str());
    fs_->unlink(partial.c_str());
    return 0;
  }
  std::string step;
  int err = syncDirectoryOf(to.c_str(), &step, *fs_);
  if (err != 0) {
    log.msg(__LINE__, 3, "can't make the rename to '%s' durable: %s failed: '%s'", to.c_str(),
            step.c_str(), errnoText(err).c_str());
    return 0;
  }
  return 1;
}

void FileH::dropNewBackup() {
  Log log("FileH", "dropNewBackup", __FILE__, __LINE__, 13);
  if (!newBackup_) return;
  if (fs_->unlink(backupName().c_str()) == 0) {
    newBackup_ = false;
    copied_ = 0;
  }
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
  bool exists = lstat(backup.c_str(), &status) == 0;
  if (exists && !isOwnRegularFile(status)) {
    log.msg(__LINE__, 2, "refused backup '%s': it is no regular file owned by this worker's user",
            backup.c_str());
    return 0;
  }
  if (exists) {
    // Left by an interrupted run of this worker: it holds the content from
    // before that run and is kept as it is; the file gets that content again.
    if (copyOver(backup, fileName_, true) != 1) return 0;
  } else if (errno != ENOENT) {
    int err = errno;
    log.msg(__LINE__, 3,
            "can't recover the document, because the system call stat64('%s',..) "
            "failed:'%s', errno=0 %d",
            backup.c_str(), errnoText(err).c_str(), err);
    return 0;
  } else {
    // The backup is a copy of our own, complete on disk before it takes its
    // name, while the file stays untouched: either of them holds the saved
    // content at every moment, and the backup belongs to this worker's user
    // whoever owns the file.
    if (copyOver(fileName_, backup, false) != 1) {
      log.msg(__LINE__, 3, "can't make backup '%s' of file '%s'", backup.c_str(),
              fileName_.c_str());
      fs_->unlink(backup.c_str());  // renamed, but not known to be on disk
      return 0;
    }
    newBackup_ = true;
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
  if (lstat(backup.c_str(), &status) != 0) {
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
  // Checked before the file is deleted: a backup that cannot be copied (a
  // directory in its place) would leave neither.
  if (!isOwnRegularFile(status)) {
    openError_ = EPERM;
    log.msg(__LINE__, 2,
            "refused backup '%s': it is no regular file owned by this worker's user; '%s' is not "
            "recovered from it",
            backup.c_str(), fileName_.c_str());
    return 0;
  }
  // Never unlink, then copy: a crash in between would leave no file at all.
  if (copyOver(backup, fileName_, true) != 1) return 0;
  copied_ = 1;
  checked_ = 1;
  log.msg(__LINE__, 8, "%s is now recovered from %s", fileName_.c_str(), backup.c_str());
  return 1;
}
