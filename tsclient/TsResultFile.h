// TsResultFile: the timestamp file, one line of BASE64 of the Timestamp
// Server's DER answer. Safe on any thread for distinct targets.
#ifndef TSCLIENT_TSRESULTFILE_H_
#define TSCLIENT_TSRESULTFILE_H_

#include "base/FileSystem.h"

class CAsn1string;

// BASE64 text of response in a new[]-allocated NUL-terminated *out (the
// caller delete[]s it). -1 and *out null on failure.
int timestamp2base64(CAsn1string* response, char** out);

// Writes the answer of fetchTimestamp for source as one line of BASE64 to
// target. 0; -4 BASE64 failed; -5 target cannot be written (a local
// failure, not the Timestamp Server's). The target is replaced through a
// temporary file and a rename, never written through a symbolic link; a
// failure leaves it as it was.
// With syncDirectory false the target's directory is not synced: the caller
// does that once for several targets (syncDirectoryOf, base/ReplaceFile.h)
// before it counts them as stored. Every change goes through fs.
int storeTimestamp(CAsn1string* response, const char* source, const char* target,
                   bool syncDirectory = true, FileSystem& fs = FileSystem::posix());

// storeTimestamp in two steps, so that the writing and its sync can run on
// the threads that fetch while the renames keep statement order.
// prepareTimestamp writes and syncs the temporary file beside target (0, -4,
// -5; on failure nothing stays); commitTimestamp renames it over target (0 or
// -5); discardTimestamp removes a prepared file that will not be committed.
int prepareTimestamp(CAsn1string* response, const char* target,
                     FileSystem& fs = FileSystem::posix());
int commitTimestamp(const char* source, const char* target, bool syncDirectory,
                    FileSystem& fs = FileSystem::posix());
void discardTimestamp(const char* target, FileSystem& fs = FileSystem::posix());

#endif  // TSCLIENT_TSRESULTFILE_H_
