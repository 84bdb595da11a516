#include "der/CAsn1bitString.h"

#include <cstdio>

#include "base/Log.h"
#include "der/Der.h"

namespace {
constexpr unsigned int kLogBits = 30;
}

unsigned int CAsn1bitString::contentLength() const {
  unsigned int n = bitCount();
  return n == 0 ? 0 : (n + 7) / 8 + 1;
}

unsigned int CAsn1bitString::getSize() const {
  Log log("CAsn1bitString", "getSize", __FILE__, __LINE__, 13);
  unsigned int length = contentLength();
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

int CAsn1bitString::getDER(DerWriter& out) const {
  Log log("CAsn1bitString", "getDER", __FILE__, __LINE__, 13);
  unsigned int n = bitCount();
  unsigned int length = contentLength();
  out.octet(kTagBitString);
  out.length(static_cast<int>(length));
  if (n > 0) {
    out.octet(static_cast<unsigned char>((8 - n % 8) % 8));
    unsigned char* data = out.zeros(length - 1);
    // Reversed order: entry n-1 is bit 7 of the first data octet.
    for (unsigned int i = 0; i < n; ++i) {
      unsigned int p = n - 1 - i;
      if (bits_[i]) data[p / 8] |= static_cast<unsigned char>(0x80 >> (p % 8));
    }
  }
  if (Log::getLevel(Log::kDebug)) {
    log.msg(__LINE__, 9, "serialized BITSTRING %s", logText().c_str());
  }
  return 0;
}

int CAsn1bitString::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1bitString", "setDER", __FILE__, __LINE__, 13);
  bits_.clear();
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagBitString) || !in.readLength(&length)) return -1;
  if (length == 0) return 0;
  unsigned char unused = 0;
  in.readOctet(&unused);
  unsigned long long dataBits = (static_cast<unsigned long long>(length) - 1) * 8;
  // More unused bits than data bits would leave a negative bit count; any
  // other count is taken as it comes (an unused-bits octet above 7 just
  // drops whole octets at the end).
  if (unused > dataBits) {
    log.msg(__LINE__, 2, "DER decoding-error at pos %u. %d unused bits in %u bytes", *pos - 1,
            unused, length - 1);
    return -1;
  }
  unsigned int n = static_cast<unsigned int>(dataBits - unused);
  const unsigned char* data = in.here();
  bits_.assign(n, 0);
  for (unsigned int i = 0; i < n; ++i) {
    unsigned int p = n - 1 - i;
    bits_[i] = (data[p / 8] >> (7 - p % 8)) & 1;
  }
  in.skip(length - 1);
  if (Log::getLevel(Log::kDebug)) {
    log.msg(__LINE__, 9, "deserialized BITSTRING %s", logText().c_str());
  }
  return 0;
}

unsigned int CAsn1bitString::countSet() const {
  Log log("CAsn1bitString", "countSet", __FILE__, __LINE__, 13);
  unsigned int count = 0;
  for (unsigned char b : bits_) count += b != 0;
  return count;
}

std::string CAsn1bitString::logText() const {
  std::string text;
  for (unsigned int i = 0; i < bitCount() && i < kLogBits; ++i) text += bits_[i] ? '1' : '0';
  return text;
}

void CAsn1bitString::print() const {
  Log log("CAsn1bitString", "print", __FILE__, __LINE__, 13);
  printf("Bits:");
  for (unsigned int i = 0; i < bitCount(); ++i) {
    if (bits_[i]) printf("{%d}", static_cast<int>(i));
  }
}
