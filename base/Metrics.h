// Metrics: what the worker has done, for its operator: documents and
// timestamps by result, how long the Timestamp Server took to answer, and
// when a file was last stamped. The summary log line and the metrics file
// (Prometheus text format, read by the node exporter's textfile collector)
// are made from these counters.
//
// The worker owns its Metrics (Kavlet::metrics) and lends it to whatever
// counts: the work cycle, the reporter, the document stamper and the
// Timestamp Server requester. A program without a worker (a tool, a
// benchmark, a test) makes one of its own.
//
// Counters that only grow. Every method is thread-safe (the files of a
// document are stamped on several threads at once). The counters live in a
// shared anonymous mapping made by the constructor, so the worker processes
// of test mode (kavlet/SideBySide.h), forked after it, count into the same
// counters; the server names are set before the fork, as the processes do not
// share them. The mapping is unmapped by the destructor: whatever counts must
// be done with the Metrics by then.
#ifndef BASE_METRICS_H_
#define BASE_METRICS_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

class Metrics {
 public:
  Metrics();
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // One document worked on: done (ok) or failed.
  void countDocument(bool ok);

  // One file's stamping ended with the requester's per-file result: 0
  // stamped, -1 hashing failed, -2 exchange failed, -3 answer refused, -4
  // encoding failed, -5 target not written; -6 to -10 by number, any other
  // result as "other".
  void countTimestamp(int result);

  // One exchange with the Timestamp Server named server (as
  // nameExchangeServers named it; any other shares the first one's
  // histogram) took seconds, answered or not.
  void observeAnswer(const std::string& server, double seconds);
  // The servers whose exchanges are timed, each with a histogram of its own:
  // every configured server, named once at start before test mode forks.
  void nameExchangeServers(const std::vector<std::string>& names);

  // Registered with the KV (true) or not (false, at start).
  void setRegistered(bool registered);

  // Timestamp Servers by position: 0 the primary, then the fallbacks (at
  // most kMaxServers). Named once at start, before any worker is forked, when
  // retries or fallback servers are in use; only named servers are counted
  // and shown.
  static constexpr size_t kMaxServers = 16;
  void nameServers(const std::vector<std::string>& names);
  // kOk: an attempt brought a response; kFailed: it failed in a way that may
  // pass; kOther: it failed for good; kHeld: the server was put on hold.
  enum class ServerEvent { kOk = 0, kFailed, kOther, kHeld };
  void countServer(size_t index, ServerEvent event);
  // "<server> attempts=N ok=N failed=N held=N" for each named server, joined
  // by ", "; empty when none is named.
  std::string serverSummary() const;

  struct Totals {
    uint64_t documentsOk = 0;
    uint64_t documentsFailed = 0;
    uint64_t filesStamped = 0;
    uint64_t changes = 0;  // grows with every count; tells whether to write again
  };
  Totals totals() const;

  // The counters in the Prometheus text exposition format.
  std::string prometheusText() const;

  // Writes prometheusText() to path atomically: a temporary file in the same
  // directory, renamed over path, so a reader never sees half a file. The
  // temporary file has a random name and is created afresh (O_EXCL,
  // O_NOFOLLOW): nothing placed there beforehand is written through. Returns
  // 0, or the errno of the step that failed (the temporary file is removed).
  int writePrometheusFile(const std::string& path) const;

 private:
  struct State;

  State* state_;  // in the shared mapping, or on the heap when none could be made
  bool shared_;   // state_ is in the mapping
  // Guards the names below; set at start, read by the reporting thread.
  mutable std::mutex namesMutex_;
  std::vector<std::string> serverNames_;    // the servers counted
  std::vector<std::string> exchangeNames_;  // the servers whose exchanges are timed
};

#endif  // BASE_METRICS_H_
