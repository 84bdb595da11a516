// RolledBackStamps: the timestamp files a restored backup leaves unnamed.
//
// A worker's backup of COMMANDS holds the statements from before its first
// change; restoring it takes back the COMP_TIMESTAMP_FILE statements the
// worker appended since, and the next run stamps those components again into
// the next free "<name>_ts<n>.txt". So that reruns do not pile up unnamed
// files, the files of the statements taken back are removed first.
#ifndef DOCFILES_ROLLEDBACKSTAMPS_H_
#define DOCFILES_ROLLEDBACKSTAMPS_H_

#include <string>
#include <vector>

// Read just before backup is restored over commands: the files, in the
// directory of commands, that a COMP_TIMESTAMP_FILE "<name>"
// "<name>_ts<n>.txt" statement of commands names while no such statement of
// backup does, unless another statement of commands, of backup or of another
// "COMMANDS.*" backup in the directory names them too. Nothing when backup
// is no regular file of this process's user (it is not restored then).
// tokenMode: the TextLine rules the statements are cut by.
std::vector<std::string> rolledBackStamps(const std::string& commands, const std::string& backup,
                                          int tokenMode = 1);

// Once the restore is done: removes those of files that are regular files;
// the number removed (each logged at level 8). A crash before this leaves
// them, as unnamed files, never a statement without its file.
int removeStampFiles(const std::vector<std::string>& files);

#endif  // DOCFILES_ROLLEDBACKSTAMPS_H_
