// Confinement: the directories a document's files must lie in, and the files
// no document may touch.
//
// A document may read and write below its own directory, the KV directory
// (in test mode the test path) and the directories of TS_ALLOWED_ROOTS.
// Absolute names are fine as long as they lead there. Every name is resolved
// by the kernel beneath one of those roots (openat2 with RESOLVE_BENEATH):
// ".." and symbolic links may move about inside a root but never out of it.
// Inside the roots, the bookkeeping files of other documents (COMMANDS, its
// backups, KVprotocol, the lock file) and the worker's own files (log,
// metrics, password file, setup packages) stay out of reach.
//
// One object per document; it holds a descriptor of each root.
#ifndef APP_CONFINEMENT_H_
#define APP_CONFINEMENT_H_

#include <sys/stat.h>

#include <string>
#include <vector>

#include "base/Owners.h"

struct ConfinementSettings {
  std::vector<std::string> roots;              // besides the document's directory
  std::vector<std::string> workerFiles;        // never read or written by a document
  std::vector<std::string> workerDirectories;  // nothing below them either
};

class Confinement {
 public:
  // Relative names are taken from the current directory. A root that cannot
  // be opened is left out.
  Confinement(const std::string& documentDirectory, const ConfinementSettings& settings);
  Confinement(const Confinement&) = delete;
  Confinement& operator=(const Confinement&) = delete;

  // Opens path for reading (never blocking on a FIFO). A valid descriptor;
  // or none with *refusal telling why the path may not be read; or none with
  // *refusal empty and *error the errno of the open (a missing file, say).
  UniqueFd openSource(const std::string& path, std::string* refusal, int* error) const;
  // Empty when a timestamp file may be written at path, else why not. A
  // directory that does not exist is left to the write to report.
  std::string targetRefusal(const std::string& path) const;

 private:
  struct Root {
    std::string given;      // absolute, as named
    std::string canonical;  // links resolved
    UniqueFd fd;
  };
  // 0 and *out the descriptor of the absolute path, opened beneath the root
  // that holds it; EXDEV when no root does; else the errno of the open.
  int openBeneath(const std::string& absolute, int flags, UniqueFd* out) const;
  // The same without openat2.
  int openResolved(const std::string& absolute, int flags, UniqueFd* out) const;
  // Why the file at canonical (status: its own, or null when it does not
  // exist) is out of reach although inside a root; empty when it is not.
  std::string reservedFile(const std::string& canonical, const struct stat* status) const;

  std::string documentDirectory_;  // canonical
  std::vector<Root> roots_;
  std::vector<std::string> workerFiles_;        // canonical
  std::vector<std::string> workerDirectories_;  // canonical
};

#endif  // APP_CONFINEMENT_H_
