#include "encoding/Base64Crc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

std::string encode(const std::string& input) {
  std::vector<char> out(4 * input.size() / 3 + 10, 'X');
  EXPECT_EQ(encodeBase64(reinterpret_cast<const unsigned char*>(input.data()),
                         static_cast<unsigned int>(input.size()), out.data(),
                         static_cast<unsigned int>(out.size())),
            0);
  return std::string(out.data());
}

unsigned int crcOf(const std::string& input) {
  unsigned int crc = 1;
  EXPECT_EQ(crc32(reinterpret_cast<const unsigned char*>(input.data()),
                  static_cast<unsigned int>(input.size()), &crc),
            0);
  return crc;
}

}  // namespace

TEST(Base64, EncodesWithPaddingOnOneLineAndDecodesBack) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes += static_cast<char>(i * 7);
  struct Case {
    std::string input;
    std::string text;  // empty: only its length and line are checked
  } cases[] = {{":", "Og=="}, {"", ""}, {"ab", "YWI="}, {"abc", "YWJj"}, {bytes, ""}};
  for (const Case& c : cases) {
    std::string text = encode(c.input);
    if (!c.text.empty()) {
      EXPECT_EQ(text, c.text);
    }
    EXPECT_EQ(text.size(), 4 * ((c.input.size() + 2) / 3));
    EXPECT_EQ(text.find('\n'), std::string::npos);
    std::vector<unsigned char> out(400);
    int n = -1;
    ASSERT_EQ(decodeBase64(text.c_str(), out.data(), &n, static_cast<int>(out.size())), 0);
    EXPECT_EQ(std::string(out.begin(), out.begin() + std::max(n, 0)), c.input) << c.text;
  }
}

TEST(Base64, NeitherWayWritesPastTheCapacity) {
  char text[6];
  memset(text, 'X', sizeof text);
  const unsigned char input[] = "abcdef";
  ASSERT_EQ(encodeBase64(input, 6, text, 5), 0);
  EXPECT_STREQ(text, "YWJj");
  EXPECT_EQ(text[5], 'X');
  std::vector<unsigned char> bytes(8);
  int n = -1;
  ASSERT_EQ(decodeBase64("YWJjZGVm", bytes.data(), &n, 4), 0);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "abcd");
}

TEST(decodeBase64, TextThatIsNotBase64DecodesToNothing) {
  unsigned char out[16];
  for (const char* text : {"", "!!!!", "Og=\x01"}) {
    int n = 99;
    ASSERT_EQ(decodeBase64(text, out, &n, sizeof out), 0) << text;
    EXPECT_LE(n, 0) << text;
  }
}

TEST(crc32, IsTheUnaugmentedRemainder) {
  EXPECT_EQ(crcOf("123456789"), 0xCCBD34E2u);
  EXPECT_EQ(crcOf(""), 0u);
  // Four zero bytes more give the register of the usual shifted form: the
  // CRC-32/POSIX check value 0x765E7680 before its final inversion.
  EXPECT_EQ(crcOf(std::string("123456789") + std::string(4, '\0')), 0x89A1897Fu);
  EXPECT_EQ(crcOf(std::string(1, '\x01')), 0x01u);
}
