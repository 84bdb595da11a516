#include "base/SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/Owners.h"
#include "base/SystemError.h"

namespace {

// More than any password; a longer file is no password file.
constexpr size_t kMaxSecret = 4096;

std::string quoted(const char* path) { return std::string("'") + path + "'"; }

}  // namespace

bool readSecretFile(const char* path, std::string* secret, std::string* problem) {
  secret->clear();
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
    *problem = quoted(path) + " cannot be read: " + systemError(errno).str();
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *problem = quoted(path) + " is no regular file";
    return false;
  }
  // Root owning the file and letting the worker's own group read it
  // (0640 root:<group>) is the packaged way to hand a service a secret.
  bool groupIsWorkers = st.st_uid == 0 && st.st_gid == getegid();
  if ((st.st_mode & S_IROTH) != 0 || ((st.st_mode & S_IRGRP) != 0 && !groupIsWorkers)) {
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    *problem = quoted(path) + " may be read by its group or others (mode " + mode +
               "): allow reading by its owner only (chmod 600), or by root and the worker's group "
               "(chown root:<group>; chmod 640)";
    return false;
  }
  std::string text;
  char buffer[512];
  for (;;) {
    ssize_t got = read(fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *problem = quoted(path) + " cannot be read: " + systemError(errno).str();
      return false;
    }
    if (got == 0) break;
    text.append(buffer, static_cast<size_t>(got));
    if (text.size() > kMaxSecret) {
      *problem = quoted(path) + " is too long for a password";
      return false;
    }
  }
  size_t end = text.find_first_of("\r\n");
  *secret = text.substr(0, end);
  return true;
}
