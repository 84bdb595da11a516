// Notify: operator notifications, the installation's alarm channel.
//
// A notification is one line for the operators of the pipeline:
//   <source> <area> <number> <severity>: <text>
// where the text is the message template with "%1", "%2", ... replaced, in
// order, by the arguments of a brace-enclosed argument text ("{a} {b}").
// It goes to syslog (ident "clockette", facility LOG_USER, priority LOG_ERR)
// and, when the environment variable KV_NOTIFY_FILE names a file, is also
// appended there as one line (for operators and tests without syslog).
//
// Arguments come from document directories and COMMANDS files: control
// characters in them are written as blanks, so a notification always stays
// one line. Thread-safe.
#ifndef BASE_NOTIFY_H_
#define BASE_NOTIFY_H_

#include "base/String.h"

// The notification text for the arguments of notifyOperator (without a line
// end). A placeholder without an argument is replaced by nothing; "%" not
// followed by a digit stays as written.
String formatNotification(const char* source, const char* area, int number, const char* severity,
                          const char* messageTemplate, const char* arguments);

// Sends one notification. Returns 0, or -1 when KV_NOTIFY_FILE is set but the
// line could not be appended there (syslog gives no result). Callers that
// only raise an alarm may ignore the result.
int notifyOperator(const char* source, const char* area, int number, const char* severity,
                   const char* messageTemplate, const char* arguments);

#endif  // BASE_NOTIFY_H_
