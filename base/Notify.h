// Notify: operator notifications, the installation's alarm channel.
//
// A notification is one line for the operators of the pipeline:
//   <source> <area> <number> <severity>: <text>
// where the text is the message template with "%1", "%2", ... replaced, in
// order, by the arguments of a brace-enclosed argument text ("{a} {b}").
// A Notifier sends it to syslog (ident "clockette", facility LOG_USER,
// priority LOG_ERR) and, when it was made with a file (the setting
// KV_NOTIFY_FILE), also appends it there as one line (for operators and
// tests without syslog). The worker owns one (Kavlet::notifier) and lends it
// to whoever raises an alarm.
//
// Arguments come from document directories and COMMANDS files: control
// characters in them are written as blanks, so a notification always stays
// one line.
#ifndef BASE_NOTIFY_H_
#define BASE_NOTIFY_H_

#include <mutex>
#include <string>

#include "base/String.h"

// The notification text for the arguments of Notifier::notify (without a
// line end). A placeholder without an argument is replaced by nothing; "%" not
// followed by a digit stays as written.
String formatNotification(const char* source, const char* area, int number, const char* severity,
                          const char* messageTemplate, const char* arguments);

// Thread-safe. The syslog connection is the process's: it is opened on the
// first notification and closed when the Notifier that opened it goes, so
// one Notifier at a time sends.
class Notifier {
 public:
  // file: where each notification is also appended; null or empty: syslog only.
  explicit Notifier(const char* file);
  ~Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  // Sends one notification. Returns 0, or -1 when there is a file but the
  // line could not be appended there (syslog gives no result). Callers that
  // only raise an alarm may ignore the result.
  int notify(const char* source, const char* area, int number, const char* severity,
             const char* messageTemplate, const char* arguments);

 private:
  void sendToSyslog(const String& line);

  const std::string file_;
  std::mutex syslogMutex_;
  bool syslogOpen_ = false;
};

#endif  // BASE_NOTIFY_H_
