// MapEnvironment: the variables a test means, and no others.
#ifndef TESTING_MAPENVIRONMENT_H_
#define TESTING_MAPENVIRONMENT_H_

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

  void set(const std::string& name, const std::string& value) { values_[name] = value; }
  void unset(const std::string& name) { values_.erase(name); }

  const char* get(const char* name) const override {
    auto it = values_.find(name);
    return it == values_.end() ? nullptr : it->second.c_str();
  }

 private:
  std::map<std::string, std::string> values_;
};

#endif  // TESTING_MAPENVIRONMENT_H_
