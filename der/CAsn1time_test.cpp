#include "der/CAsn1time.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "testing/DerTest.h"
#include "testing/Hex.h"
#include "testing/LogCapture.h"

using namespace testing_support;

namespace {

// The DER of a time text under the given identifier.
std::string timeHex(int tag, const std::string& text) {
  const std::string bytes =
      std::string{static_cast<char>(tag), static_cast<char>(text.size())} + text;
  return testing_support::toHex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

TEST(CAsn1time, ParsesAndWritesBackEveryTextForm) {
  struct Case {
    int tag;
    const char* text;
    const char* fields;  // type year-month-day hour:minute:second tzHours:tzMinutes fraction
    const char* display;
  } cases[] = {
      {0x17, "991231235959Z", "23 1999-12-31 23:59:59 0:0 0", "1999-12-31 23:59:59 GMT"},
      {0x17, "500101000000Z", "23 2050-1-1 0:0:0 0:0 0", "2050-01-01 00:00:00 GMT"},
      {0x17, "510101000000Z", "23 1951-1-1 0:0:0 0:0 0", "1951-01-01 00:00:00 GMT"},
      {0x17, "0401020304+0130", "23 2004-1-2 3:4:-1 1:30 0", "2004-01-02 03:04 GMT+0130"},
      {0x17, "0401020304Z", "23 2004-1-2 3:4:-1 0:0 0", "2004-01-02 03:04 GMT"},
      {0x17, "040102030405-0545", "23 2004-1-2 3:4:5 -5:-45 0", "2004-01-02 03:04:05 GMT-0545"},
      {0x18, "20240102030405.5Z", "24 2024-1-2 3:4:5 0:0 0.5", "2024-01-02 03:04:05.5 GMT"},
      {0x18, "20240102030405.125Z", "24 2024-1-2 3:4:5 0:0 0.125", "2024-01-02 03:04:05.125 GMT"},
      {0x18, "20240102030405Z", "24 2024-1-2 3:4:5 0:0 0", "2024-01-02 03:04:05 GMT"},
      // Digits to the end of the text: no zone, read as GMT (the signer's signingTime form).
      {0x17, "261123101010", "23 2026-11-23 10:10:10 0:0 0", "2026-11-23 10:10:10 GMT"},
      {0x18, "20240102030405", "24 2024-1-2 3:4:5 0:0 0", "2024-01-02 03:04:05 GMT"},
      // The type follows the text, not the identifier octet.
      {0x18, "991231235959Z", "23 1999-12-31 23:59:59 0:0 0", "1999-12-31 23:59:59 GMT"},
  };
  for (const Case& c : cases) {
    CAsn1time t;
    ASSERT_EQ(setDerHex(t, timeHex(c.tag, c.text)), 0) << c.text;
    char fields[96];
    snprintf(fields, sizeof fields, "%d %d-%d-%d %d:%d:%d %d:%d %.17g", t.type, t.year, t.month,
             t.day, t.hour, t.minute, t.second, t.tzHours, t.tzMinutes, t.fraction);
    EXPECT_STREQ(fields, c.fields) << c.text;
    EXPECT_EQ(t.displayText(), c.display);
    // Written back under its type's identifier, a text without zone with 'Z'.
    std::string written = c.text;
    if (written.find_first_not_of("0123456789") == std::string::npos) written += 'Z';
    EXPECT_EQ(derHex(t), timeHex(t.type, written));
  }
}

TEST(CAsn1time, GeneralizedTimeIsWrittenInGmtWhateverTheOffset) {
  CAsn1time t;
  t.type = CAsn1time::kGeneralizedTime;
  t.year = 2024, t.month = 2, t.day = 29, t.hour = 1, t.minute = 2, t.second = 3;
  t.tzHours = 5;
  EXPECT_EQ(t.derText(), "20240229010203Z");
  t.type = CAsn1time::kUtcTime;
  EXPECT_EQ(t.derText(), "240229010203+0500");
  t.type = 0;
  EXPECT_EQ(t.getSize(), 0u);
  DerWriter out;
  EXPECT_EQ(t.getDER(out), -1);
}

// A peer's bad text is logged without its control characters. Wrong types
// and long texts: Der_test.
TEST(CAsn1time, RefusesBadTexts) {
  LogCapture log;
  const char* texts[] = {
      "20240102030405+01",     // offset needs four digits
      "20240102030405+0100x",  // and nothing after them
      "2024010203040Z",        // 13 digits
      "24010203Z",             // 8 digits
      "0401020304.5Z",         // fraction without seconds
      "20240102030405.Z",      // fraction without digits
      "20240102030405.5",      // fraction without 'Z'
      "2024010203040xZ",       // not a digit
      "20240102030405Q",       // unknown zone mark
      "202401020304\n5Z",      // a control character
  };
  for (const char* text : texts) {
    CAsn1time t;
    EXPECT_EQ(t.setVal(text, static_cast<unsigned int>(strlen(text))), -1) << text;
  }
  EXPECT_TRUE(
      log.contains("not a time text: 32 30 32 34 30 31 30 32 30 33 30 34 0A 35 5A:"
                   "202401020304.5Z"));
  EXPECT_FALSE(contains(log.text(), "0304\n"));
}
