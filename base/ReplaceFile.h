// replaceFile: writes a small file so that a crash leaves either its old
// content or the new one, never a half-written or empty file.
//
// The data go to a temporary file in the same directory (".<name>.tmp",
// created afresh and never through a symbolic link), are forced to disk, and
// the temporary file is renamed over the path; the directory is synced so
// that the rename itself survives a crash. A symbolic link at the path is
// replaced, never written through. A temporary file left by a killed earlier
// attempt is removed by the next attempt on the same path, so they do not
// pile up. Every change goes through fs (see base/FileSystem.h). Safe on
// any thread for distinct paths.
#ifndef BASE_REPLACEFILE_H_
#define BASE_REPLACEFILE_H_

#include <cstddef>
#include <string>

#include "base/FileSystem.h"

// Returns 0, or the errno of the step that failed; *failedStep then names
// that step and its file (for example "open('/d/.a.tst.tmp')"). On failure
// the path is left as it was and no temporary file stays behind.
int replaceFile(const char* path, const char* data, size_t size, std::string* failedStep);
// The same, but with syncDirectory false the directory is left for the
// caller to sync (syncDirectoryOf), once after several files of one
// directory: the renames are crash-safe only after that.
int replaceFile(const char* path, const char* data, size_t size, std::string* failedStep,
                bool syncDirectory, FileSystem& fs = FileSystem::posix());

// replaceFile in two steps, so that the writing and its sync can run
// beside other work while the renames keep their order. writeReplacement
// writes the data to the temporary file and forces them to disk (on failure
// the temporary file is gone); commitReplacement renames it over path (on
// failure it is removed); discardReplacement removes it unused. Errors as
// replaceFile gives them.
int writeReplacement(const char* path, const char* data, size_t size, std::string* failedStep,
                     FileSystem& fs = FileSystem::posix());
int commitReplacement(const char* path, std::string* failedStep, bool syncDirectory,
                      FileSystem& fs = FileSystem::posix());
void discardReplacement(const char* path, FileSystem& fs = FileSystem::posix());

// Syncs the directory that holds path, so that renames in it survive a
// crash. 0, or the errno of the failed sync (*failedStep names the step); a
// file system that cannot sync a directory is no failure.
int syncDirectoryOf(const char* path, std::string* failedStep,
                    FileSystem& fs = FileSystem::posix());

// The name of the temporary file replaceFile uses for path.
std::string replaceFileTemporary(const char* path);

#endif  // BASE_REPLACEFILE_H_
