// DocumentLock: one worker per document at a time.
//
// An exclusive open-file-description lock (F_OFD_SETLK, F_WRLCK) on the
// lock file ".COMMANDS.lock" in the document directory, held from before
// COMMANDS is first read until the document is closed. Workers that take it
// never interleave their COMMANDS writes. Only a descriptor open for writing
// can take that lock, and the lock file is created 0600 (0660 in a
// group-writable directory, where workers of the group share documents), so
// a user who may only read the document cannot hold its workers up; a
// flock on the file or on the directory does not count. The lock file stays
// (removing it would let two workers lock two different files); its content
// is never used.
//
// Released when the object goes away; a killed process releases it with its
// descriptor. Not thread-safe.
#ifndef DOCFILES_DOCUMENTLOCK_H_
#define DOCFILES_DOCUMENTLOCK_H_

#include "base/FileSystem.h"
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
  // protect) or when the worker may create no lock file in it (it cannot
  // change the document then); 0 when it could not be taken (also when an
  // existing lock file cannot be opened for writing), logged at level 2
  // with the directory and the reason.
  int acquire(const String& directory, int waitSeconds, FileSystem& fs = FileSystem::posix());

 private:
  UniqueFd fd_;
};

#endif  // DOCFILES_DOCUMENTLOCK_H_
