#include "kavlet/Reporter.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "base/Log.h"
#include "base/Metrics.h"
#include "base/SystemError.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kMetricsInterval(60);
constexpr std::chrono::seconds kSummaryInterval(3600);

struct ReporterState {
  std::mutex mutex;
  std::condition_variable wake;
  bool started = false;
  bool serving = false;
  bool finished = false;
  Clock::time_point start;
  std::string metricsPath;
  uint64_t writtenChanges = ~uint64_t{0};  // nothing written yet
};

// Never destroyed: the background thread may outlive main.
ReporterState& state() {
  static ReporterState* s = new ReporterState;
  return *s;
}

void logSummary() {
  Log log("Reporter", "summary", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 3, "%s", reporterSummary().c_str());
}

// Writes the metrics file unless nothing changed since the last write.
void writeMetrics(ReporterState& s) {
  if (s.metricsPath.empty()) return;
  uint64_t changes = metrics::totals().changes;
  if (changes == s.writtenChanges) return;
  int err = metrics::writePrometheusFile(s.metricsPath);
  if (err != 0) {
    Log log("Reporter", "writeMetrics", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 4, "cannot write the metrics file '%s': '%s'", s.metricsPath.c_str(),
            systemError(err).c_str());
    return;
  }
  s.writtenChanges = changes;
}

void backgroundLoop() {
  ReporterState& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  Clock::time_point nextMetrics = s.start + kMetricsInterval;
  Clock::time_point nextSummary = s.start + kSummaryInterval;
  while (!s.finished) {
    Clock::time_point until = s.serving ? std::min(nextMetrics, nextSummary) : nextMetrics;
    if (s.wake.wait_until(lock, until, [&] { return s.finished; })) break;
    Clock::time_point now = Clock::now();
    if (now >= nextMetrics) {
      writeMetrics(s);
      nextMetrics = now + kMetricsInterval;
    }
    if (s.serving && now >= nextSummary) {
      logSummary();
      nextSummary += kSummaryInterval;
    }
  }
}

}  // namespace

void reporterStart(bool serving) {
  ReporterState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.started) return;
  s.started = true;
  s.serving = serving;
  s.start = Clock::now();
  const char* path = getenv("CLOCKETTE_METRICS_FILE");
  s.metricsPath = path ? path : "";
  if (s.metricsPath.empty() && !serving) return;
  std::thread(backgroundLoop).detach();
}

std::string reporterSummary() {
  ReporterState& s = state();
  metrics::Totals t = metrics::totals();
  double seconds = 0;
  if (s.started) seconds = std::chrono::duration<double>(Clock::now() - s.start).count();
  uint64_t documents = t.documentsOk + t.documentsFailed;
  char text[256];
  snprintf(text, sizeof text,
           "summary: documents ok=%llu failed=%llu, files stamped=%llu, %.3f s, %.2f documents/s",
           static_cast<unsigned long long>(t.documentsOk),
           static_cast<unsigned long long>(t.documentsFailed),
           static_cast<unsigned long long>(t.filesStamped), seconds,
           seconds > 0 ? documents / seconds : 0.0);
  std::string servers = metrics::serverSummary();
  return servers.empty() ? std::string(text) : std::string(text) + ", servers: " + servers;
}

void reporterFinish() {
  ReporterState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.started || s.finished) return;
  s.finished = true;
  s.wake.notify_all();
  if (s.serving) logSummary();
  s.writtenChanges = ~uint64_t{0};  // the last state is always written
  writeMetrics(s);
}
