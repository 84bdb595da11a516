#include "testing/TestTsa.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace testing_support {

TestTsa::TestTsa(const std::string& program, const TestTsaOptions& options) {
  std::vector<std::string> argv = {program};
  if (!options.dir.empty()) argv.insert(argv.end(), {"--dir", options.dir});
  if (!options.fault.empty()) argv.insert(argv.end(), {"--fault", options.fault});
  if (!options.bindAddress.empty()) argv.insert(argv.end(), {"--bind", options.bindAddress});
  if (options.requireAuth) {
    argv.insert(argv.end(), {"--login", options.login, "--password", options.password});
  }
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
}

TestTsa::~TestTsa() { stop(); }

std::string TestTsa::stop() {
  if (child_ && child_->running()) {
    child_->stop(15, 10);
    log_ = child_->stderrText();
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
                                    const std::string& caFile, const std::string& tsaCertFile) {
  char name[] = "/tmp/clockette-tsr-XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) return "cannot create a temporary file";
  close(fd);
  {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out << responseDer;
  }
  ChildResult r = runChild({"/usr/bin/openssl", "ts", "-verify", "-in", name, "-data", dataFile,
                            "-CAfile", caFile, "-untrusted", tsaCertFile});
  unlink(name);
  if (r.exitCode == 0 && r.out.find("Verification: OK") != std::string::npos) return "";
  return "openssl ts -verify exit " + std::to_string(r.exitCode) + ": " + r.out + r.err;
}

}  // namespace testing_support
