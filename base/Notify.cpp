#include "base/Notify.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

// The brace-enclosed arguments of text, in order. Braces nest, so an
// argument may itself hold balanced braces; an argument left open at the
// end runs to the end of the text. Anything between arguments is skipped.
std::vector<std::string> splitArguments(const char* text) {
  std::vector<std::string> out;
  if (text == nullptr) return out;
  const char* p = text;
  while (*p != '\0') {
    if (*p != '{') {
      ++p;
      continue;
    }
    ++p;
    std::string arg;
    int depth = 1;
    for (; *p != '\0'; ++p) {
      if (*p == '{') {
        ++depth;
      } else if (*p == '}' && --depth == 0) {
        ++p;
        break;
      }
      arg += *p;
    }
    out.push_back(arg);
  }
  return out;
}

// One write with O_APPEND, so lines of concurrent writers never interleave.
int appendLine(const char* path, const String& line) {
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  std::string text = line.str() + "\n";
  ssize_t written = write(fd, text.data(), text.size());
  int closed = close(fd);
  return written == static_cast<ssize_t>(text.size()) && closed == 0 ? 0 : -1;
}

}  // namespace

String formatNotification(const char* source, const char* area, int number, const char* severity,
                          const char* messageTemplate, const char* arguments) {
  std::vector<std::string> args = splitArguments(arguments);
  char head[64];
  snprintf(head, sizeof head, " %d ", number);
  std::string out = std::string(source ? source : "") + " " + (area ? area : "") + head +
                    (severity ? severity : "") + ": ";
  for (const char* p = messageTemplate ? messageTemplate : ""; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] >= '1' && p[1] <= '9') {
      size_t index = static_cast<size_t>(p[1] - '1');
      if (index < args.size()) out += args[index];
      ++p;
    } else {
      out += *p;
    }
  }
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  return String(out);
}

Notifier::Notifier(const char* file) : file_(file ? file : "") {}

Notifier::~Notifier() {
  if (syslogOpen_) closelog();
}

void Notifier::sendToSyslog(const String& line) {
  std::lock_guard<std::mutex> lock(syslogMutex_);
  if (!syslogOpen_) {
    // The ident must stay valid while the log is open: a literal does.
    openlog("clockette", LOG_PID, LOG_USER);
    syslogOpen_ = true;
  }
  syslog(LOG_ERR, "%s", line.c_str());
}

int Notifier::notify(const char* source, const char* area, int number, const char* severity,
                     const char* messageTemplate, const char* arguments) {
  String line = formatNotification(source, area, number, severity, messageTemplate, arguments);
  sendToSyslog(line);
  if (file_.empty()) return 0;
  return appendLine(file_.c_str(), line);
}
