// DocumentLock: one worker per document at a time.
//
// An advisory lock (flock) on the lock file ".COMMANDS.lock" in the document
// directory, held from before COMMANDS is first read until the document is
// closed. Workers that take it never interleave their COMMANDS writes. When
// the directory does not let the worker create the lock file, the directory
// itself is locked instead. The lock file stays (removing it would let two
// workers lock two different files); its content is never used.
//
// Released when the object goes away; a killed process releases it with its
// descriptor. Not thread-safe.
#ifndef DOCFILES_DOCUMENTLOCK_H_
#define DOCFILES_DOCUMENTLOCK_H_

#include "base/Owners.h"
#include "base/String.h"

class DocumentLock {
 public:
  static constexpr const char* kFileName = ".COMMANDS.lock";

  DocumentLock() = default;
  DocumentLock(const DocumentLock&) = delete;
  DocumentLock& operator=(const DocumentLock&) = delete;

  // Takes the lock of the document directory, waiting up to waitSeconds
  // while another process holds it (a stop request ends the wait). 1 when
  // held, or when the directory does not exist (there is nothing to
  // protect); 0 when it could not be taken, logged at level 2 with the
  // directory and the reason.
  int acquire(const String& directory, int waitSeconds);

 private:
  UniqueFd fd_;
};

#endif  // DOCFILES_DOCUMENTLOCK_H_
