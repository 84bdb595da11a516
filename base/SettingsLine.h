// SettingsLine: the one log line, written at start, that shows the settings
// in effect as name=value pairs, in the order they were added. Each module
// adds its own settings; a new setting is one more add() call.
#ifndef BASE_SETTINGSLINE_H_
#define BASE_SETTINGSLINE_H_

#include <string>

class SettingsLine {
 public:
  // name=value; a value that is empty or holds blanks, quotes or "=" is
  // written in single quotes.
  void add(const char* name, const std::string& value);
  void add(const char* name, long value);
  // A secret shows only whether it is set: "********" or "none".
  void addSecret(const char* name, bool set);
  // Pairs another module wrote as "NAME=value NAME=value"; empty adds nothing.
  void addPairs(const std::string& pairs);

  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

#endif  // BASE_SETTINGSLINE_H_
