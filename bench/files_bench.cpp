// files_bench: how much faster hashFiles hashes the files of one document
// side by side than one after the other, and how much memory it takes.
//
//   files_bench [--rounds R] FILE...
//
// Prints "name value" lines: files, total_mib, cores (usable by this
// process), then for 1 thread and for every thread count up to the cores
// (at least 2): seconds_<n> (best of the rounds, files read from the page
// cache) and maxrss_kib_<n> (peak resident memory of a fresh process that only
// hashes the files once with n threads).
#include <openssl/objects.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "der/CAsn1messageImprint.h"
#include "tsclient/HashFiles.h"

namespace {

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool hashAll(const std::vector<std::string>& paths, int threads) {
  std::vector<CAsn1messageImprint> imprints(paths.size());
  std::vector<FileToHash> files;
  for (size_t i = 0; i < paths.size(); ++i) files.push_back({paths[i], -1, &imprints[i]});
  return hashFiles(&files, NID_sha256, threads) == files.size();
}

// Peak resident memory of a child that hashes the files once; -1 on failure.
long peakKib(const std::vector<std::string>& paths, int threads) {
  pid_t child = fork();
  if (child == 0) _exit(hashAll(paths, threads) ? 0 : 1);
  int status = 0;
  struct rusage usage {};
  wait4(child, &status, 0, &usage);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? usage.ru_maxrss : -1;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 3;
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
      rounds = atoi(argv[++i]);
    } else {
      paths.push_back(argv[i]);
    }
  }
  if (paths.empty()) {
    fprintf(stderr, "usage: %s [--rounds R] FILE...\n", argv[0]);
    return 2;
  }
  double mib = 0;
  for (const std::string& p : paths) {
    struct stat st;
    if (stat(p.c_str(), &st) != 0) {
      perror(p.c_str());
      return 1;
    }
    mib += static_cast<double>(st.st_size) / (1 << 20);
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  const int cores = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
  printf("files %zu\ntotal_mib %.0f\ncores %d\n", paths.size(), mib, cores);
  hashAll(paths, 1);  // into the page cache
  for (int threads = 1; threads <= std::max(cores, 2); ++threads) {
    double best = 1e30;
    for (int r = 0; r < rounds; ++r) {
      double start = seconds();
      if (!hashAll(paths, threads)) {
        fprintf(stderr, "hashing failed\n");
        return 1;
      }
      best = std::min(best, seconds() - start);
    }
    printf("seconds_%d %.3f\nmaxrss_kib_%d %ld\n", threads, best, threads, peakKib(paths, threads));
  }
  return 0;
}
