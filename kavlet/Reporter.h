// Reporter: what a running worker tells its operator besides its errors.
//   - The summary line (level 3): documents done and failed, files stamped,
//     seconds and documents per second since the reporter started; at the
//     end of a test run, every hour while serving the KV, and when a serving
//     worker ends.
//   - The metrics file named by CLOCKETTE_METRICS_FILE (base/Metrics.h):
//     written when something changed, at most once a minute, and at exit.
//
// The Kavlet owns its Reporter, which reads the Kavlet's Metrics. start
// starts a background thread when there is something to do in the
// background; finish ends it and may be called from any thread but that one,
// more than once (only the first call acts); the worker's end (finishWorker,
// kavlet/Kv.h) calls it. A Reporter that goes without finish ends its
// thread and writes nothing.
#ifndef KAVLET_REPORTER_H_
#define KAVLET_REPORTER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

class Metrics;

class Reporter {
 public:
  // metrics: what is reported; borrowed, it must outlive the Reporter.
  explicit Reporter(const Metrics& metrics) : metrics_(metrics) {}
  ~Reporter();
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // Starts reporting; serving: the worker serves the KV (hourly summary and
  // a summary at the end). metricsPath: CLOCKETTE_METRICS_FILE's value (null
  // or empty: no metrics file). Only the first call acts.
  void start(bool serving, const char* metricsPath);

  // The summary line's text for what was counted so far.
  std::string summary() const;

  // Ends reporting: logs the summary when serving and writes the metrics file.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void backgroundLoop();
  void logSummary() const;
  // Writes the metrics file unless nothing changed since the last write.
  void writeMetrics();
  // Wakes the background thread for its end and waits for it.
  void endThread();

  const Metrics& metrics_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool started_ = false;
  bool serving_ = false;
  bool finished_ = false;
  Clock::time_point start_;
  std::string metricsPath_;
  uint64_t writtenChanges_ = ~uint64_t{0};  // nothing written yet
  std::thread thread_;
};

#endif  // KAVLET_REPORTER_H_
