// String: the framework's value string.
//
// A thin value type over std::string. It exists so that the framework's text
// fields keep one vocabulary (length, substring, index of a character, ASCII
// lower-casing) and so that every text handed to C interfaces is NUL-terminated.
// Comparison is byte by byte. Copyable; not thread-safe (as std::string).
#ifndef BASE_STRING_H_
#define BASE_STRING_H_

#include <cstddef>
#include <string>

class String {
 public:
  String() = default;
  String(const char* text) : s_(text ? text : "") {}  // NOLINT: implicit by design
  String(const char* text, size_t count) : s_(text ? std::string(text, count) : std::string()) {}
  String(const std::string& text) : s_(text) {}  // NOLINT
  String(std::string&& text) : s_(std::move(text)) {}  // NOLINT

  String& operator=(const char* text) {
    s_ = text ? text : "";
    return *this;
  }
  String& operator+=(const String& other) {
    s_ += other.s_;
    return *this;
  }
  String& operator+=(const char* text) {
    if (text) s_ += text;
    return *this;
  }
  String& operator+=(char c) {
    s_ += c;
    return *this;
  }

  // NUL-terminated characters; valid until the string is next changed.
  const char* c_str() const { return s_.c_str(); }
  const std::string& str() const { return s_; }
  size_t length() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  char operator[](size_t i) const { return s_[i]; }

  // The characters from start, at most count of them; empty when start is past the end.
  String subString(size_t start, size_t count = std::string::npos) const {
    return start >= s_.size() ? String() : String(s_.substr(start, count));
  }
  // Position of the first c at or after from, or -1.
  long index(char c, size_t from = 0) const {
    size_t p = s_.find(c, from);
    return p == std::string::npos ? -1 : static_cast<long>(p);
  }
  // Position of the last c, or -1.
  long lastIndex(char c) const {
    size_t p = s_.rfind(c);
    return p == std::string::npos ? -1 : static_cast<long>(p);
  }
  // Lower-cases ASCII letters only; other bytes stay as they are.
  String lower() const {
    std::string r = s_;
    for (char& c : r)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return String(std::move(r));
  }

  friend bool operator==(const String& a, const String& b) { return a.s_ == b.s_; }
  friend bool operator!=(const String& a, const String& b) { return a.s_ != b.s_; }
  friend bool operator<(const String& a, const String& b) { return a.s_ < b.s_; }
  friend bool operator==(const String& a, const char* b) { return a.s_ == (b ? b : ""); }
  friend bool operator!=(const String& a, const char* b) { return !(a == b); }
  friend String operator+(String a, const String& b) { return a += b; }
  friend String operator+(String a, const char* b) { return a += b; }
  friend String operator+(String a, char c) { return a += c; }

 private:
  std::string s_;
};

#endif  // BASE_STRING_H_
