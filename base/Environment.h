// Environment: where the program's settings are read from.
//
// The worker is configured through variables: the setup packages put them
// into the process environment, and every reader of a setting asks an
// Environment for them. main hands Environment::process() down; a test
// builds a MapEnvironment (testing/MapEnvironment.h) with exactly the
// variables it means, instead of setting and scrubbing the variables of the
// whole test process.
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

  // The process environment (getenv), including what the setup packages set.
  static const Environment& process();
};

#endif  // BASE_ENVIRONMENT_H_
