// Log: the program's logging library.
//
// Levels 0..13 are switched on and off one by one. Levels 0 to 3 are on from
// the start, level 4 (WARNING) too unless LOG_WARNING=off. Named levels for
// setLevel(name, on): ALL, WARNING (4), INFO (8), DEBUG (9), RPC (10),
// ENTRY (13); each of LOG_WARNING, LOG_INFO, LOG_DEBUG, LOG_RPC, LOG_ENTRY
// (on/off, truth-value rule) switches its level in init() and initFromConfig().
//
// Every function of the framework opens a scope object on entry:
//   Log log("Kavlet", "init", __FILE__, __LINE__, 13);
// which logs the function entry at the level of its fifth argument (13) and
// names component::function in each of its messages.
//
// A line: <event prefix><local time with ms> <pid> <level> <component>::<function>: <message>
// Destination: standard error until setLogFile() names a file. All operations
// are thread-safe (the signal thread logs too).
//
// The levels, the destination and the event prefix are the one piece of
// mutable state the libraries share process-wide: every function of every
// layer logs through a scope object, and handing a log target down to each
// of them would change every signature for no gain in what a test can do
// (tests capture the output through setLogFile).
#ifndef BASE_LOG_H_
#define BASE_LOG_H_

#include <cstdarg>
#include <cstdio>

#define CLOCKETTE_PRINTF(fmt_idx, args_idx) __attribute__((format(printf, fmt_idx, args_idx)))

class Log {
 public:
  static constexpr int kMaxLevel = 13;
  static constexpr int kWarning = 4;
  static constexpr int kInfo = 8;
  static constexpr int kDebug = 9;
  static constexpr int kRpc = 10;
  static constexpr int kEntry = 13;

  Log(const char* component, const char* function, const char* file, int line, int entryLevel);
  ~Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Writes one message at level when that level is on.
  void msg(int line, int level, const char* format, ...) CLOCKETTE_PRINTF(4, 5);
  void vmsg(int line, int level, const char* format, va_list args);
  // Continues this object's last message on a line of its own; written only
  // when that message was.
  void msgc(const char* format, ...) CLOCKETTE_PRINTF(2, 3);

  // Presets the levels (0-3 on, WARNING unless LOG_WARNING=off) and applies
  // the LOG_* variables. Returns 1.
  static int init();
  // Applies the LOG_* variables again (after a parameter package was read). Returns 1.
  static int initFromConfig();
  // "-", "stderr" or empty: standard error. A relative name goes under
  // $ZEPH_SRV_LOG when that is set. Opened for appending. Returns 1, or 0
  // when the file cannot be opened (logging then stays where it was).
  static int setLogFile(const char* name);
  // Switches one level (0..13). Returns 1, or 0 for a level out of range.
  static int setLevel(int level, int on);
  // Switches a named level (ALL, WARNING, INFO, DEBUG, RPC, ENTRY; ASCII case
  // ignored). Returns 1, or 0 for an unknown name.
  static int setLevel(const char* name, int on);
  static int unsetLevel(int level) { return setLevel(level, 0); }
  // 1 when the level is on, else 0.
  static int getLevel(int level);
  // The name of the file logged to, or "stderr".
  static const char* logFileName();
  // Text written before every log line (the version banner and program path).
  static void setEventPrefix(const char* prefix);
  static void flush();
  // Where lines go now: the log file, or standard error. For libcurl's debug
  // output; valid until the next setLogFile.
  static FILE* stream();

 private:
  const char* component_;
  const char* function_;
  bool lastWritten_ = false;
};

extern "C" {
// Logging for code without a scope object: component names the module.
void c_logmsg(const char* component, int level, const char* format, ...) CLOCKETTE_PRINTF(3, 4);
// 1 when the level is on, else 0.
int c_logging(int level);
// Logs at level 2 that size bytes could not be allocated in component.
void noMemMsg(const char* component, unsigned long size);
}

#endif  // BASE_LOG_H_
