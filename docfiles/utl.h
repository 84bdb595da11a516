// The file utilities: copy, copy with sync, append a byte range, read and
// write whole buffers on descriptors, and a date check.
//
// All work in binary mode and move data in chunks of at most 1024 bytes.
// They return 1 for success and 0 for failure (utlRead and utlWrite return
// byte counts or -1), and log every failure with the system's error text.
// Plain functions without state; safe on any thread.
#ifndef DOCFILES_UTL_H_
#define DOCFILES_UTL_H_

#include <cstdint>
#include <string>

#include "base/FileSystem.h"
#include "base/String.h"

// Reads until nbyte bytes are in or the file ends. Returns the number read
// (less than nbyte only at the end of the file), or -1 on a read error.
int utlRead(int fd, char* cp, int nbyte);

// Writes all nbyte bytes through fs. Returns nbyte, or -1 when a write fails
// or moves nothing.
int utlWrite(int fd, const char* cp, int nbyte, FileSystem& fs = FileSystem::posix());

// Copies from over to without truncating to: a longer target keeps its old
// tail beyond the copied bytes. Creates to (0666) when missing.
int utlCopy(const char* from, const char* to);

// Copies from over to, truncating to first, and forces the copy to disk
// before it is closed.
int utlCopyAndSync(const char* from, const char* to);

// utlCopyAndSync for backups: refuses (level 2) a source that is no regular
// file (with ownOnly: no regular file owned by this process's user), and
// follows a symbolic link at the last component of neither path. The target
// is written through fs.
int utlRestoreCopy(const char* from, const char* to, bool ownOnly,
                   FileSystem& fs = FileSystem::posix());

// 1 when both paths exist and name the same file (device and inode, links
// followed), else 0.
int utlSameFile(const char* a, const char* b);

// Makes to an independent copy of from (no hard link is made).
int utlLinkOrCopy(const char* from, const char* to);

// Appends len bytes of from, starting at offset, to to (created 0666 when
// missing). Fails, appending nothing, when from is shorter than offset + len.
int utlAppend(const char* from, const char* to, int64_t offset, int64_t len);

// Checks a date written YYYYMMDD (month 1-12, day within the month, leap
// years by the Gregorian rule). Returns 1 when valid, else 0.
int validateDate(const String& date);

// The system's text for an errno value ("Unknown error %d." when it has none).
std::string errnoText(int err);

#endif  // DOCFILES_UTL_H_
