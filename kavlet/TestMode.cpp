// Kavlet::test: the work cycle over the document directories of a test
// path, without any KV.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "base/Log.h"
#include "base/SystemError.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"

namespace {

// Room for a built entry path, terminator included: longer paths fail as
// too long rather than being cut.
constexpr size_t kMaxEntryPath = 257;

struct DirClose {
  void operator()(DIR* d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

}  // namespace

int Kavlet::test() {
  Log log("Kavlet", "test", __FILE__, __LINE__, 13);
  const char* path = testPath.c_str();
  struct stat st;
  if (stat(path, &st) != 0) {
    printf("cannot access path '%s': '%s'\n", path, systemError(errno).c_str());
    fflush(stdout);
    return 0;
  }
  if (!S_ISDIR(st.st_mode)) {
    printf("path '%s' must be a directory\n", path);
    fflush(stdout);
    return 0;
  }
  DirPtr dir(opendir(path));
  if (!dir) {
    printf("cannot open directory '%s': '%s'\n", path, systemError(errno).c_str());
    fflush(stdout);
    return 0;
  }
  printf("%s --------- start test ...\n", getTime());
  fflush(stdout);

  std::vector<String> documents;
  while (dirent* entry = readdir(dir.get())) {
    String name = entry->d_name;
    if (name == "." || name == "..") continue;
    String entryPath = testPath + "/" + name;
    int rc = 0;
    if (entryPath.length() >= kMaxEntryPath) {
      rc = ENAMETOOLONG;
    } else if (stat(entryPath.c_str(), &st) != 0) {
      rc = errno;
    }
    if (rc != 0) {
      printf("%s cannot access path '%s': '%s'\n", getTime(), entryPath.c_str(),
             systemError(rc).c_str());
      printf("%s --------- finished test\n", getTime());
      fflush(stdout);
      return 0;
    }
    if (S_ISDIR(st.st_mode)) documents.push_back(entryPath);
  }
  dir.reset();
  if (documents.empty()) documents.push_back(testPath);
  // Byte order, a shorter text before a longer one with the same start.
  std::sort(documents.begin(), documents.end());

  int repetitions = atoi(testCount.c_str());
  if (repetitions < 1) repetitions = 1;
  bool allDone = true;
  for (int r = 1; r <= repetitions; ++r) {
    int n = 1;
    for (const String& document : documents) {
      // A stop request waits for the document in hand (see kavlet/Kv.h).
      std::lock_guard<std::recursive_mutex> hold(kvWorkerLock());
      int result = work(document.c_str());
      if (result == 0) allDone = false;
      printf("%s %04d %04d op=%-10s doc='%s'\n", getTime(), r, n++,
             result != 0 ? okStatus.c_str() : errorStatus.c_str(), document.c_str());
      fflush(stdout);
    }
  }
  printf("%s --------- finished test with %s!\n", getTime(), allDone ? "success" : "error");
  fflush(stdout);
  return allDone ? 1 : 0;
}
