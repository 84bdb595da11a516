// SandboxHint: under the systemd unit most "Permission denied" and
// "Read-only file system" errors come from its sandbox, not from the file's
// mode; the hint names the unit settings that decide.
#ifndef BASE_SANDBOXHINT_H_
#define BASE_SANDBOXHINT_H_

#include <string>

// The hint for a path that could not be read or written with errno error:
// for EROFS and EACCES, ReadWritePaths= and ProtectHome=; "" for any other.
std::string sandboxHint(int error);

#endif  // BASE_SANDBOXHINT_H_
