// HashFiles: the digests of a document's files, side by side on the cores
// the process may use, before any of them is requested.
//
// Each file is still read by digestFile (tsclient/FileDigest.h) in large
// blocks with read-ahead; the threads take the files largest first, so a big
// file starts at once and the small ones fill the other threads meanwhile.
// Each thread holds at most the three blocks of one file's read-ahead.
//
// Threads: hashFiles starts its threads and joins them before it returns;
// it may be called from several threads at once. The requester reads the
// number of threads once, when it is configured (TsRequester::hashThreads).
#ifndef TSCLIENT_HASHFILES_H_
#define TSCLIENT_HASHFILES_H_

#include <cstddef>
#include <string>
#include <vector>

class CAsn1messageImprint;
class Environment;

// One file to hash: an open descriptor (a confined open hands one over) or
// a path to open.
struct FileToHash {
  std::string path;  // opened when fd < 0; otherwise it only names the file in the log
  int fd = -1;       // borrowed: read from its current position, never closed here
  CAsn1messageImprint* imprint = nullptr;  // borrowed: receives the digest
  int result = 1;                          // computeHash's 0, -1 or -2 once hashed; 1: not hashed
};

// Hashes the files with digest nid on up to `threads` threads (1: one after
// the other on the caller's thread). Returns the index of the first file, in
// the vector's order, that could not be hashed (its result says why), or
// files->size() when all were. Once a file has failed, files after it that
// have not started are left unhashed; files before it are all hashed, so the
// index is the one a run one after the other would stop at.
size_t hashFiles(std::vector<FileToHash>* files, int nid, int threads);

// The threads hashFiles should use: the cores this process may run on
// (sched_getaffinity), at most setting when that is a whole number from 1 up.
// Another setting is logged at level 2 and the cores are used.
int hashThreadsFor(int cores, const char* setting);

// hashThreadsFor with this process's cores and TS_HASH_THREADS of env.
int hashThreads(const Environment& env);

#endif  // TSCLIENT_HASHFILES_H_
