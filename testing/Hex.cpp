#include "testing/Hex.h"

#include <cctype>
#include <cstdio>

#include <gtest/gtest.h>

namespace testing_support {

std::vector<uint8_t> fromHex(const std::string& hex) {
  std::vector<uint8_t> out;
  int nibbles = 0;
  unsigned value = 0;
  for (char c : hex) {
    if (isspace(static_cast<unsigned char>(c))) continue;
    if (!isxdigit(static_cast<unsigned char>(c))) {
      ADD_FAILURE() << "not a hex digit: " << c;
      return out;
    }
    value = value * 16 + static_cast<unsigned>(isdigit(static_cast<unsigned char>(c))
                                                   ? c - '0'
                                                   : tolower(static_cast<unsigned char>(c)) - 'a' + 10);
    if (++nibbles == 2) {
      out.push_back(static_cast<uint8_t>(value));
      nibbles = 0;
      value = 0;
    }
  }
  if (nibbles != 0) ADD_FAILURE() << "odd number of hex digits in " << hex;
  return out;
}

std::string toHex(const uint8_t* data, size_t size) {
  std::string out;
  char b[4];
  for (size_t i = 0; i < size; ++i) {
    snprintf(b, sizeof b, i ? " %02x" : "%02x", data[i]);
    out += b;
  }
  return out;
}

}  // namespace testing_support
