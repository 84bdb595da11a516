#include "docfiles/TextLine.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "base/Log.h"
#include "docfiles/utl.h"

namespace {

// The quoted rules as a state machine over character classes.
enum CharClass { kQuote, kSpace, kTab, kBackslash, kNul, kOther, kClassCount };
enum Action { kSkip, kAppend, kEnd, kError, kAppendPending, kHold };
enum State { kBefore = 0, kUnquoted = 1, kQuoted = 2, kAfterQuote = 3, kEscape = 4, kDone = 5 };

struct Transition {
  Action action;
  State next;
};

// Rows: states 0..4; columns: quote, space, tab, backslash, NUL, other.
constexpr Transition kTable[5][kClassCount] = {
    // 0: before a token
    {{kSkip, kQuoted},
     {kSkip, kBefore},
     {kSkip, kBefore},
     {kAppend, kUnquoted},
     {kEnd, kDone},
     {kAppend, kUnquoted}},
    // 1: in an unquoted token; quotes and backslashes are literal here
    {{kAppend, kUnquoted},
     {kEnd, kDone},
     {kEnd, kDone},
     {kAppend, kUnquoted},
     {kEnd, kDone},
     {kAppend, kUnquoted}},
    // 2: inside quotes
    {{kSkip, kAfterQuote},
     {kAppend, kQuoted},
     {kAppend, kQuoted},
     {kHold, kEscape},
     {kError, kDone},
     {kAppend, kQuoted}},
    // 3: after a closing quote; only a blank or the end may follow
    {{kError, kDone},
     {kEnd, kDone},
     {kEnd, kDone},
     {kError, kDone},
     {kEnd, kDone},
     {kError, kDone}},
    // 4: after a backslash inside quotes
    {{kAppend, kQuoted},
     {kAppendPending, kQuoted},
     {kAppendPending, kQuoted},
     {kAppend, kEscape},
     {kError, kDone},
     {kAppendPending, kQuoted}},
};

CharClass classify(char c) {
  switch (c) {
    case '"':
      return kQuote;
    case ' ':
      return kSpace;
    case '\t':
      return kTab;
    case '\\':
      return kBackslash;
    case '\0':
      return kNul;
    default:
      return kOther;
  }
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

TextLine::TextLine(const char* text) {
  Log log("TextLine", "TextLine", __FILE__, __LINE__, 13);
  if (text == nullptr) return;
  size_t n = strcspn(text, "\n\r");
  if (n >= static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    log.msg(__LINE__, 2, "out of memory!:'%s'", errnoText(EOVERFLOW).c_str());
    return;
  }
  line_ = static_cast<char*>(malloc(n + 1));
  if (line_ == nullptr) {
    log.msg(__LINE__, 2, "out of memory!:'%s'", errnoText(errno).c_str());
    return;
  }
  memcpy(line_, text, n);
  line_[n] = '\0';
  length_ = static_cast<int32_t>(n);
}

TextLine::~TextLine() {
  Log log("TextLine", "~TextLine", __FILE__, __LINE__, 13);
  ::free(line_);
}

void TextLine::reset() {
  Log log("TextLine", "reset", __FILE__, __LINE__, 13);
  position_ = 0;
}

void TextLine::free(void* p) {
  Log log("TextLine", "free", __FILE__, __LINE__, 13);
  ::free(p);
}

char* TextLine::getNextToken(int mode) {
  if (line_ == nullptr) return nullptr;
  if (mode == 1) return quotedToken();
  if (mode == 0) return plainToken();
  return nullptr;
}

char* TextLine::plainToken() {
  Log log("TextLine", "getNextToken", __FILE__, __LINE__, 13);
  if (position_ == -1) {
    log.msg(__LINE__, 9, "end of line reached!");
    return nullptr;
  }
  while (position_ < length_ && isBlank(line_[position_])) ++position_;
  if (position_ >= length_) {
    position_ = -1;
    log.msg(__LINE__, 9, "end of line reached!");
    return nullptr;
  }
  int32_t end = position_;
  while (end < length_ && !isBlank(line_[end])) ++end;
  size_t n = static_cast<size_t>(end - position_);
  char* token = static_cast<char*>(calloc(n + 1, 1));
  if (token == nullptr) {
    log.msg(__LINE__, 2, "the call of calloc() failed: '%s'", errnoText(errno).c_str());
    position_ = -1;
    return nullptr;
  }
  memcpy(token, line_ + position_, n);
  position_ = end + 1;
  if (position_ >= length_) {
    log.msg(__LINE__, 9, "last token of line reached!");
    position_ = -1;
  }
  log.msg(__LINE__, 9, "return token '%s'", token);
  return token;
}

char* TextLine::quotedToken() {
  Log log("TextLine", "getNextToken", __FILE__, __LINE__, 13);
  std::string buffer;
  char pending = '\0';
  bool hasPending = false;
  State state = kBefore;
  while (state != kDone) {
    // An exhausted line reads as its end.
    char c = position_ < 0 ? '\0' : line_[position_];
    if (c == '\0') {
      position_ = -1;
    } else {
      ++position_;
    }
    const Transition& t = kTable[state][classify(c)];
    switch (t.action) {
      case kSkip:
        hasPending = false;
        break;
      case kAppend:
        buffer += c;
        break;
      case kEnd:
        log.msg(__LINE__, 9, "next token = '%s'", buffer.c_str());
        break;
      case kError:
        // The position is reset before it is printed, so the message always
        // shows -1; the line text tells where the fault is.
        position_ = -1;
        buffer.clear();
        log.msg(__LINE__, 2, "error in parsing line for tokens at position %d in line: '%s'",
                position_, line_);
        break;
      case kAppendPending:
        if (hasPending) buffer += pending;
        buffer += c;
        hasPending = false;
        break;
      case kHold:
        pending = c;
        hasPending = true;
        break;
    }
    state = t.next;
  }
  char* result = nullptr;
  if (!buffer.empty()) {
    result = static_cast<char*>(malloc(buffer.size() + 1));
    if (result == nullptr) {
      log.msg(__LINE__, 2, "the call of calloc() failed: '%s'", errnoText(errno).c_str());
      position_ = -1;
      return nullptr;
    }
    memcpy(result, buffer.c_str(), buffer.size() + 1);
  }
  log.msg(__LINE__, 9, "return token '%s'", result ? result : "NULL");
  return result;
}

int getKeyAndVal(const String& line, String& key, String& value) {
  Log log("TextLine", "getKeyAndVal", __FILE__, __LINE__, 13);
  long cut = line.index('\r');
  if (cut < 0) cut = line.index('\n');
  String text = cut < 0 ? line : line.subString(0, static_cast<size_t>(cut));
  key = "";
  value = "";
  if (text.empty()) {
    log.msg(__LINE__, 9, "String is <= 0: ");
    return 0;
  }
  long lastNonBlank = -1;
  bool keySet = false;
  size_t n = text.length();
  for (size_t i = 0; i < n; ++i) {
    char c = text[i];
    if (isBlank(c)) {
      if (!keySet && lastNonBlank >= 0) {
        key = text.subString(0, static_cast<size_t>(lastNonBlank) + 1);
        keySet = true;
      }
      continue;
    }
    if (keySet) {
      value = text.subString(i);
      break;
    }
    lastNonBlank = static_cast<long>(i);
  }
  if (lastNonBlank < 0) {
    // Blanks only: no statement, like an empty line.
    log.msg(__LINE__, 9, "String is <= 0: ");
    return 0;
  }
  if (!keySet) {
    log.msg(__LINE__, 9, "no white-space found: '%s'", text.c_str());
    key = text;
    return 1;
  }
  log.msg(__LINE__, 9, "Parsing string %s with length %dkey:'%s', value:'%s'", text.c_str(),
          static_cast<int>(n), key.c_str(), value.c_str());
  return 1;
}
