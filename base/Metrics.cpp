#include "base/Metrics.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <new>

#include "base/ServiceNotify.h"

namespace {

// Upper bounds (seconds) of the answer-time buckets: from a local server's
// milliseconds to the default total time-out of 60 s.
constexpr double kBuckets[] = {0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60};
constexpr size_t kBucketCount = sizeof kBuckets / sizeof kBuckets[0];
// Per-file results 0 to -10 have a counter each; any other shares the last.
constexpr size_t kResultSlots = 12;

int64_t unixNowMs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

size_t resultSlot(int result) {
  return result <= 0 && result > -static_cast<int>(kResultSlots - 1) ? static_cast<size_t>(-result)
                                                                     : kResultSlots - 1;
}

// Label of a result slot.
std::string resultLabel(size_t slot) {
  static const char* const kNames[] = {
      "ok", "hash_failed", "exchange_failed", "answer_refused", "encoding_failed", "write_failed"};
  if (slot < sizeof kNames / sizeof kNames[0]) return kNames[slot];
  if (slot == kResultSlots - 1) return "other";
  return "error_" + std::to_string(slot);
}

void appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* out, const char* format, ...) {
  char line[256];
  va_list ap;
  va_start(ap, format);
  vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  *out += line;
}

}  // namespace

// Lock-free counters only: they are shared with the worker processes that
// test mode forks (-jobs), which count into the same memory.
struct Metrics::State {
  std::atomic<uint64_t> documentsOk{0};
  std::atomic<uint64_t> documentsFailed{0};
  std::atomic<uint64_t> timestamps[kResultSlots] = {};
  // By server position: per bucket, not cumulative.
  std::atomic<uint64_t> answerBuckets[Metrics::kMaxServers][kBucketCount] = {};
  std::atomic<uint64_t> answerCount[Metrics::kMaxServers] = {};
  std::atomic<uint64_t> answerMicros[Metrics::kMaxServers] = {};
  std::atomic<bool> registered{false};
  int64_t startMs = 0;                    // Unix time the worker started; set once, when made
  std::atomic<int64_t> lastSuccessMs{0};  // Unix time, 0 until the first stamped file
  std::atomic<uint64_t> changes{0};
  std::atomic<uint64_t> servers[Metrics::kMaxServers][4] = {};  // by ServerEvent
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "counters shared between processes");

Metrics::Metrics() : state_(nullptr), shared_(false) {
  // Made before any worker process is forked, so that they all inherit it.
  void* mapping =
      mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  shared_ = mapping != MAP_FAILED;
  state_ = shared_ ? new (mapping) State : new State;
  state_->startMs = unixNowMs();
}

Metrics::~Metrics() {
  if (!shared_) {
    delete state_;
    return;
  }
  state_->~State();
  munmap(state_, sizeof(State));
}

void Metrics::countDocument(bool ok) {
  State& s = *state_;
  ++(ok ? s.documentsOk : s.documentsFailed);
  ++s.changes;
  service::notifyStatus(std::to_string(s.documentsOk + s.documentsFailed) + " documents done, " +
                        std::to_string(s.documentsFailed) + " failed");
}

void Metrics::countTimestamp(int result) {
  State& s = *state_;
  ++s.timestamps[resultSlot(result)];
  if (result == 0) {
    int64_t now = unixNowMs();
    int64_t last = s.lastSuccessMs.load();
    while (last < now && !s.lastSuccessMs.compare_exchange_weak(last, now)) {
    }
  }
  ++s.changes;
}

void Metrics::nameExchangeServers(const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(namesMutex_);
  exchangeNames_.assign(names.begin(), names.begin() + std::min(names.size(), kMaxServers));
}

void Metrics::observeAnswer(const std::string& server, double seconds) {
  size_t at = 0;
  {
    std::lock_guard<std::mutex> lock(namesMutex_);
    const std::vector<std::string>& names = exchangeNames_;
    at = static_cast<size_t>(std::find(names.begin(), names.end(), server) - names.begin());
    if (at == names.size()) at = 0;  // an unnamed server shares the first histogram
  }
  State& s = *state_;
  for (size_t i = 0; i < kBucketCount; ++i) {
    if (seconds <= kBuckets[i]) {
      ++s.answerBuckets[at][i];
      break;
    }
  }
  s.answerMicros[at] += static_cast<uint64_t>(std::max(seconds, 0.0) * 1e6);
  ++s.answerCount[at];
  ++s.changes;
}

void Metrics::setRegistered(bool registered) {
  state_->registered = registered;
  ++state_->changes;
}

void Metrics::nameServers(const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(namesMutex_);
  serverNames_.assign(names.begin(), names.begin() + std::min(names.size(), kMaxServers));
}

void Metrics::countServer(size_t index, ServerEvent event) {
  if (index >= kMaxServers) return;
  ++state_->servers[index][static_cast<int>(event)];
  ++state_->changes;
}

std::string Metrics::serverSummary() const {
  std::lock_guard<std::mutex> lock(namesMutex_);
  const State& s = *state_;
  std::string out;
  for (size_t i = 0; i < serverNames_.size(); ++i) {
    const auto& n = s.servers[i];
    uint64_t attempts = n[0] + n[1] + n[2];
    appendf(&out, "%s%s attempts=%" PRIu64 " ok=%" PRIu64 " failed=%" PRIu64 " held=%" PRIu64,
            i > 0 ? ", " : "", serverNames_[i].c_str(), attempts, n[0].load(), n[1].load(),
            n[3].load());
  }
  return out;
}

Metrics::Totals Metrics::totals() const {
  const State& s = *state_;
  Totals t;
  t.documentsOk = s.documentsOk;
  t.documentsFailed = s.documentsFailed;
  t.filesStamped = s.timestamps[0];
  t.changes = s.changes;
  return t;
}

std::string Metrics::prometheusText() const {
  const State& s = *state_;
  std::string out;
  out +=
      "# HELP clockette_build_info The worker's version.\n"
      "# TYPE clockette_build_info gauge\n"
      "clockette_build_info{version=\"" CLOCKETTE_VERSION
      "\"} 1\n"
      "# HELP clockette_process_start_time_seconds Unix time the worker started.\n"
      "# TYPE clockette_process_start_time_seconds gauge\n";
  appendf(&out, "clockette_process_start_time_seconds %.3f\n", s.startMs / 1e3);
  out +=
      "# HELP clockette_registered 1 while the worker is registered with the KV.\n"
      "# TYPE clockette_registered gauge\n";
  appendf(&out, "clockette_registered %d\n", s.registered ? 1 : 0);
  out +=
      "# HELP clockette_documents_total Documents worked on, by result.\n"
      "# TYPE clockette_documents_total counter\n";
  appendf(&out, "clockette_documents_total{result=\"ok\"} %" PRIu64 "\n", s.documentsOk.load());
  appendf(&out, "clockette_documents_total{result=\"failed\"} %" PRIu64 "\n",
          s.documentsFailed.load());
  out +=
      "# HELP clockette_timestamps_total Files to be stamped, by result.\n"
      "# TYPE clockette_timestamps_total counter\n";
  for (size_t slot = 0; slot < kResultSlots; ++slot) {
    uint64_t n = s.timestamps[slot];  // every result from the start, so rates work at once
    appendf(&out, "clockette_timestamps_total{result=\"%s\"} %" PRIu64 "\n",
            resultLabel(slot).c_str(), n);
  }
  out +=
      "# HELP clockette_tsa_answer_seconds Time a Timestamp Server exchange took.\n"
      "# TYPE clockette_tsa_answer_seconds histogram\n";
  std::unique_lock<std::mutex> names(namesMutex_);
  const std::vector<std::string> servers =
      exchangeNames_.empty() ? std::vector<std::string>{""} : exchangeNames_;
  names.unlock();
  for (size_t at = 0; at < servers.size(); ++at) {
    const char* server = servers[at].c_str();
    uint64_t cumulative = 0;
    for (size_t i = 0; i < kBucketCount; ++i) {
      cumulative += s.answerBuckets[at][i];
      appendf(&out, "clockette_tsa_answer_seconds_bucket{server=\"%s\",le=\"%g\"} %" PRIu64 "\n",
              server, kBuckets[i], cumulative);
    }
    // Read after the buckets, and never below them, so the series stays cumulative.
    uint64_t count = std::max<uint64_t>(s.answerCount[at], cumulative);
    appendf(&out, "clockette_tsa_answer_seconds_bucket{server=\"%s\",le=\"+Inf\"} %" PRIu64 "\n",
            server, count);
    appendf(&out, "clockette_tsa_answer_seconds_sum{server=\"%s\"} %.6f\n", server,
            s.answerMicros[at] / 1e6);
    appendf(&out, "clockette_tsa_answer_seconds_count{server=\"%s\"} %" PRIu64 "\n", server, count);
  }
  out +=
      "# HELP clockette_last_success_timestamp_seconds Unix time of the last stamped file (0: "
      "none yet).\n"
      "# TYPE clockette_last_success_timestamp_seconds gauge\n";
  appendf(&out, "clockette_last_success_timestamp_seconds %.3f\n", s.lastSuccessMs / 1e3);
  std::lock_guard<std::mutex> lock(namesMutex_);
  if (serverNames_.empty()) return out;
  out +=
      "# HELP clockette_tsa_attempts_total Attempts with each Timestamp Server, by result "
      "(failed: may pass, tried again or elsewhere).\n"
      "# TYPE clockette_tsa_attempts_total counter\n";
  static const char* const kResults[] = {"ok", "failed", "other"};
  for (size_t i = 0; i < serverNames_.size(); ++i) {
    for (int r = 0; r < 3; ++r) {
      appendf(&out, "clockette_tsa_attempts_total{server=\"%s\",result=\"%s\"} %" PRIu64 "\n",
              serverNames_[i].c_str(), kResults[r], s.servers[i][r].load());
    }
  }
  out +=
      "# HELP clockette_tsa_holds_total Times a Timestamp Server that failed was skipped for a "
      "while.\n"
      "# TYPE clockette_tsa_holds_total counter\n";
  for (size_t i = 0; i < serverNames_.size(); ++i) {
    appendf(&out, "clockette_tsa_holds_total{server=\"%s\"} %" PRIu64 "\n", serverNames_[i].c_str(),
            s.servers[i][3].load());
  }
  return out;
}

int Metrics::writePrometheusFile(const std::string& path) const {
  std::string text = prometheusText();
  // A name of our own, created afresh: whatever another user placed beside
  // the file (a file, a link) is never written through, only avoided.
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 8; ++attempt) {
    uint64_t random = 0;
    if (getrandom(&random, sizeof random, GRND_NONBLOCK) != sizeof random) return EAGAIN;
    char suffix[40];
    snprintf(suffix, sizeof suffix, ".tmp.%d.%016" PRIx64, static_cast<int>(getpid()), random);
    temporary = path + suffix;
    fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EEXIST) return errno;
  }
  if (fd < 0) return EEXIST;
  size_t done = 0;
  int err = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      err = errno;
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && rename(temporary.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) unlink(temporary.c_str());
  return err;
}
