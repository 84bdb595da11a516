#include "base/Log.h"

#include "base/LogTarget.h"

namespace {

// The level of the last message this thread wrote: its continuation lines
// go to the journal with the same priority.
thread_local int t_lastLevel = 0;

// Formats the message and writes it as one line to the installed target.
void writeLine(int level, const char* component, const char* function, const char* format,
               va_list args, bool continuation) {
  char text[8192];
  vsnprintf(text, sizeof text, format, args);
  LogTarget::current().write(level, component, function, text, continuation);
}

void writeLineF(int level, const char* component, const char* function, const char* format, ...)
    CLOCKETTE_PRINTF(4, 5);
void writeLineF(int level, const char* component, const char* function, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  writeLine(level, component, function, format, ap, false);
  va_end(ap);
}

bool levelOn(int level) { return LogTarget::current().getLevel(level) != 0; }

}  // namespace

Log::Log(const char* component, const char* function, const char* /*file*/, int line,
         int entryLevel)
    : component_(component ? component : ""), function_(function ? function : "") {
  if (levelOn(entryLevel)) writeLineF(entryLevel, component_, function_, "entry (line %d)", line);
}

void Log::msg(int line, int level, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vmsg(line, level, format, ap);
  va_end(ap);
}

void Log::vmsg(int /*line*/, int level, const char* format, va_list args) {
  lastWritten_ = levelOn(level);
  if (!lastWritten_) return;
  t_lastLevel = level;
  writeLine(level, component_, function_, format, args, false);
}

void Log::msgc(const char* format, ...) {
  if (!lastWritten_) return;
  va_list ap;
  va_start(ap, format);
  writeLine(t_lastLevel, component_, function_, format, ap, true);
  va_end(ap);
}

int Log::getLevel(int level) { return levelOn(level) ? 1 : 0; }

extern "C" void c_logmsg(const char* component, int level, const char* format, ...) {
  if (!levelOn(level)) return;
  va_list ap;
  va_start(ap, format);
  writeLine(level, component ? component : "", "", format, ap, false);
  va_end(ap);
}

extern "C" int c_logging(int level) { return levelOn(level) ? 1 : 0; }

extern "C" void noMemMsg(const char* component, unsigned long size) {
  c_logmsg(component, 2, "out of memory: could not allocate %lu bytes", size);
}
