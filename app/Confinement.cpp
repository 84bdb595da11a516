#include "app/Confinement.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "docfiles/Document.h"

namespace {

std::string absolutePath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof cwd) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

// Without trailing slashes: "/" becomes "", so that prefix + "/" matches.
std::string withoutTrailingSlash(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

// The path with its links resolved; the name part need not exist.
std::string canonicalPath(const std::string& path) {
  std::string absolute = absolutePath(path);
  if (char* resolved = realpath(absolute.c_str(), nullptr)) {
    std::string out = resolved;
    free(resolved);
    return withoutTrailingSlash(out);
  }
  size_t slash = absolute.rfind('/');
  if (slash == std::string::npos || slash == 0) return absolute;
  char* parent = realpath(absolute.substr(0, slash).c_str(), nullptr);
  if (parent == nullptr) return absolute;
  std::string out = withoutTrailingSlash(parent) + absolute.substr(slash);
  free(parent);
  return out;
}

// The path a descriptor was opened at, as the kernel knows it.
std::string pathOf(int fd) {
  char link[64];
  char target[PATH_MAX];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target - 1);
  return n > 0 ? withoutTrailingSlash(std::string(target, static_cast<size_t>(n))) : "";
}

bool isBelow(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size() + 1, directory + "/") == 0;
}

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

int openat2Beneath(int root, const std::string& relative, int flags) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how));
}

}  // namespace

Confinement::Confinement(const std::string& documentDirectory, const ConfinementSettings& settings)
    : documentDirectory_(canonicalPath(documentDirectory)) {
  std::vector<std::string> roots = settings.roots;
  roots.insert(roots.begin(), documentDirectory);
  for (const std::string& r : roots) {
    Root root{withoutTrailingSlash(absolutePath(r)), canonicalPath(r),
              UniqueFd(open(r.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))};
    if (root.fd.valid()) roots_.push_back(std::move(root));
  }
  for (const std::string& f : settings.workerFiles) workerFiles_.push_back(canonicalPath(f));
  for (const std::string& d : settings.workerDirectories) {
    workerDirectories_.push_back(canonicalPath(d));
  }
}

int Confinement::openBeneath(const std::string& absolute, int flags, UniqueFd* out) const {
  int result = EXDEV;
  for (const Root& root : roots_) {
    for (const std::string* prefix : {&root.given, &root.canonical}) {
      if (absolute != *prefix && !isBelow(absolute, *prefix)) continue;
      size_t start = absolute.find_first_not_of('/', prefix->size());
      std::string relative = start == std::string::npos ? "." : absolute.substr(start);
      UniqueFd fd(openat2Beneath(root.fd.get(), relative, flags));
      if (fd.valid()) {
        *out = std::move(fd);
        return 0;
      }
      if (errno == ENOSYS || errno == EPERM) return openResolved(absolute, flags, out);
      // Out of this root perhaps, but maybe into another one.
      if (errno != EXDEV) result = errno;
    }
  }
  return result;
}

// Where openat2 is missing (or a seccomp filter refuses it): the links are
// resolved first and the result is opened without following a link at its
// end. A link changed in between is not caught as it is with openat2.
int Confinement::openResolved(const std::string& absolute, int flags, UniqueFd* out) const {
  char* resolved = realpath(absolute.c_str(), nullptr);
  if (resolved == nullptr) return errno;
  std::string canonical = withoutTrailingSlash(resolved);
  free(resolved);
  for (const Root& root : roots_) {
    if (canonical != root.canonical && !isBelow(canonical, root.canonical)) continue;
    UniqueFd fd(open(canonical.empty() ? "/" : canonical.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) return errno;
    *out = std::move(fd);
    return 0;
  }
  return EXDEV;
}

std::string Confinement::reservedFile(const std::string& canonical,
                                      const struct stat* status) const {
  if (parentOf(canonical) != documentDirectory_ && Document::isBookkeepingName(nameOf(canonical))) {
    return "it is another document's file '" + canonical + "'";
  }
  for (const std::string& file : workerFiles_) {
    struct stat own;
    bool same = canonical == file || (status != nullptr && stat(file.c_str(), &own) == 0 &&
                                      own.st_dev == status->st_dev && own.st_ino == status->st_ino);
    if (same) return "it is the worker's file '" + file + "'";
  }
  for (const std::string& directory : workerDirectories_) {
    if (isBelow(canonical, directory)) return "it is the worker's file '" + canonical + "'";
  }
  return "";
}

UniqueFd Confinement::openSource(const std::string& path, std::string* refusal, int* error) const {
  std::string absolute = absolutePath(path);
  UniqueFd fd;
  *error = openBeneath(absolute, O_RDONLY | O_NONBLOCK | O_NOCTTY, &fd);
  struct stat status;
  if (*error == EXDEV) {
    // What does not exist is missing, wherever it was looked for.
    *error = lstat(absolute.c_str(), &status) != 0 && errno == ENOENT ? ENOENT : 0;
    if (*error == 0) *refusal = "it lies outside the directories open to the document";
    return UniqueFd();
  }
  if (*error != 0) return UniqueFd();
  if (fstat(fd.get(), &status) != 0) {
    *error = errno;
    return UniqueFd();
  }
  *refusal = reservedFile(pathOf(fd.get()), &status);
  return refusal->empty() ? std::move(fd) : UniqueFd();
}

std::string Confinement::targetRefusal(const std::string& path) const {
  std::string absolute = absolutePath(path);
  UniqueFd parent;
  int error = openBeneath(parentOf(absolute), O_PATH | O_DIRECTORY, &parent);
  if (error == EXDEV) {
    struct stat status;
    if (lstat(parentOf(absolute).c_str(), &status) != 0 && errno == ENOENT) return "";
    return "it lies outside the directories open to the document";
  }
  if (error != 0) return "";  // the write tells why it cannot be done
  std::string canonical = pathOf(parent.get()) + "/" + nameOf(absolute);
  struct stat status;
  bool exists = fstatat(parent.get(), nameOf(absolute).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  return reservedFile(canonical, exists ? &status : nullptr);
}
