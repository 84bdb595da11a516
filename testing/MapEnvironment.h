// MapEnvironment: the variables a test means, and no others.
#ifndef TESTING_MAPENVIRONMENT_H_
#define TESTING_MAPENVIRONMENT_H_

#include <cstring>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

#include "base/Environment.h"

class MapEnvironment final : public Environment {
 public:
  MapEnvironment() = default;
  MapEnvironment(std::initializer_list<std::pair<const std::string, std::string>> values)
      : values_(values) {}

  void unset(const std::string& name) { values_.erase(name); }
  const std::map<std::string, std::string>& values() const { return values_; }

  const char* get(const char* name) const override {
    auto it = values_.find(name);
    return it == values_.end() ? nullptr : it->second.c_str();
  }
  // Refuses what setenv refuses, so a test sees the process's failures.
  int set(const char* name, const char* value) override {
    if (*name == '\0' || strchr(name, '=') != nullptr) return -1;
    values_[name] = value;
    return 0;
  }

 private:
  std::map<std::string, std::string> values_;
};

#endif  // TESTING_MAPENVIRONMENT_H_
