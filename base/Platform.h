// Platform start-up helpers: the socket library start and the local host name.
//
// The program first ran where sockets had to be started with a wanted version
// before use. Linux sockets need no start-up, so startSockets() always
// succeeds with the wanted version; it stays so that the start-up reads the
// same on every platform and reports a failure the same way if one appears.
#ifndef BASE_PLATFORM_H_
#define BASE_PLATFORM_H_

#include "base/String.h"

// Starts the socket library, asking for version major.minor. Returns 0 on
// success, else the start-up error (after writing it to standard error).
int startSockets(int major, int minor);

// Writes the start-up messages for a start that returned err and granted
// gotMajor.gotMinor where wantMajor.wantMinor was asked for. Returns err.
// A version mismatch is reported and is not an error.
int reportSocketStartup(int err, int wantMajor, int wantMinor, int gotMajor, int gotMinor);

// The local host name, cut to 31 characters (it travels in a 32-byte field);
// empty when it cannot be read.
String localHostName();

#endif  // BASE_PLATFORM_H_
