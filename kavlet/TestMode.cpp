// Kavlet::test: the work cycle over the document directories of a test
// path, without any KV.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "base/Stop.h"
#include "base/SystemError.h"
#include "kavlet/Kavlet.h"
#include "kavlet/Kv.h"
#include "kavlet/Reporter.h"
#include "kavlet/SideBySide.h"
#include "kavlet/Signals.h"

namespace {

// Room for a built entry path, terminator included: longer paths fail as
// too long rather than being cut.
constexpr size_t kMaxEntryPath = 257;

// Lists the document directories of path in byte order (path itself when
// it has none), printing the start line; false after printing why it cannot.
bool listDocuments(const String& path, std::vector<String>* documents) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    printf("cannot access path '%s': '%s'\n", path.c_str(), systemError(errno).c_str());
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    printf("path '%s' must be a directory\n", path.c_str());
    return false;
  }
  DirPtr dir(opendir(path.c_str()));
  if (!dir) {
    printf("cannot open directory '%s': '%s'\n", path.c_str(), systemError(errno).c_str());
    return false;
  }
  printf("%s --------- start test ...\n", Kavlet::getTime().c_str());
  while (dirent* entry = readdir(dir.get())) {
    String name = entry->d_name;
    if (name == "." || name == "..") continue;
    String entryPath = path + "/" + name;
    int rc = 0;
    if (entryPath.length() >= kMaxEntryPath) {
      rc = ENAMETOOLONG;
    } else if (stat(entryPath.c_str(), &st) != 0) {
      rc = errno;
    }
    if (rc != 0) {
      printf("%s cannot access path '%s': '%s'\n", Kavlet::getTime().c_str(), entryPath.c_str(),
             systemError(rc).c_str());
      printf("%s --------- finished test\n", Kavlet::getTime().c_str());
      return false;
    }
    if (S_ISDIR(st.st_mode)) documents->push_back(entryPath);
  }
  if (documents->empty()) documents->push_back(path);
  // Byte order, a shorter text before a longer one with the same start.
  std::sort(documents->begin(), documents->end());
  return true;
}

}  // namespace

int Kavlet::test() {
  Log log("Kavlet", "test", __FILE__, __LINE__, 13);
  std::vector<String> documents;
  bool listed = listDocuments(testPath, &documents);
  fflush(stdout);
  if (!listed) return 0;
  // A stop request waits for the document in hand (see kavlet/Kv.h).
  auto workOn = [&](size_t i) {
    std::lock_guard<std::recursive_mutex> hold(end_.lock());
    return stopRequested() ? 0 : work(documents[i].c_str());
  };
  SideBySide side;
  bool apart = testJobs > 1 && documents.size() > 1 &&
               side.start(static_cast<int>(std::min<size_t>(testJobs, documents.size())));
  startSignalThread(&end_);
  if (side.inWorker()) {
    side.serve(workOn);
    return 1;
  }
  reporter_.start(false, env_.get("CLOCKETTE_METRICS_FILE"));
  int repetitions = std::max(atoi(testCount.c_str()), 1);
  bool allDone = true;
  auto report = [&](int r, size_t i, int result) {
    printf("%s %04d %04d op=%-10s doc='%s'\n", getTime().c_str(), r, static_cast<int>(i) + 1,
           result != 0 ? okStatus.c_str() : errorStatus.c_str(), documents[i].c_str());
    fflush(stdout);
    // The reasons are in the log; the first failure says where that is.
    if (result == 0 && allDone) {
      fprintf(stderr, "a document failed: why is in the log %s\n", logTarget_.fileName().c_str());
    }
    if (result == 0) allDone = false;
  };
  for (int r = 1; r <= repetitions && !stopRequested(); ++r) {
    if (apart) {
      // Held until the workers are gone: a stop's goodbye comes after them.
      std::lock_guard<std::recursive_mutex> hold(end_.lock());
      // One repetition at a time: a document is never worked on twice at once.
      if (!side.run(documents.size(), [&](size_t i, int result) { report(r, i, result); })) {
        allDone = false;
      }
      continue;
    }
    for (size_t i = 0; i < documents.size() && !stopRequested(); ++i) report(r, i, workOn(i));
  }
  if (stopRequested()) allDone = false;
  log.msg(__LINE__, 3, "%s", reporter_.summary().c_str());
  printf("%s --------- finished test with %s!\n", getTime().c_str(), allDone ? "success" : "error");
  fflush(stdout);
  return allDone ? 1 : 0;
}
