#include "base/Log.h"

#include <pthread.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "base/Switch.h"

namespace {

char g_eventPrefix[512] = "";
FILE* g_file = nullptr;  // null: standard error

std::atomic<bool> g_levels[Log::kMaxLevel + 1];
std::mutex g_mutex;  // guards the file, its name and the prefix
std::string g_fileName = "stderr";
bool g_ownsFile = false;
bool g_journal = false;  // lines go to the systemd journal, not to a file
// The level of the last message this thread wrote: its continuation lines
// go to the journal with the same priority.
thread_local int t_lastLevel = 0;

// The syslog priority of a level in the journal: 0-1 crit, 2 err, 3-4
// warning, 5-7 notice, 8 info, 9 and above debug.
int journalPriority(int level) {
  if (level <= 1) return LOG_CRIT;
  if (level == 2) return LOG_ERR;
  if (level <= Log::kWarning) return LOG_WARNING;
  if (level < Log::kInfo) return LOG_NOTICE;
  if (level == Log::kInfo) return LOG_INFO;
  return LOG_DEBUG;
}

FILE* out() { return g_file ? g_file : stderr; }

struct NamedLevel {
  const char* name;
  const char* variable;
  int level;
};
constexpr NamedLevel kNamed[] = {
    {"WARNING", "LOG_WARNING", Log::kWarning}, {"INFO", "LOG_INFO", Log::kInfo},
    {"DEBUG", "LOG_DEBUG", Log::kDebug},       {"RPC", "LOG_RPC", Log::kRpc},
    {"ENTRY", "LOG_ENTRY", Log::kEntry},
};

void applyVariables() {
  for (const NamedLevel& n : kNamed) {
    const char* v = getenv(n.variable);
    if (v != nullptr) Log::setLevel(n.level, switchIsOn(v) ? 1 : 0);
  }
}

bool levelOn(int level) { return level >= 0 && level <= Log::kMaxLevel && g_levels[level]; }

// True when standard error is the stream that systemd connected to the
// journal for this service (JOURNAL_STREAM names its device and inode), not
// merely inherited from a parent that runs under systemd.
bool stderrIsJournal() {
  const char* v = getenv("JOURNAL_STREAM");
  unsigned long long dev = 0;
  unsigned long long ino = 0;
  if (v == nullptr || sscanf(v, "%llu:%llu", &dev, &ino) != 2) return false;
  struct stat st;
  return fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

// The journal keeps its own time, pid and program name, and sorts by
// priority: a line carries neither the banner nor the time stamp.
bool sendToJournal(int level, const char* component, const char* function, const char* text,
                   bool continuation) {
  return sd_journal_send("MESSAGE=%s::%s:%s %s", component, function, continuation ? "    " : "",
                         text, "PRIORITY=%d", journalPriority(level), "CLOCKETTE_LEVEL=%d", level,
                         nullptr) >= 0;
}

// Writes one line under the lock: prefix, time, pid, level, origin, message.
void writeLine(int level, const char* component, const char* function, const char* format,
               va_list args, bool continuation) {
  char text[8192];
  vsnprintf(text, sizeof text, format, args);
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  localtime_r(&tv.tv_sec, &tmv);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tmv);
  std::lock_guard<std::mutex> lock(g_mutex);
  // Without a journal to take it the line goes to standard error.
  if (g_journal && sendToJournal(level, component, function, text, continuation)) return;
  FILE* f = out();
  if (continuation) {
    fprintf(f, "%s%s.%03ld %d %2d %s::%s:     %s\n", g_eventPrefix, stamp,
            static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()), 0, component,
            function, text);
  } else {
    fprintf(f, "%s%s.%03ld %d %2d %s::%s: %s\n", g_eventPrefix, stamp,
            static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()), level, component,
            function, text);
  }
  fflush(f);
}

void writeLineF(int level, const char* component, const char* function, const char* format, ...)
    CLOCKETTE_PRINTF(4, 5);
void writeLineF(int level, const char* component, const char* function, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  writeLine(level, component, function, format, ap, false);
  va_end(ap);
}

struct Presets {
  Presets() { Log::init(); }
} g_presets;

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

int Log::init() {
  for (int i = 0; i <= kMaxLevel; ++i) g_levels[i] = i <= 3;
  g_levels[kWarning] = true;
  applyVariables();
  return 1;
}

int Log::initFromConfig() {
  applyVariables();
  return 1;
}

// "journal" sends the lines to the systemd journal, without the banner and
// time stamp, with a priority from the level; so does standard error when it
// is the stream that systemd set up for the service (JOURNAL_STREAM).
int Log::setLogFile(const char* name) {
  std::string path = name ? name : "";
  bool journal = path == "journal";
  if (journal || path.empty() || path == "-" || path == "stderr") {
    journal = journal || stderrIsJournal();
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_ownsFile) fclose(g_file);
    g_file = nullptr;
    g_ownsFile = false;
    g_journal = journal;
    g_fileName = journal ? "journal" : "stderr";
    return 1;
  }
  const char* dir = getenv("ZEPH_SRV_LOG");
  if (path[0] != '/' && dir != nullptr && *dir != '\0') {
    path = std::string(dir) + (dir[strlen(dir) - 1] == '/' ? "" : "/") + path;
  }
  FILE* f = fopen(path.c_str(), "a");
  if (f == nullptr) return 0;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_ownsFile) fclose(g_file);
  g_file = f;
  g_ownsFile = true;
  g_journal = false;
  g_fileName = path;
  return 1;
}

int Log::setLevel(int level, int on) {
  if (level < 0 || level > kMaxLevel) return 0;
  g_levels[level] = on != 0;
  return 1;
}

int Log::setLevel(const char* name, int on) {
  if (name == nullptr) return 0;
  if (strcasecmp(name, "ALL") == 0) {
    for (int i = 0; i <= kMaxLevel; ++i) g_levels[i] = on != 0;
    return 1;
  }
  for (const NamedLevel& n : kNamed) {
    if (strcasecmp(name, n.name) == 0) return setLevel(n.level, on);
  }
  return 0;
}

int Log::getLevel(int level) { return levelOn(level) ? 1 : 0; }

const char* Log::logFileName() {
  std::lock_guard<std::mutex> lock(g_mutex);
  static thread_local std::string copy;
  copy = g_fileName;
  return copy.c_str();
}

void Log::setEventPrefix(const char* prefix) {
  std::lock_guard<std::mutex> lock(g_mutex);
  snprintf(g_eventPrefix, sizeof g_eventPrefix, "%s", prefix ? prefix : "");
}

void Log::flush() {
  std::lock_guard<std::mutex> lock(g_mutex);
  fflush(out());
}

FILE* Log::stream() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return out();
}

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
