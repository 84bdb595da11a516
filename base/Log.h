// Log: the program's logging library.
//
// Levels 0..13 are switched on and off one by one. Levels 0 to 4 (WARNING)
// are on from the start. Named levels: ALL, WARNING (4), INFO (8), DEBUG (9),
// RPC (10), ENTRY (13); the LOG_* variables switch them (base/LogTarget.h).
//
// Every function of the framework opens a scope object on entry:
//   Log log("Kavlet", "init", __FILE__, __LINE__, 13);
// which logs the function entry at the level of its fifth argument (13) and
// names component::function in each of its messages.
//
// A line: <event prefix><local time with ms> <pid> <level> <component>::<function>: <message>
// All operations are thread-safe (the signal thread logs too).
//
// Where lines go: the levels, the destination and the event prefix belong to
// a LogTarget (base/LogTarget.h) that the program owns and installs for its
// lifetime (a worker installs its own). Which target is installed is the one
// piece of logging state the process shares: every function of every layer
// logs through a scope object, and handing a target down to each of them
// would change every signature for no gain in what a test can do (a test
// installs a target of its own, testing/LogCapture.h). With none installed,
// lines go to standard error at the start-up levels.
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

  // 1 when the level is on in the installed target, else 0: for a message
  // whose text costs something to make.
  static int getLevel(int level);

 private:
  const char* component_;
  const char* function_;
  bool lastWritten_ = false;
};

extern "C" {
// Logging for code without a scope object: component names the module.
void c_logmsg(const char* component, int level, const char* format, ...) CLOCKETTE_PRINTF(3, 4);
// 1 when the level is on in the installed target, else 0.
int c_logging(int level);
// Logs at level 2 that size bytes could not be allocated in component.
void noMemMsg(const char* component, unsigned long size);
}

#endif  // BASE_LOG_H_
