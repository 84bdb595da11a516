#include "testing/Hex.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>

namespace testing_support {

std::vector<uint8_t> fromHex(const std::string& hex) {
  std::string digits;
  for (char c : hex) {
    if (!isspace(static_cast<unsigned char>(c))) digits += c;
  }
  std::vector<uint8_t> out;
  if (digits.size() % 2 != 0 ||
      digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    ADD_FAILURE() << "not an even number of hex digits: " << hex;
    return out;
  }
  for (size_t i = 0; i < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
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
