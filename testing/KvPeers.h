// KvPeers: the KV emulator (kvmini, on libtirpc) and the client probe
// (kvprobe, on our runtime) as child processes for the KV protocol tests.
#ifndef TESTING_KVPEERS_H_
#define TESTING_KVPEERS_H_

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"

namespace testing_support {

inline std::string kvminiPath() {
  return std::string(CLOCKETTE_BINARY_DIR) + "/tools/kvmini/kvmini";
}
inline std::string kvprobePath() {
  return std::string(CLOCKETTE_BINARY_DIR) + "/tools/kvmini/kvprobe";
}

// The number after "<key>=" (or "<key> ") in line, or -1.
inline long numberAfter(const std::string& line, const std::string& key) {
  std::smatch m;
  if (!std::regex_search(line, m, std::regex(key + "[= ](-?[0-9]+)"))) return -1;
  return std::stol(m[1]);
}

// A background process that prints one line per event: kvmini serve or kvprobe.
class LinePeer {
 public:
  LinePeer(const std::vector<std::string>& argv, const ChildOptions& options = {})
      : child_(argv, options) {}

  // Reads lines until one contains part (kept in *line); false on EOF/timeout.
  bool waitFor(const std::string& part, std::string* line = nullptr, int timeoutSeconds = 20) {
    std::string l;
    while (child_.readLine(&l, timeoutSeconds)) {
      seen_.push_back(l);
      if (l.find(part) != std::string::npos) {
        if (line) *line = l;
        return true;
      }
    }
    return false;
  }
  // Collects what arrives within seconds, then returns every line seen so far.
  const std::vector<std::string>& drain(int seconds = 1) {
    std::string l;
    while (child_.readLine(&l, seconds)) seen_.push_back(l);
    return seen_;
  }
  int countLines(const std::string& prefix) const {
    int n = 0;
    for (const auto& l : seen_) n += l.compare(0, prefix.size(), prefix) == 0;
    return n;
  }
  BackgroundChild& child() { return child_; }

 private:
  BackgroundChild child_;
  std::vector<std::string> seen_;
};

// kvmini serve on an ephemeral port; port() is where it listens.
class KvMini : public LinePeer {
 public:
  explicit KvMini(std::vector<std::string> extra = {}) : LinePeer(argv(std::move(extra))) {
    std::string line;
    if (waitFor("kvmini listening", &line)) port_ = static_cast<int>(numberAfter(line, "port"));
  }
  int port() const { return port_; }
  std::string portText() const { return std::to_string(port_); }

 private:
  static std::vector<std::string> argv(std::vector<std::string> extra) {
    extra.insert(extra.begin(), {kvminiPath(), "serve", "--port", "0"});
    return extra;
  }
  int port_ = -1;
};

// One kvmini client command (work, ctrl, info, call) against host:port; its
// first output line ("reply 1", "error RPC: ...").
inline std::string kvminiCall(const std::string& to, std::vector<std::string> args) {
  std::vector<std::string> argv = {kvminiPath(), args.at(0), "--to", to, "--timeout", "2"};
  argv.insert(argv.end(), args.begin() + 1, args.end());
  ChildResult r = runChild(argv);
  std::string out = r.out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// A loopback port bound by a socket of type (SOCK_STREAM or SOCK_DGRAM) that
// nobody serves: connections are refused, datagrams never answered. The
// socket stays open in *fd until the caller closes it.
inline int unservedPort(int type, int* fd) {
  *fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  bind(*fd, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(*fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

// A worker registered with a kvmini of its own.
struct ServedWorker {
  // Starts kvmini with kvArgs, then argv with KVHOST and KVPORT naming it;
  // false when the registration was not seen.
  bool start(std::vector<std::string> kvArgs, const std::vector<std::string>& argv,
             ChildOptions options) {
    worker.reset();
    kv = std::make_unique<KvMini>(std::move(kvArgs));
    options.env["KVHOST"] = "127.0.0.1";
    options.env["KVPORT"] = kv->portText();
    worker = std::make_unique<BackgroundChild>(argv, options);
    std::string hi;
    if (kv->port() < 0 || !kv->waitFor("HI ", &hi)) return false;
    at = "127.0.0.1:" + std::to_string(numberAfter(hi, "port"));
    return true;
  }
  std::unique_ptr<KvMini> kv;
  std::unique_ptr<BackgroundChild> worker;
  std::string at;  // the worker's callback service
};

}  // namespace testing_support

#endif  // TESTING_KVPEERS_H_
