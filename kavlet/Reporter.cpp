#include "kavlet/Reporter.h"

#include <algorithm>
#include <cstdio>

#include "base/Log.h"
#include "base/Metrics.h"
#include "base/SystemError.h"

namespace {

constexpr std::chrono::seconds kMetricsInterval(60);
constexpr std::chrono::seconds kSummaryInterval(3600);

}  // namespace

Reporter::~Reporter() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
  }
  endThread();
}

void Reporter::logSummary() const {
  Log log("Reporter", "summary", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 3, "%s", summary().c_str());
}

void Reporter::writeMetrics() {
  if (metricsPath_.empty()) return;
  uint64_t changes = metrics_.totals().changes;
  if (changes == writtenChanges_) return;
  int err = metrics_.writePrometheusFile(metricsPath_);
  if (err != 0) {
    Log log("Reporter", "writeMetrics", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 4, "cannot write the metrics file '%s': '%s'", metricsPath_.c_str(),
            systemError(err).c_str());
    return;
  }
  writtenChanges_ = changes;
}

void Reporter::backgroundLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  Clock::time_point nextMetrics = start_ + kMetricsInterval;
  Clock::time_point nextSummary = start_ + kSummaryInterval;
  while (!finished_) {
    Clock::time_point until = serving_ ? std::min(nextMetrics, nextSummary) : nextMetrics;
    if (wake_.wait_until(lock, until, [&] { return finished_; })) break;
    Clock::time_point now = Clock::now();
    if (now >= nextMetrics) {
      writeMetrics();
      nextMetrics = now + kMetricsInterval;
    }
    if (serving_ && now >= nextSummary) {
      logSummary();
      nextSummary += kSummaryInterval;
    }
  }
}

void Reporter::start(bool serving, const char* metricsPath) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  started_ = true;
  serving_ = serving;
  start_ = Clock::now();
  metricsPath_ = metricsPath ? metricsPath : "";
  if (metricsPath_.empty() && !serving) return;
  thread_ = std::thread([this] { backgroundLoop(); });
}

std::string Reporter::summary() const {
  Metrics::Totals t = metrics_.totals();
  double seconds = 0;
  if (started_) seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  uint64_t documents = t.documentsOk + t.documentsFailed;
  char text[256];
  snprintf(text, sizeof text,
           "summary: documents ok=%llu failed=%llu, files stamped=%llu, %.3f s, %.2f documents/s",
           static_cast<unsigned long long>(t.documentsOk),
           static_cast<unsigned long long>(t.documentsFailed),
           static_cast<unsigned long long>(t.filesStamped), seconds,
           seconds > 0 ? documents / seconds : 0.0);
  std::string servers = metrics_.serverSummary();
  return servers.empty() ? std::string(text) : std::string(text) + ", servers: " + servers;
}

void Reporter::finish() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_ || finished_) return;
    finished_ = true;
    wake_.notify_all();
    if (serving_) logSummary();
    writtenChanges_ = ~uint64_t{0};  // the last state is always written
    writeMetrics();
  }
  endThread();
}

void Reporter::endThread() {
  wake_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}
