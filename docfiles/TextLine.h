// TextLine: cuts one line of a COMMANDS value into argument tokens, and
// getKeyAndVal: splits one COMMANDS line into its key and its value.
//
// Tokens are handed out one per call as newly allocated NUL-terminated
// arrays; the caller owns them and releases them with TextLine::free.
//
// Two rule sets exist. The quoted rules (the default) keep blanks inside
// double quotes and treat backslashes before a quote as escapes; the plain
// rules cut at blanks only. The worker's choice between them is
// DocumentOptions::quoting (docfiles/Document.h).
//
// Not thread-safe: the worker tokenizes on its one service thread.
#ifndef DOCFILES_TEXTLINE_H_
#define DOCFILES_TEXTLINE_H_

#include <cstdint>
#include <memory>

#include "base/String.h"

class TextLine {
 public:
  // Copies text and cuts the copy at its first "\n" or "\r". A null text
  // leaves no copy; such an object hands out no tokens.
  explicit TextLine(const char* text);
  ~TextLine();
  TextLine(const TextLine&) = delete;
  TextLine& operator=(const TextLine&) = delete;

  // Starts tokenizing the line again from its beginning.
  void reset();

  // The next token, or null when the line is exhausted or malformed. mode 1:
  // quoted rules, mode 0: plain rules; any other mode gives null. An empty
  // quoted argument ("") also yields null, but the line is not exhausted then.
  char* getNextToken(int mode);

  // Releases a token; null is ignored.
  static void free(void* p);

  struct TokenFree {
    void operator()(char* p) const { TextLine::free(p); }
  };
  // A token that is released when it goes away.
  using Token = std::unique_ptr<char, TokenFree>;

  // Number of characters of the line after cutting (tests and logging).
  int32_t length() const { return length_; }

 private:
  char* plainToken();
  char* quotedToken();

  char* line_ = nullptr;  // owned (malloc), NUL-terminated; null without text
  int32_t position_ = 0;  // next character to read; -1 once exhausted
  int32_t length_ = 0;
};

// Splits line into key and value. The line is cut at its first "\r" (or, if
// it has none, at its first "\n"). The key runs from the start of the line
// (leading blanks included) to its last non-blank character before the first
// blank after it; the value is the rest after the blanks that follow the key,
// inner and trailing blanks kept. Returns 1 when a key was found; 0 for an
// empty line or one of blanks only (key and value empty then).
int getKeyAndVal(const String& line, String& key, String& value);

#endif  // DOCFILES_TEXTLINE_H_
