#include "docfiles/TextLine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "docfiles/SplitString.h"
#include "testing/LogCapture.h"

namespace {

using namespace testing_support;

using Tokens = std::vector<std::string>;

// Tokens of line under mode until two nulls in a row; a single null is "<null>".
Tokens tokensOf(const char* line, int mode) {
  TextLine t(line);
  Tokens out;
  for (int nulls = 0; nulls < 2;) {
    char* token = t.getNextToken(mode);
    nulls = token ? 0 : nulls + 1;
    out.push_back(token ? token : "<null>");
    TextLine::free(token);
  }
  out.resize(out.size() - 2);
  return out;
}

TEST(TextLine, TokensUnderBothRules) {
  LogCapture log(LogCapture::kAllLevels);
  const std::string big(200000, 'x');
  const std::string bigLine = "K \"" + big + " y\" " + big;
  const struct {
    std::string line;
    int mode;  // 1: quotes group, 0: blanks only separate
    Tokens expected;
  } cases[] = {
      {"TIMESTAMP_FILE \"my file.pdf\" out.txt", 1, {"TIMESTAMP_FILE", "my file.pdf", "out.txt"}},
      {"  lead \t  trail  ", 1, {"lead", "trail"}},
      // Outside quotes a quote inside a word and a backslash are literal.
      {"abc\"def x", 1, {"abc\"def", "x"}},
      {"a\\\"b", 1, {"a\\\"b"}},
      {"\\start", 1, {"\\start"}},
      // Inside quotes blanks are kept.
      {"\"tab\there  two\"", 1, {"tab\there  two"}},
      // n backslashes before a quote: n-1 backslashes and a literal quote.
      {"\"a\\\"b\"", 1, {"a\"b"}},
      {"\"a\\\\\\\"b\"", 1, {"a\\\\\"b"}},
      // n backslashes before anything else: all n kept.
      {"\"a\\b\"", 1, {"a\\b"}},
      {"\"a\\\\b\"", 1, {"a\\\\b"}},
      {"\"a\\ b\"", 1, {"a\\ b"}},
      {"\"x\"\ty", 1, {"x", "y"}},
      // An empty quoted argument is null, but not the end.
      {"\"\" next", 1, {"<null>", "next"}},
      // Text glued to a closing quote, a quote after a closing quote, an
      // unterminated quote and a backslash at the end inside quotes: errors
      // that end the line.
      {"\"abc\"def next", 1, {}},
      {"\"abc\"\"def\"", 1, {}},
      {"ok \"abc", 1, {"ok"}},
      {"\"abc\\", 1, {}},
      // The line ends at its first CR or LF.
      {"A B\r\nC", 1, {"A", "B"}},
      {"A\nB", 1, {"A"}},
      {"", 1, {}},
      {bigLine, 1, {"K", big + " y", big}},
      // Without the quote rules blanks only separate.
      {"\"a b\"", 0, {"\"a", "b\""}},
      {"a\\ \"b\"\t\tc ", 0, {"a\\", "\"b\"", "c"}},
      {"   ", 0, {}},
      {"A B\r\nC", 0, {"A", "B"}},
      {bigLine, 0, {"K", "\"" + big, "y\"", big}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tokensOf(c.line.c_str(), c.mode), c.expected) << c.mode << c.line.substr(0, 40);
  }
  EXPECT_TRUE(
      log.contains("error in parsing line for tokens at position -1 in line: '\"abc\"def next'"));
}

TEST(TextLine, ResetOtherModesAndNullText) {
  TextLine t("one two");
  TextLine::Token a(t.getNextToken(0));
  t.reset();
  TextLine::Token b(t.getNextToken(1));
  EXPECT_STREQ(a.get(), "one");
  EXPECT_STREQ(b.get(), "one");
  EXPECT_EQ(t.getNextToken(2), nullptr);
  TextLine none(nullptr);
  EXPECT_EQ(none.length(), 0);
  EXPECT_EQ(tokensOf(nullptr, 1), Tokens{});
  EXPECT_EQ(tokensOf(nullptr, 0), Tokens{});
}

TEST(GetKeyAndVal, KeysAndValues) {
  const struct {
    const char* line;
    const char* key;  // empty: no key, and the call fails
    const char* value;
  } cases[] = {
      {"KEY", "KEY", ""},
      {"KEY   value with  blanks ", "KEY", "value with  blanks "},
      {"  KEY V", "  KEY", "V"},
      {"\tK\t \tv\t", "\tK", "v\t"},
      {"KEY   ", "KEY", ""},
      {"COMP a\r\n", "COMP", "a"},
      {"COMP a\n", "COMP", "a"},
      {"A b\rC d\n", "A", "b"},
      {"", "", ""},
      {"\r\n", "", ""},
      {" \t ", "", ""},
  };
  for (const auto& c : cases) {
    String key = "old", value = "old";
    EXPECT_EQ(getKeyAndVal(c.line, key, value), *c.key ? 1 : 0) << c.line;
    EXPECT_EQ(key.str(), c.key) << c.line;
    EXPECT_EQ(value.str(), c.value) << c.line;
  }
}

TEST(SplitString, KeepsEmptyPieces) {
  const struct {
    const char* text;
    char sep;
    std::vector<std::string> parts;
  } cases[] = {
      {"a,,b", ',', {"a", "", "b"}},
      {"a,", ',', {"a", ""}},
      {",", ',', {"", ""}},
      {"abc", ',', {"abc"}},
      {"loglevel  9", ' ', {"loglevel", "", "9"}},
      {"", ',', {}},
  };
  for (const auto& c : cases) {
    std::vector<String> parts(5, String("stale"));
    ASSERT_EQ(SplitString::split(c.text, parts, c.sep), static_cast<int>(c.parts.size())) << c.text;
    for (size_t i = 0; i < c.parts.size(); ++i) EXPECT_EQ(parts[i].str(), c.parts[i]) << c.text;
  }
}

}  // namespace
