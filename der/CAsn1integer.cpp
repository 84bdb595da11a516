#include "der/CAsn1integer.h"

#include "base/Log.h"
#include "der/Der.h"

namespace {
constexpr unsigned int kMaxIntegerOctets = 4;
}

int CAsn1integer::getDER(DerWriter& out) const {
  Log log("CAsn1integer", "getDER", __FILE__, __LINE__, 13);
  unsigned int n = getSize() - 2;
  out.octet(kTagInteger);
  out.length(static_cast<int>(n));
  // Negative values get one octet only; the peers only ever see -128..-1.
  for (unsigned int i = n; i > 0; --i) {
    unsigned int shift = 8 * (i - 1);
    out.octet(shift < 32 ? static_cast<unsigned char>(static_cast<unsigned int>(value) >> shift)
                         : 0);
  }
  log.msg(__LINE__, 9, "serialized INTEGER %d", value);
  return 0;
}

int CAsn1integer::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1integer", "setDER", __FILE__, __LINE__, 13);
  value = 0;
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagInteger)) return -1;
  int raw = 0;
  if (!in.readLengthValue(&raw)) return -1;
  length = static_cast<unsigned int>(raw);
  if (length > kMaxIntegerOctets) {
    log.msg(__LINE__, 2, "Size of integer value > %d bytes", kMaxIntegerOctets);
    return -1;
  }
  if (!in.need(length)) return -1;
  unsigned int v = 0;
  for (unsigned int i = 0; i < length; ++i) {
    unsigned char b = 0;
    in.readOctet(&b);
    v = (v << 8) | b;
  }
  value = static_cast<int>(v);
  log.msg(__LINE__, 9, "deserialized INTEGER %d", value);
  return 0;
}

unsigned int CAsn1integer::getSize() const {
  Log log("CAsn1integer", "getSize", __FILE__, __LINE__, 13);
  // Signed comparisons in this order: every negative value gets size 3.
  if (value < 128) return 3;
  if (value < 32768) return 4;
  if (value < 0x800000) return 5;
  return 6;
}
