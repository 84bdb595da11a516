#include "base/SettingsLine.h"

void SettingsLine::add(const char* name, const std::string& value) {
  bool quote = value.empty() || value.find_first_of(" \t'\"=") != std::string::npos;
  if (!text_.empty()) text_ += ' ';
  text_ += name;
  text_ += '=';
  text_ += quote ? "'" + value + "'" : value;
}

void SettingsLine::add(const char* name, long value) { add(name, std::to_string(value)); }

void SettingsLine::addSecret(const char* name, bool set) { add(name, set ? "********" : "none"); }

void SettingsLine::addPairs(const std::string& pairs) {
  if (pairs.empty()) return;
  if (!text_.empty()) text_ += ' ';
  text_ += pairs;
}
