// Byte-vector helpers for protocol tests: hex text in, hex text out.
#ifndef TESTING_HEX_H_
#define TESTING_HEX_H_

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

// "30 03 02 01 05" or "3003020105" -> bytes. Blanks and newlines are ignored.
std::vector<uint8_t> fromHex(const std::string& hex);
// bytes -> "30 03 02 01 05".
std::string toHex(const uint8_t* data, size_t size);
inline std::string toHex(const std::vector<uint8_t>& v) { return toHex(v.data(), v.size()); }

}  // namespace testing_support

#endif  // TESTING_HEX_H_
