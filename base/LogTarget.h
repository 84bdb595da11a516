// LogTarget: where log lines go and which of them are written: the levels
// switched on, the destination (standard error, a file, or the systemd
// journal), its name and the event prefix written before every line.
//
// A program owns its target (a worker: Kavlet's) and installs it for as long
// as it runs (Installation); the Log scope objects and c_logmsg write through
// the installed one (base/Log.h). A target must outlive every line written
// through it: install it before the threads that log start, and end those
// threads before the installation ends.
//
// Thread-safe: the levels are atomics, the destination and the prefix are
// guarded by a mutex, and a line is written whole under that mutex.
#ifndef BASE_LOGTARGET_H_
#define BASE_LOGTARGET_H_

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Owners.h"

class LogTarget {
 public:
  // Standard error with the start-up levels: 0 to 4 on, the rest off; no
  // event prefix.
  LogTarget();
  // Standard error with the levels and the event prefix that like has now (the
  // start-up ones when like is null): a log that goes on as another did
  // until it is given a destination of its own.
  explicit LogTarget(const LogTarget* like);
  ~LogTarget() = default;
  LogTarget(const LogTarget&) = delete;
  LogTarget& operator=(const LogTarget&) = delete;

  // Presets the levels (0-3 on, WARNING unless LOG_WARNING=off, the rest
  // off) and applies the LOG_* variables of env. Returns 1.
  int init(const Environment& env);
  // Applies the LOG_* variables of env again (after a parameter package was
  // read): each of LOG_WARNING, LOG_INFO, LOG_DEBUG, LOG_RPC and LOG_ENTRY
  // that is set switches its level by the truth-value rule. Returns 1.
  int applyVariables(const Environment& env);
  // "-", "stderr" or empty: standard error, or the journal when standard
  // error is the stream systemd connected to it (JOURNAL_STREAM in env);
  // "journal": the journal. Any other name is a file opened for appending; a
  // relative one goes under ZEPH_SRV_LOG of env when that is set. Returns 1,
  // or 0 when the file cannot be opened (the destination then stays).
  int setFile(const char* name, const Environment& env);
  // Switches one level (0..13). Returns 1, or 0 for a level out of range.
  int setLevel(int level, int on);
  // Switches a named level (ALL, WARNING, INFO, DEBUG, RPC, ENTRY; ASCII case
  // ignored). Returns 1, or 0 for an unknown name.
  int setLevel(const char* name, int on);
  // 1 when the level is on, else 0 (also for a level out of range).
  int getLevel(int level) const;
  // The name of the file logged to, "stderr" or "journal".
  std::string fileName() const;
  // Text written before every line (not in the journal, which keeps its own
  // time and program name); at most 511 bytes are kept.
  void setEventPrefix(const char* prefix);
  void flush() const;
  // The file lines go to, or standard error (also when they go to the
  // journal). For libcurl's debug output; valid until the next setFile.
  FILE* stream() const;
  // Writes one line of a message at level, unconditionally:
  //   <prefix><local time with ms> <pid> <level> <component>::<function>: <text>
  // A continuation line shows level 0 and indents the text by four spaces; in
  // the journal it keeps the priority of level.
  void write(int level, const char* component, const char* function, const char* text,
             bool continuation) const;

  // The installed target, or, with none installed, a fixed one writing to
  // standard error at the start-up levels.
  static const LogTarget& current();

  // Installs a target for the life of this object and then puts back the one
  // installed before. Installations end in the reverse order of their start.
  class Installation {
   public:
    explicit Installation(const LogTarget& target);
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

   private:
    const LogTarget* previous_;
  };

 private:
  FILE* out() const { return file_ ? file_.get() : stderr; }

  std::atomic<bool> levels_[Log::kMaxLevel + 1];
  mutable std::mutex mutex_;  // guards what follows
  FilePtr file_;              // null: standard error (or the journal)
  bool journal_ = false;      // lines go to the systemd journal
  std::string fileName_ = "stderr";
  char prefix_[512] = "";
};

#endif  // BASE_LOGTARGET_H_
