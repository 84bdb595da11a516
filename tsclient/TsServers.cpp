#include "tsclient/TsServers.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Metrics.h"
#include "base/Owners.h"
#include "base/Stop.h"
#include "tsclient/TsSettings.h"

namespace {

const char kComponent[] = "zpTrequest";

constexpr int kMaxRetries = 10;
constexpr long kMaxSeconds = 2147483;  // milliseconds still fit an int
constexpr long kDefaultHoldS = 60;
constexpr long long kBackoffBaseMs = 500;
constexpr long long kBackoffCapMs = 30000;

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A whole number from env within [low, high], else fallback; unset and
// empty take the fallback silently.
long wholeNumberFromEnv(Log& log, const Environment& env, const char* name, long low, long high,
                        long fallback) {
  const char* value = env.get(name);
  if (value == nullptr || *value == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  long number = strtol(value, &end, 10);
  if (end == value || *end != '\0' || errno == ERANGE || number < low || number > high) {
    log.msg(__LINE__, 2, "%s '%s' is no whole number from %ld to %ld, using %ld", name, value, low,
            high, fallback);
    return fallback;
  }
  return number;
}

std::string trimmed(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool isHttp(const std::string& protocol) { return protocol == "http" || protocol == "https"; }

}  // namespace

TsServers::TsServers(Metrics& metrics) : metrics_(metrics), random_(std::random_device{}()) {}

long long TsServers::backoffMs(int retry) {
  long long ceiling = kBackoffCapMs;
  if (retry < 16) ceiling = std::min(kBackoffCapMs, kBackoffBaseMs << std::max(retry, 0));
  std::lock_guard<std::mutex> lock(mutex_);
  return std::uniform_int_distribution<long long>(0, ceiling)(random_);
}

std::string maskCredentials(const std::string& text) {
  const size_t scheme = text.find("://");
  const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
  // Only the authority may hold a login: an "@" in a path or query stays.
  const size_t end = text.find_first_of("/?#", start);
  const size_t at = text.rfind('@', end);
  if (at == std::string::npos || at < start) return text;
  return text.substr(0, start) + kSecretMask + text.substr(at);
}

std::string TsServer::name() const {
  if (!url.empty()) return maskCredentials(url);
  std::string text = protocol + "://" + maskCredentials(host) + ":" + std::to_string(port);
  if (isHttp(protocol) && path != "/") text += "/" + path;
  return text;
}

bool parseTsServer(const std::string& text, TsServer* server) {
  size_t separator = text.find("://");
  if (separator == std::string::npos) return false;
  TsServer parsed;
  parsed.protocol = text.substr(0, separator);
  if (!isHttp(parsed.protocol) && parsed.protocol != "tcp") return false;
  std::string rest = text.substr(separator + 3);
  size_t hostEnd;
  if (!rest.empty() && rest[0] == '[') {
    size_t close = rest.find(']');
    if (close == std::string::npos || close < 2) return false;
    hostEnd = close + 1;
  } else {
    hostEnd = rest.find(':');
    if (hostEnd == std::string::npos || hostEnd == 0) return false;
  }
  parsed.host = rest.substr(0, hostEnd);
  // Characters that would make curl read the URL differently.
  for (char c : parsed.host) {
    if (c <= ' ' || c == '/' || c == '@' || c == '?' || c == '#' || c == ',') return false;
  }
  if (hostEnd >= rest.size() || rest[hostEnd] != ':') return false;
  size_t portEnd = rest.find('/', hostEnd + 1);
  std::string port = rest.substr(
      hostEnd + 1, portEnd == std::string::npos ? std::string::npos : portEnd - hostEnd - 1);
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
    return false;
  long number = strtol(port.c_str(), nullptr, 10);
  if (number < 1 || number > 65535) return false;
  parsed.port = static_cast<uint16_t>(number);
  std::string path = portEnd == std::string::npos ? std::string() : rest.substr(portEnd + 1);
  parsed.path = path.empty() ? "/" : path;
  *server = parsed;
  return true;
}

bool parseTsUrl(const std::string& text, TsServer* server) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F) return false;
  }
  std::unique_ptr<CURLU, FreeWith<curl_url_cleanup>> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return false;
  TsServer parsed;
  char* part = nullptr;
  const auto take = [&](CURLUPart which, unsigned int flags, std::string* to) {
    if (curl_url_get(url.get(), which, &part, flags) != CURLUE_OK) return false;
    *to = part;
    curl_free(part);
    return !to->empty();
  };
  // Credentials belong in TIMESTAMP_LOGIN and TIMESTAMP_PASSWORD, which are
  // never shown; a URL is shown wherever the server is named.
  if (curl_url_get(url.get(), CURLUPART_USER, &part, 0) == CURLUE_OK) {
    curl_free(part);
    return false;
  }
  std::string port;
  if (!take(CURLUPART_SCHEME, 0, &parsed.protocol) || !isHttp(parsed.protocol) ||
      !take(CURLUPART_HOST, 0, &parsed.host) || !take(CURLUPART_PORT, CURLU_DEFAULT_PORT, &port)) {
    return false;
  }
  parsed.port = static_cast<uint16_t>(strtol(port.c_str(), nullptr, 10));
  parsed.url = text;
  *server = parsed;
  return true;
}

void TsServers::configure(const TsServer& primary, const std::vector<TsServer>& fallbacks,
                          const TsRetryPolicy& policy) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
  entries_.push_back(Entry{primary, 0, {}});
  for (const TsServer& s : fallbacks) entries_.push_back(Entry{s, 0, {}});
  std::vector<std::string> names;
  for (Entry& e : entries_) names.push_back(e.counts.server = e.server.name());
  policy_ = policy;
  // The counts per server are shown where they tell something.
  bool inUse = policy.retries > 0 || entries_.size() > 1;
  metrics_.nameServers(inUse ? names : std::vector<std::string>());
  metrics_.nameExchangeServers(names);
}

void TsServers::configureFromEnvironment(Log& log, const Environment& env, const TsServer& primary,
                                         long timeoutS) {
  TsRetryPolicy policy;
  policy.retries = static_cast<int>(wholeNumberFromEnv(log, env, "TS_RETRIES", 0, kMaxRetries, 0));
  policy.attemptMs = timeoutS * 1000LL;
  policy.holdMs =
      wholeNumberFromEnv(log, env, "TS_FALLBACK_HOLD", 0, kMaxSeconds, kDefaultHoldS) * 1000LL;
  long defaultDeadlineS = (policy.retries + 1) * timeoutS;
  policy.deadlineMs =
      wholeNumberFromEnv(log, env, "TS_FILE_DEADLINE", 1, std::max(kMaxSeconds, defaultDeadlineS),
                         defaultDeadlineS) *
      1000LL;
  std::vector<TsServer> fallbacks;
  const char* list = env.get("TIMESTAMP_FALLBACK");
  std::string text = list ? list : "";
  for (size_t start = 0; start <= text.size();) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    std::string entry = trimmed(text.substr(start, comma - start));
    start = comma + 1;
    if (entry.empty()) continue;
    TsServer server;
    // With a URL for the primary, http(s) entries are posted as written too.
    const bool asUrl = !primary.url.empty() && entry.compare(0, 4, "tcp:") != 0;
    if (asUrl ? parseTsUrl(entry, &server) : parseTsServer(entry, &server)) {
      fallbacks.push_back(server);
    } else {
      log.msg(__LINE__, 2,
              "TIMESTAMP_FALLBACK entry '%s' is no <protocol>://<host>:<port>[/<path>] with "
              "protocol http, https or tcp, left out",
              maskCredentials(entry).c_str());
    }
  }
  configure(primary, fallbacks, policy);
  std::string settings = settingsText();
  if (!settings.empty()) log.msg(__LINE__, 9, "%s", settings.c_str());
}

std::string TsServers::settingsText() const {
  std::lock_guard<std::mutex> lock(mutex_);
  bool inUse = policy_.retries > 0 || entries_.size() > 1;
  if (!inUse && policy_.deadlineMs >= policy_.attemptMs) return std::string();
  std::string text;
  if (inUse) {
    text = "TS_RETRIES=" + std::to_string(policy_.retries);
    if (entries_.size() > 1) {
      text += " TIMESTAMP_FALLBACK=";
      for (size_t i = 1; i < entries_.size(); ++i) {
        text += (i > 1 ? "," : "") + entries_[i].server.name();
      }
    }
    text += " TS_FALLBACK_HOLD=" + std::to_string(policy_.holdMs / 1000) + " ";
  }
  return text + "TS_FILE_DEADLINE=" + std::to_string(policy_.deadlineMs / 1000);
}

std::vector<TsServerCounts> TsServers::counts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<TsServerCounts> all;
  for (const Entry& e : entries_) all.push_back(e.counts);
  return all;
}

std::vector<TsServer> TsServers::serversToTry(long long now, std::vector<std::string>* held) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<TsServer> order;
  for (const Entry& e : entries_) {
    if (e.heldUntilMs <= now) {
      order.push_back(e.server);
    } else {
      held->push_back(e.counts.server);
    }
  }
  // When every server is held, trying them all beats failing without a try.
  if (order.empty()) {
    held->clear();
    for (const Entry& e : entries_) order.push_back(e.server);
  }
  if (order.empty()) order.push_back(TsServer{});  // not configured: fails as before
  return order;
}

void TsServers::record(const std::string& name, const TsAttempt& attempt) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t i = 0; i < entries_.size(); ++i) {
    TsServerCounts& counts = entries_[i].counts;
    if (counts.server != name) continue;
    ++counts.attempts;
    Metrics::ServerEvent event = attempt.mayPass       ? Metrics::ServerEvent::kFailed
                                 : attempt.result == 0 ? Metrics::ServerEvent::kOk
                                                       : Metrics::ServerEvent::kOther;
    if (event == Metrics::ServerEvent::kFailed) ++counts.failures;
    if (event == Metrics::ServerEvent::kOk) ++counts.ok;
    metrics_.countServer(i, event);
    return;
  }
}

void TsServers::hold(const std::string& name, long long untilMs) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].counts.server != name) continue;
    entries_[i].heldUntilMs = untilMs;
    ++entries_[i].counts.holds;
    metrics_.countServer(i, Metrics::ServerEvent::kHeld);
  }
}

void TsServers::release(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (Entry& e : entries_) {
    if (e.counts.server == name) e.heldUntilMs = 0;
  }
}

int TsServers::run(const TsAttemptFunction& attempt) {
  long long start = nowMs();
  TsRetryPolicy policy;
  size_t configured;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    policy = policy_;
    configured = entries_.size();
  }
  std::vector<std::string> held;
  std::vector<TsServer> order = serversToTry(start, &held);
  if (policy.retries == 0 && configured <= 1) {
    // The designed single exchange: nothing of our own in the log.
    TsAttempt only = attempt(order[0], std::min(policy.attemptMs, policy.deadlineMs));
    record(order[0].name(), only);
    return only.result;
  }
  Log log(kComponent, "tryServers", __FILE__, __LINE__, 13);
  for (const std::string& name : held) {
    log.msg(__LINE__, 9, "timestamp server %s is held back after a failure, skipped", name.c_str());
  }
  long long deadline = start + policy.deadlineMs;
  TsAttempt last;
  last.result = -4;
  for (size_t i = 0; i < order.size(); ++i) {
    const TsServer& server = order[i];
    const std::string name = server.name();
    std::string next;
    for (int n = 1;; ++n) {
      if (stopRequested()) return last.result;
      long long left = deadline - nowMs();
      if (left <= 0) {
        log.msg(__LINE__, 3, "file deadline of %lld s reached, no further attempt",
                policy.deadlineMs / 1000);
        return last.result;
      }
      last = attempt(server, std::min(policy.attemptMs, left));
      record(name, last);
      if (!last.mayPass) {
        release(name);
        if (n > 1 || i > 0) {
          log.msg(__LINE__, 3, "timestamp server %s answered at attempt %d", name.c_str(), n);
        }
        return last.result;
      }
      long long wait = n <= policy.retries ? backoffMs(n - 1) : -1;
      if (wait >= 0 && nowMs() + wait < deadline) {
        log.msg(__LINE__, 3, "timestamp server %s, attempt %d failed (%s); next attempt in %lld ms",
                name.c_str(), n, last.reason.c_str(), wait);
        if (waitForStop(static_cast<int>(wait))) return last.result;
        continue;
      }
      next = i + 1 < order.size() ? "trying " + order[i + 1].name() + " next" : "no server left";
      if (configured > 1 && policy.holdMs > 0) {
        hold(name, nowMs() + policy.holdMs);
        next = "skipped for " + std::to_string(policy.holdMs / 1000) + " s, " + next;
      }
      log.msg(__LINE__, 3, "timestamp server %s, attempt %d failed (%s); %s", name.c_str(), n,
              last.reason.c_str(), next.c_str());
      break;
    }
  }
  return last.result;
}
