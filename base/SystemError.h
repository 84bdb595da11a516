// The text of a system error number, for messages that say why a system call
// failed. Safe to call from any thread.
#ifndef BASE_SYSTEMERROR_H_
#define BASE_SYSTEMERROR_H_

#include "base/String.h"

// The system's message for code (an errno value), or "Unknown error <code>."
// when the system has no message for it.
String systemError(int code);

#endif  // BASE_SYSTEMERROR_H_
