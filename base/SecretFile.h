// SecretFile: reads a secret (a password) from a file, so that it need not
// stand on a command line, where every local user sees it in ps.
#ifndef BASE_SECRETFILE_H_
#define BASE_SECRETFILE_H_

#include <string>

// Reads the first line of the file at path (without its line end) into
// *secret. Refuses, with a text for the operator in *problem, a file that
// cannot be read, that is no regular file, or that others may read: a secret
// that others can read is no secret. Its group may read it only when root
// owns it and the group is the process's own. Returns true when read.
bool readSecretFile(const char* path, std::string* secret, std::string* problem);

#endif  // BASE_SECRETFILE_H_
