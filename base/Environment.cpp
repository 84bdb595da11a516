#include "base/Environment.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

class ProcessEnvironment final : public Environment {
 public:
  const char* get(const char* name) const override { return getenv(name); }
  int set(const char* name, const char* value) override {
    // setenv keeps its own copy, so nothing of the caller's has to outlive the call.
    if (setenv(name, value, 1) == 0) return 0;
    if (errno == ENOMEM) fprintf(stderr, "Memory problem could not malloc!\n");
    return -1;
  }
};

}  // namespace

Environment& Environment::process() {
  // Stateless: the one instance only forwards to getenv and setenv.
  static ProcessEnvironment environment;
  return environment;
}
