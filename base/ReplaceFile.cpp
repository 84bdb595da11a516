#include "base/ReplaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Owners.h"

namespace {

std::string directoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

int fail(const std::string& call, const std::string& file, std::string* failedStep) {
  int err = errno;
  if (failedStep != nullptr) *failedStep = call + "('" + file + "')";
  return err;
}

}  // namespace

std::string replaceFileTemporary(const char* path) {
  std::string p(path);
  size_t slash = p.rfind('/');
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  return p.substr(0, start) + "." + p.substr(start) + ".tmp";
}

int replaceFile(const char* path, const char* data, size_t size, std::string* failedStep) {
  return replaceFile(path, data, size, failedStep, true);
}

int syncDirectoryOf(const char* path, std::string* failedStep, FileSystem& fs) {
  std::string dir = directoryOf(path);
  if (fs.syncDirectory(dir.c_str()) != 0) return fail("fsync", dir, failedStep);
  return 0;
}

int writeReplacement(const char* path, const char* data, size_t size, std::string* failedStep,
                     FileSystem& fs) {
  const std::string temporary = replaceFileTemporary(path);
  // Whatever sits at the temporary name (a leftover of a killed run, or a
  // link planted there) goes; O_EXCL then makes sure the file written is
  // the one just created.
  if (fs.unlink(temporary.c_str()) != 0 && errno != ENOENT) {
    return fail("unlink", temporary, failedStep);
  }
  UniqueFd fd(
      fs.open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (fd.get() < 0) return fail("open", temporary, failedStep);
  int err = 0;
  std::string step;
  if (writeWhole(fs, fd.get(), data, size) != 0) {
    err = fail("write", temporary, &step);
  } else if (fs.sync(fd.get()) != 0) {
    err = fail("fsync", temporary, &step);
  }
  if (fd.close() != 0 && err == 0) err = fail("close", temporary, &step);
  if (err != 0) {
    fs.unlink(temporary.c_str());
    if (failedStep != nullptr) *failedStep = step;
  }
  return err;
}

int commitReplacement(const char* path, std::string* failedStep, bool syncDirectory,
                      FileSystem& fs) {
  const std::string temporary = replaceFileTemporary(path);
  if (fs.rename(temporary.c_str(), path) != 0) {
    int err = fail("rename", path, failedStep);
    fs.unlink(temporary.c_str());
    return err;
  }
  // The rename reaches the disk with the directory.
  return syncDirectory ? syncDirectoryOf(path, failedStep, fs) : 0;
}

void discardReplacement(const char* path, FileSystem& fs) {
  fs.unlink(replaceFileTemporary(path).c_str());
}

int replaceFile(const char* path, const char* data, size_t size, std::string* failedStep,
                bool syncDirectory, FileSystem& fs) {
  int err = writeReplacement(path, data, size, failedStep, fs);
  return err != 0 ? err : commitReplacement(path, failedStep, syncDirectory, fs);
}
