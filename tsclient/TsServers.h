// TsServers: which Timestamp Servers one file's exchange goes to, and how
// often. A production pipeline should not lose a minute of documents to one
// server's bad minute, so on request the requester
//   - tries a server again after a failure that may pass (TS_RETRIES), with
//     exponential back-off and full jitter,
//   - falls over to further servers in order (TIMESTAMP_FALLBACK),
//   - skips a server that failed for a while (TS_FALLBACK_HOLD), so later
//     files go straight to one that works,
//   - ends all attempts for one file within TS_FILE_DEADLINE seconds.
// An answer is never retried and never sent elsewhere: a rejection, an HTTP
// 4xx, a malformed answer. Only failures that say nothing about the request
// (no connection, a time-out, HTTP 5xx, "not working", an answer cut short)
// are.
//
// With TS_RETRIES and TIMESTAMP_FALLBACK unset, run() makes exactly one
// attempt with the primary server and logs nothing of its own.
//
// Threading: run() may be called from several threads at once. The settings,
// the hold table, the counts and the jitter's generator are guarded by one
// mutex that is never held during an attempt or a wait.
// Waits end at once when a stop is requested (base/Stop.h).
#ifndef TSCLIENT_TSSERVERS_H_
#define TSCLIENT_TSSERVERS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

class Environment;
class Log;
class Metrics;

// One Timestamp Server.
struct TsServer {
  std::string protocol;  // "http" and "https" go through libcurl, anything else is raw TCP
  std::string host;      // a name, an IPv4 address or [IPv6]
  uint16_t port = 0;
  std::string path = "/";  // as TIMESTAMP_URL_PATH: the URL's text after "/</"
  // Set (TIMESTAMP_URL): the http or https URL posted exactly as written, in
  // place of protocol, host, port and path, which then only name the server.
  std::string url;

  // protocol://host:port, with "/path" for HTTP(S) unless the path is the
  // default: the server as TIMESTAMP_FALLBACK names it; the url when set
  // (credentials masked either way).
  std::string name() const;
};

// Reads "<protocol>://<host>:<port>[/<path>]": protocol http, https or tcp,
// host a name, an address or [IPv6 address], port 1 to 65535. <path> is what
// TIMESTAMP_URL_PATH would hold; missing or empty, it is "/". false (and
// server unchanged) for anything else.
bool parseTsServer(const std::string& text, TsServer* server);
// Reads an http or https URL to be posted exactly as written (TIMESTAMP_URL):
// url is text, protocol, host and port as libcurl reads them (the port by
// default 80 or 443). false (and server unchanged) for anything else, also
// for a URL with a login in it.
bool parseTsUrl(const std::string& text, TsServer* server);

// text (a URL, a server entry or a host) with the user information before
// its last "@" ("user:password@") shown as "********": for every message and
// label that names a server.
std::string maskCredentials(const std::string& text);

// What one attempt with one server came to.
struct TsAttempt {
  int result = 0;        // the exchange's result code (0: bytes received)
  bool mayPass = false;  // failed in a way that may pass: worth another attempt
  std::string reason;    // for the log, e.g. "HTTP 503"
};

struct TsRetryPolicy {
  int retries = 0;               // further attempts with the same server
  long long holdMs = 60000;      // a failed server is skipped this long
  long long deadlineMs = 60000;  // all attempts for one file
  long long attemptMs = 60000;   // one attempt at most
};

// Per server since configure(): attempts made, attempts that brought a
// response (result 0), attempts that failed in a way that may pass, and times
// the server was put on hold. The rest of the attempts brought a final failure.
struct TsServerCounts {
  std::string server;  // TsServer::name()
  unsigned long attempts = 0;
  unsigned long ok = 0;
  unsigned long failures = 0;
  unsigned long holds = 0;
};

// One exchange with server, to end within timeoutMs.
using TsAttemptFunction = std::function<TsAttempt(const TsServer& server, long long timeoutMs)>;

class TsServers {
 public:
  // metrics: where the servers are named and their attempts and holds
  // counted; borrowed, it must outlive the TsServers.
  explicit TsServers(Metrics& metrics);
  TsServers(const TsServers&) = delete;
  TsServers& operator=(const TsServers&) = delete;

  // Sets the servers (the primary first) and the policy; forgets holds and counts.
  void configure(const TsServer& primary, const std::vector<TsServer>& fallbacks,
                 const TsRetryPolicy& policy);
  // configure() from env's TIMESTAMP_FALLBACK, TS_RETRIES (0 to 10, default 0),
  // TS_FALLBACK_HOLD (seconds, default 60) and TS_FILE_DEADLINE (seconds,
  // default (retries + 1) * timeoutS). A value out of range or a malformed
  // server entry is logged at level 2 and left out (the default is used).
  // When the primary has a url, http and https entries are URLs as well.
  void configureFromEnvironment(Log& log, const Environment& env, const TsServer& primary,
                                long timeoutS);

  // Runs attempts until one brings an answer, the failure is no passing one,
  // every server failed, the deadline passed or a stop was requested. Returns
  // the result of the last attempt (-4 when none could be made).
  int run(const TsAttemptFunction& attempt);

  // The counts of every configured server, primary first.
  std::vector<TsServerCounts> counts() const;
  // The settings in effect, e.g. "TS_RETRIES=2 TIMESTAMP_FALLBACK=tcp://b:318
  // TS_FALLBACK_HOLD=60 TS_FILE_DEADLINE=180"; empty when none is in use.
  std::string settingsText() const;

 private:
  struct Entry {
    TsServer server;
    long long heldUntilMs = 0;  // steady clock; 0: not held
    TsServerCounts counts;
  };
  // The servers to try now, in order: those not held (the others' names go
  // to held); all when every one is held.
  std::vector<TsServer> serversToTry(long long nowMs, std::vector<std::string>* held);
  void record(const std::string& name, const TsAttempt& attempt);
  void hold(const std::string& name, long long untilMs);
  void release(const std::string& name);
  // Milliseconds of back-off before retry number retry (0 for the first):
  // uniformly drawn from 0 to min(30 s, 0.5 s * 2^retry), so that workers
  // that failed together do not come back together.
  long long backoffMs(int retry);

  Metrics& metrics_;
  mutable std::mutex mutex_;  // guards everything below
  std::vector<Entry> entries_;
  TsRetryPolicy policy_;
  std::mt19937_64 random_;  // the back-off jitter
};

#endif  // TSCLIENT_TSSERVERS_H_
