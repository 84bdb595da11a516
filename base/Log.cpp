#include "base/Log.h"

#include <pthread.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "base/Switch.h"

char Log::_eventPrefix[512] = "";
FILE* Log::logfile = nullptr;

namespace {

std::atomic<bool> g_levels[Log::kMaxLevel + 1];
std::mutex g_mutex;  // guards the file, its name and the prefix
std::string g_fileName = "stderr";
bool g_ownsFile = false;

FILE* out() { return Log::logfile ? Log::logfile : stderr; }

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
  FILE* f = out();
  if (continuation) {
    fprintf(f, "%s%s.%03ld %d %2d %s::%s:     %s\n", Log::_eventPrefix, stamp,
            static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()), level, component,
            function, text);
  } else {
    fprintf(f, "%s%s.%03ld %d %2d %s::%s: %s\n", Log::_eventPrefix, stamp,
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
  writeLine(level, component_, function_, format, args, false);
}

void Log::msgc(const char* format, ...) {
  if (!lastWritten_) return;
  va_list ap;
  va_start(ap, format);
  writeLine(0, component_, function_, format, ap, true);
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

int Log::setLogFile(const char* name) {
  std::string path = name ? name : "";
  if (path.empty() || path == "-" || path == "stderr") {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_ownsFile) fclose(logfile);
    logfile = nullptr;
    g_ownsFile = false;
    g_fileName = "stderr";
    return 1;
  }
  const char* dir = getenv("ZEPH_SRV_LOG");
  if (path[0] != '/' && dir != nullptr && *dir != '\0') {
    path = std::string(dir) + (dir[strlen(dir) - 1] == '/' ? "" : "/") + path;
  }
  FILE* f = fopen(path.c_str(), "a");
  if (f == nullptr) return 0;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_ownsFile) fclose(logfile);
  logfile = f;
  g_ownsFile = true;
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
  snprintf(_eventPrefix, sizeof _eventPrefix, "%s", prefix ? prefix : "");
}

void Log::flush() {
  std::lock_guard<std::mutex> lock(g_mutex);
  fflush(out());
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
