#include "base/LogTarget.h"

#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "base/Switch.h"

namespace {

// The one piece of process-wide logging state (base/Log.h).
std::atomic<const LogTarget*> g_installed{nullptr};

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

bool inRange(int level) { return level >= 0 && level <= Log::kMaxLevel; }

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

// True when standard error is the stream that systemd connected to the
// journal for this service (JOURNAL_STREAM names its device and inode), not
// merely inherited from a parent that runs under systemd.
bool stderrIsJournal(const Environment& env) {
  const char* v = env.get("JOURNAL_STREAM");
  unsigned long long dev = 0;
  unsigned long long ino = 0;
  if (v == nullptr || sscanf(v, "%llu:%llu", &dev, &ino) != 2) return false;
  struct stat st;
  return fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

// The journal keeps its own time, pid and program name, and sorts by
// priority: a line carries neither the prefix nor the time stamp.
bool sendToJournal(int level, const char* component, const char* function, const char* text,
                   bool continuation) {
  return sd_journal_send("MESSAGE=%s::%s:%s %s", component, function, continuation ? "    " : "",
                         text, "PRIORITY=%d", journalPriority(level), "CLOCKETTE_LEVEL=%d", level,
                         nullptr) >= 0;
}

}  // namespace

LogTarget::LogTarget() : LogTarget(nullptr) {}

LogTarget::LogTarget(const LogTarget* like) {
  for (int i = 0; i <= Log::kMaxLevel; ++i) {
    levels_[i] = like != nullptr ? like->getLevel(i) != 0 : i <= Log::kWarning;
  }
  if (like != nullptr) {
    std::lock_guard<std::mutex> lock(like->mutex_);
    memcpy(prefix_, like->prefix_, sizeof prefix_);
  }
}

int LogTarget::init(const Environment& env) {
  for (int i = 0; i <= Log::kMaxLevel; ++i) levels_[i] = i <= Log::kWarning;
  return applyVariables(env);
}

int LogTarget::applyVariables(const Environment& env) {
  for (const NamedLevel& n : kNamed) {
    const char* v = env.get(n.variable);
    if (v != nullptr) setLevel(n.level, switchIsOn(v) ? 1 : 0);
  }
  return 1;
}

int LogTarget::setFile(const char* name, const Environment& env) {
  std::string path = name ? name : "";
  bool journal = path == "journal";
  if (journal || path.empty() || path == "-" || path == "stderr") {
    journal = journal || stderrIsJournal(env);
    std::lock_guard<std::mutex> lock(mutex_);
    file_.reset();
    journal_ = journal;
    fileName_ = journal ? "journal" : "stderr";
    return 1;
  }
  const char* dir = env.get("ZEPH_SRV_LOG");
  if (path[0] != '/' && dir != nullptr && *dir != '\0') {
    path = std::string(dir) + (dir[strlen(dir) - 1] == '/' ? "" : "/") + path;
  }
  FilePtr f(fopen(path.c_str(), "a"));
  if (!f) return 0;
  std::lock_guard<std::mutex> lock(mutex_);
  file_ = std::move(f);
  journal_ = false;
  fileName_ = path;
  return 1;
}

int LogTarget::setLevel(int level, int on) {
  if (!inRange(level)) return 0;
  levels_[level] = on != 0;
  return 1;
}

int LogTarget::setLevel(const char* name, int on) {
  if (name == nullptr) return 0;
  if (strcasecmp(name, "ALL") == 0) {
    for (int i = 0; i <= Log::kMaxLevel; ++i) levels_[i] = on != 0;
    return 1;
  }
  for (const NamedLevel& n : kNamed) {
    if (strcasecmp(name, n.name) == 0) return setLevel(n.level, on);
  }
  return 0;
}

int LogTarget::getLevel(int level) const { return inRange(level) && levels_[level] ? 1 : 0; }

std::string LogTarget::fileName() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fileName_;
}

void LogTarget::setEventPrefix(const char* prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  snprintf(prefix_, sizeof prefix_, "%s", prefix ? prefix : "");
}

void LogTarget::flush() const {
  std::lock_guard<std::mutex> lock(mutex_);
  fflush(out());
}

FILE* LogTarget::stream() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return out();
}

void LogTarget::write(int level, const char* component, const char* function, const char* text,
                      bool continuation) const {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  localtime_r(&tv.tv_sec, &tmv);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tmv);
  std::lock_guard<std::mutex> lock(mutex_);
  // Without a journal to take it the line goes to standard error.
  if (journal_ && sendToJournal(level, component, function, text, continuation)) return;
  FILE* f = out();
  fprintf(f, "%s%s.%03ld %d %2d %s::%s: %s%s\n", prefix_, stamp,
          static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()),
          continuation ? 0 : level, component, function, continuation ? "    " : "", text);
  fflush(f);
}

const LogTarget& LogTarget::current() {
  const LogTarget* installed = g_installed.load();
  if (installed != nullptr) return *installed;
  // Never destroyed: threads may log while the process ends. Const, so it
  // keeps the start-up levels and standard error.
  static const LogTarget* const standardError = new LogTarget;
  return *standardError;
}

LogTarget::Installation::Installation(const LogTarget& target)
    : previous_(g_installed.exchange(&target)) {}

LogTarget::Installation::~Installation() { g_installed.store(previous_); }
