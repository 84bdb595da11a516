#include "base/Environment.h"

#include <cstdlib>

namespace {

class ProcessEnvironment final : public Environment {
 public:
  const char* get(const char* name) const override { return getenv(name); }
};

}  // namespace

const Environment& Environment::process() {
  // Stateless: the one instance only forwards to getenv.
  static const ProcessEnvironment environment;
  return environment;
}
