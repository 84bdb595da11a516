#include "testing/TestTsa.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "testing/TempDir.h"

namespace testing_support {

TestTsa::TestTsa(const std::string& program, const TestTsaOptions& options) {
  std::vector<std::string> argv = {program};
  if (!options.dir.empty()) argv.insert(argv.end(), {"--dir", options.dir});
  if (!options.fault.empty()) argv.insert(argv.end(), {"--fault", options.fault});
  if (options.faultCount >= 0) {
    argv.insert(argv.end(), {"--fault-count", std::to_string(options.faultCount)});
  }
  if (!options.bindAddress.empty()) argv.insert(argv.end(), {"--bind", options.bindAddress});
  if (options.requireAuth) {
    argv.insert(argv.end(), {"--login", options.login, "--password", options.password});
  }
  argv.insert(argv.end(), options.extraArgs.begin(), options.extraArgs.end());
  child_ = std::make_unique<BackgroundChild>(argv);
  std::string line;
  // Creating three RSA keys takes a moment on a busy machine.
  while (child_->running() && child_->readLine(&line, 60)) {
    if (line == "ready") {
      ready_ = true;
      break;
    }
    size_t eq = line.find('=');
    if (eq != std::string::npos) values_[line.substr(0, eq)] = line.substr(eq + 1);
  }
  logBuffer_ = child_->stderrText();
  int fd = child_->takeStderr();
  if (fd >= 0) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    logReader_ = std::thread([this, fd] {
      char buf[4096];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) logBuffer_.append(buf, static_cast<size_t>(n));
      }
      close(fd);
    });
  }
}

TestTsa::~TestTsa() { stop(); }

std::string TestTsa::stop() {
  if (child_ && child_->running()) {
    child_->stop(15, 10);
    log_ = child_->stderrText();
  }
  if (logReader_.joinable()) {
    logReader_.join();
    log_ = logBuffer_;
  }
  return log_;
}

std::string TestTsa::value(const std::string& key) const {
  auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}

int TestTsa::port(const std::string& key) const {
  std::string v = value(key);
  return v.empty() ? -1 : atoi(v.c_str());
}

std::string verifyTimestampResponse(const std::string& responseDer, const std::string& dataFile,
                                    const std::string& caFile, const std::string& untrustedFile) {
  TempDir dir;
  const std::string name = dir.file("response.tsr");
  writeFile(name, responseDer);
  std::vector<std::string> argv = {"/usr/bin/openssl", "ts",      "-verify", "-in", name, "-data",
                                   dataFile,           "-CAfile", caFile};
  if (!untrustedFile.empty()) argv.insert(argv.end(), {"-untrusted", untrustedFile});
  ChildResult r = runChild(argv);
  if (r.exitCode == 0 && r.out.find("Verification: OK") != std::string::npos) return "";
  return "openssl ts -verify exit " + std::to_string(r.exitCode) + ": " + r.out + r.err;
}

std::string requestOverTcp(const TestTsa& tsa, const std::string& dataFile, bool certReq) {
  TempDir dir;
  const std::string name = dir.file("request.tsq");
  std::vector<std::string> query = {"/usr/bin/openssl", "ts",      "-query", "-data",
                                    dataFile,           "-sha256", "-out",   name};
  if (certReq) query.push_back("-cert");
  const std::string request = runChild(query).exitCode == 0 ? readFile(name) : std::string();
  if (request.empty()) return std::string();

  std::string frame;
  uint32_t length = static_cast<uint32_t>(request.size() + 1);
  for (int shift = 24; shift >= 0; shift -= 8) frame += static_cast<char>(length >> shift);
  frame += '\0';
  frame += request;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(tsa.tcpPort()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size())) {
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) answer.append(buf, static_cast<size_t>(n));
  }
  if (fd >= 0) close(fd);
  return answer.size() > 5 ? answer.substr(5) : std::string();
}

}  // namespace testing_support
