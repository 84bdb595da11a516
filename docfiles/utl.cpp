#include "docfiles/utl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/Log.h"
#include "base/Owners.h"

namespace {

constexpr int kChunk = 1024;
constexpr int kBufferSize = kChunk + 1;

// What differs between the two copy functions.
struct CopyStyle {
  bool truncateAndSync;
  // Backups: neither path is followed through a symbolic link, and only a
  // regular file is copied (checked on the open descriptor, so nothing can be
  // swapped in between) ...
  bool regularOnly;
  // ... of this process's user.
  bool ownOnly;
  // Where the target is written.
  FileSystem* fs;
};

int copyFile(Log& log, const char* from, const char* to, CopyStyle style) {
  int noFollow = style.regularOnly ? O_NOFOLLOW | O_NONBLOCK : 0;
  UniqueFd in(open(from, O_RDONLY | O_CLOEXEC | noFollow));
  if (!in.valid()) {
    log.msg(__LINE__, style.truncateAndSync ? 3 : 1,
            "can't open file '%s'; the system call open64('%s',O_RDONLY) failed:%s", from, from,
            errnoText(errno).c_str());
    return 0;
  }
  // The source's status comes before the target is opened, so that a
  // source that cannot be read as a file never truncates the target.
  struct stat status;
  int statErr = fstat(in.get(), &status) != 0 ? errno : (S_ISDIR(status.st_mode) ? EISDIR : 0);
  if (statErr != 0) {
    log.msg(__LINE__, style.truncateAndSync ? 3 : 1,
            "can't access file '%s'; the call of function stat64('%s',&status) failed:%s", from,
            from, errnoText(statErr).c_str());
    return 0;
  }
  if (style.regularOnly &&
      (!S_ISREG(status.st_mode) || (style.ownOnly && status.st_uid != geteuid()))) {
    log.msg(__LINE__, 2, "refused to copy '%s': it is no regular file%s", from,
            style.ownOnly ? " owned by this worker's user" : "");
    return 0;
  }
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (style.truncateAndSync ? O_TRUNC : 0) |
              (style.regularOnly ? O_NOFOLLOW : 0);
  UniqueFd out(style.fs->open(to, flags, 0666));
  if (!out.valid()) {
    if (style.truncateAndSync) {
      log.msg(__LINE__, 3,
              "can't open file '%s'; the system call "
              "open64('%s',O_WRONLY|O_CREAT|O_TRUNC|_O_BINARY,0666) failed: '%s'",
              to, to, errnoText(errno).c_str());
    } else {
      log.msg(__LINE__, 1,
              "can't open file '%s'; the system call open64('%s',O_WRONLY|O_CREAT,0666) failed:%s",
              to, to, errnoText(errno).c_str());
    }
    return 0;
  }
  MallocPtr<> buf(static_cast<char*>(malloc(kBufferSize)));
  if (!buf) {
    log.msg(__LINE__, style.truncateAndSync ? 3 : 1,
            "memory error; the system call malloc(%d) failed:%s", kChunk, errnoText(errno).c_str());
    return 0;
  }
  for (;;) {
    int n = utlRead(in.get(), buf.get(), kChunk);
    if (n < 0) {
      if (style.truncateAndSync) {
        log.msg(__LINE__, 3, "mRead(fd=%d,buf,size=%d) failed", in.get(), kChunk);
      } else {
        log.msg(__LINE__, 5, "utlRead(fd=%d,buf,size=%d) failed", in.get(), kChunk);
      }
      return 0;
    }
    if (n == 0) break;
    if (utlWrite(out.get(), buf.get(), n, *style.fs) != n) {
      if (style.truncateAndSync) {
        log.msg(__LINE__, 3, "mWrite(fd=%d,buf,size=%d) failed", out.get(), n);
      } else {
        log.msg(__LINE__, 5, "utlWrite(fd=%d,buf,size=%d) failed", out.get(), n);
      }
      return 0;
    }
  }
  if (style.truncateAndSync && style.fs->sync(out.get()) != 0) {
    log.msg(__LINE__, 3, "can't synchronize file '%s'; the call of function fsync() failed:'%s'",
            to, errnoText(errno).c_str());
    return 0;
  }
  return 1;
}

}  // namespace

std::string errnoText(int err) {
  char buf[256];
  const char* text = strerror_r(err, buf, sizeof buf);
  if (text == nullptr || *text == '\0') {
    snprintf(buf, sizeof buf, "Unknown error %d.", err);
    return buf;
  }
  return text;
}

int utlRead(int fd, char* cp, int nbyte) {
  Log log("(gobal)", "utlRead", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "par:(fd=%d,char *cp, nbyte=%d)", fd, nbyte);
  int nleft = nbyte;
  while (nleft > 0) {
    ssize_t n = read(fd, cp, static_cast<size_t>(nleft));
    if (n < 0) {
      if (errno == EINTR) continue;
      log.msg(__LINE__, 1,
              "error in reading data from file; the call of function read(fd=%d,cp,nleft=%d) "
              "failed:%s",
              fd, nleft, errnoText(errno).c_str());
      return -1;
    }
    if (n == 0) break;
    nleft -= static_cast<int>(n);
    cp += n;
  }
  return nbyte - nleft;
}

int utlWrite(int fd, const char* cp, int nbyte, FileSystem& fs) {
  Log log("(gobal)", "utlWrite", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "par:(fd=%d,char *cp, nbyte=%d)", fd, nbyte);
  int nleft = nbyte;
  while (nleft > 0) {
    ssize_t n = fs.write(fd, cp, static_cast<size_t>(nleft));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      log.msg(__LINE__, 1,
              "can't write to file; the call of function write(fd=%d,cp,nleft=%d) failed:%s", fd,
              nleft, errnoText(n == 0 ? EIO : errno).c_str());
      return -1;
    }
    nleft -= static_cast<int>(n);
    cp += n;
  }
  return nbyte;
}

int utlCopy(const char* from, const char* to) {
  Log log("(gobal)", "utlCopy", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 8, "par:(from='%s',to='%s')", from ? from : "NULL", to ? to : "NULL");
  if (from == nullptr || to == nullptr) return 0;
  return copyFile(log, from, to, CopyStyle{false, false, false, &FileSystem::posix()});
}

int utlCopyAndSync(const char* from, const char* to) {
  Log log("(gobal)", "utlCopyAndSync", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "par:(from='%s',to='%s')", from ? from : "NULL", to ? to : "NULL");
  if (from == nullptr || to == nullptr) return 0;
  return copyFile(log, from, to, CopyStyle{true, false, false, &FileSystem::posix()});
}

int utlSameFile(const char* a, const char* b) {
  struct stat sa;
  struct stat sb;
  return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino
             ? 1
             : 0;
}

int utlRestoreCopy(const char* from, const char* to, bool ownOnly, FileSystem& fs) {
  Log log("(gobal)", "utlRestoreCopy", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "par:(from='%s',to='%s')", from ? from : "NULL", to ? to : "NULL");
  if (from == nullptr || to == nullptr) return 0;
  return copyFile(log, from, to, CopyStyle{true, true, ownOnly, &fs});
}

int utlLinkOrCopy(const char* from, const char* to) {
  Log log("(gobal)", "utlLinkOrCopy", __FILE__, __LINE__, 13);
  const char* f = from ? from : "NULL";
  const char* t = to ? to : "NULL";
  log.msg(__LINE__, 9, "par:(from='%s',to='%s')", f, t);
  // No hard link: the copy must stay independent of the source.
  log.msg(__LINE__, 9, "link(%s,%s) failed, so try to copy file:(%s)", f, t, f);
  if (utlCopy(from, to) != 1) {
    log.msg(__LINE__, 5,
            "can't copy file from '%s' to '%s'; the call of function utlCopy('%s','%s') failed", f,
            t, f, t);
    return 0;
  }
  log.msg(__LINE__, 9, "copying file '%s' to '%s' succeeds", f, t);
  return 1;
}

int utlAppend(const char* from, const char* to, int64_t offset, int64_t len) {
  Log log("(gobal)", "utlAppend", __FILE__, __LINE__, 13);
  const char* f = from ? from : "NULL";
  const char* t = to ? to : "NULL";
  log.msg(__LINE__, 8, "par:(from='%s',to='%s',offset=%lld,len=%lld)", f, t,
          static_cast<long long>(offset), static_cast<long long>(len));
  if (from == nullptr || to == nullptr) return 0;
  UniqueFd in(open(from, O_RDONLY));
  if (!in.valid()) {
    log.msg(__LINE__, 1, "can't open file '%s'; the system call open64('%s',O_RDONLY) failed:%s",
            from, from, errnoText(errno).c_str());
    return 0;
  }
  UniqueFd out(open(to, O_WRONLY | O_CREAT | O_APPEND, 0666));
  if (!out.valid()) {
    log.msg(__LINE__, 1,
            "can't open file '%s'; the system call open64('%s',O_WRONLY|O_CREAT|O_APPEND,0666) "
            "failed:%s",
            to, to, errnoText(errno).c_str());
    return 0;
  }
  struct stat status;
  if (fstat(in.get(), &status) != 0) {
    log.msg(__LINE__, 1,
            "can't access file '%s'; the call of function stat64('%s',&status) failed:%s", from,
            from, errnoText(errno).c_str());
    return 0;
  }
  int64_t size = status.st_size;
  // Written so that no sum can overflow: offset + len <= size.
  if (offset < 0 || len < 0 || offset > size || len > size - offset) {
    log.msg(__LINE__, 1,
            "can't access all data from file '%s'; invalid parameters: file '%s': size=%lld, "
            "offset=%lld, len=%lld",
            from, from, static_cast<long long>(size), static_cast<long long>(offset),
            static_cast<long long>(len));
    return 0;
  }
  if (lseek(in.get(), static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(-1)) {
    log.msg(__LINE__, 1,
            "can't set start position to read data from file '%s'; the call of function "
            "lseek64(fd_in,%lld,SEEK_SET) failed:%s",
            from, static_cast<long long>(offset), errnoText(errno).c_str());
    return 0;
  }
  MallocPtr<> buf(static_cast<char*>(malloc(kBufferSize)));
  if (!buf) {
    log.msg(__LINE__, 1, "memory error; the system call malloc(%d) failed:%s", kChunk,
            errnoText(errno).c_str());
    return 0;
  }
  int64_t left = len;
  while (left > 0) {
    int want = left < kChunk ? static_cast<int>(left) : kChunk;
    int n = utlRead(in.get(), buf.get(), want);
    if (n <= 0) {
      // The file shrank under us (or failed): fewer bytes than promised.
      log.msg(__LINE__, 5, "utlRead(fd=%d,buf,size=%d) failed", in.get(), want);
      return 0;
    }
    if (utlWrite(out.get(), buf.get(), n) != n) {
      log.msg(__LINE__, 5, "utlWrite(fd=%d,buf,size=%d) failed", out.get(), n);
      return 0;
    }
    left -= n;
  }
  return 1;
}

int validateDate(const String& date) {
  Log log("(gobal)", "validateDate", __FILE__, __LINE__, 13);
  static const int kDays[2][13] = {
      {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
      {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
  };
  int year = atoi(date.subString(0, 4).c_str());
  int month = atoi(date.subString(4, 2).c_str());
  int day = atoi(date.subString(6, 2).c_str());
  int leap = (year % 4 == 0 && (year % 100 != 0 || year % 400 == 0)) ? 1 : 0;
  if (month < 0 || month > 12) {
    log.msg(__LINE__, 2, "\n    error in date: month must be between 01 and 12 (month is %d)",
            month);
    return 0;
  }
  // Month 0 passes the range test above and fails here with 0 days.
  int days = kDays[leap][month];
  if (day < 1 || day > days) {
    log.msg(__LINE__, 2,
            "\n    error in date: month %d of year %d consists of %d days.\n    therefore day "
            "must be between 01 and %d (day is %d)",
            month, year, days, days, day);
    return 0;
  }
  return 1;
}
