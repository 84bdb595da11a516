// Environment: where the program's settings live.
//
// The worker is configured through variables: the setup packages store them
// in an Environment, and every reader of a setting asks the same one. main
// hands Environment::process() down; a test builds a MapEnvironment
// (testing/MapEnvironment.h) with exactly the variables it means, instead of
// setting and scrubbing the variables of the whole test process.
#ifndef BASE_ENVIRONMENT_H_
#define BASE_ENVIRONMENT_H_

class Environment {
 public:
  Environment() = default;
  virtual ~Environment() = default;
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // The value of name, or null when it is not set. The pointer stays valid
  // until this variable is changed.
  virtual const char* get(const char* name) const = 0;
  // Stores value under name. 0, or -1 when the name is empty or holds "="
  // or the value cannot be kept (as setenv refuses them).
  virtual int set(const char* name, const char* value) = 0;

  // The process environment (getenv/setenv). Not thread-safe to change:
  // settings are stored at start-up, before any thread runs.
  static Environment& process();
};

#endif  // BASE_ENVIRONMENT_H_
