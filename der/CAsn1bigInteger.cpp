#include "der/CAsn1bigInteger.h"

#include "base/Log.h"
#include "der/Der.h"

void CAsn1bigInteger::setValue(uint64_t value) {
  octets_.clear();
  for (int shift = 56; shift >= 0; shift -= 8) {
    unsigned char b = static_cast<unsigned char>(value >> shift);
    if (octets_.empty() && b == 0) continue;
    if (octets_.empty() && (b & 0x80) != 0) octets_.push_back(0);
    octets_.push_back(b);
  }
  if (octets_.empty()) octets_.push_back(0);
}

bool CAsn1bigInteger::setOctets(const std::vector<unsigned char>& octets) {
  if (octets.empty() || octets.size() > kMaxOctets) return false;
  octets_ = octets;
  return true;
}

std::string CAsn1bigInteger::hex() const {
  size_t first = octets_.size() > 1 && octets_[0] == 0 && (octets_[1] & 0x80) != 0 ? 1 : 0;
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (size_t i = first; i < octets_.size(); ++i) {
    text += kDigits[octets_[i] >> 4];
    text += kDigits[octets_[i] & 0x0F];
  }
  return text;
}

bool CAsn1bigInteger::toUint64(uint64_t* value) const {
  if (octets_.empty() || (octets_[0] & 0x80) != 0) return false;
  size_t first = 0;
  while (first + 1 < octets_.size() && octets_[first] == 0) ++first;
  if (octets_.size() - first > 8) return false;
  uint64_t v = 0;
  for (size_t i = first; i < octets_.size(); ++i) v = (v << 8) | octets_[i];
  *value = v;
  return true;
}

unsigned int CAsn1bigInteger::getSize() const {
  const unsigned int n = static_cast<unsigned int>(octets_.size());
  return 1 + derLengthSize(static_cast<int>(n)) + n;
}

int CAsn1bigInteger::getDER(DerWriter& out) const {
  Log log("CAsn1bigInteger", "getDER", __FILE__, __LINE__, 13);
  out.octet(kTagInteger);
  out.length(static_cast<int>(octets_.size()));
  out.bytes(octets_);
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "serialized INTEGER 0x%s", hex().c_str());
  return 0;
}

int CAsn1bigInteger::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1bigInteger", "setDER", __FILE__, __LINE__, 13);
  setValue(0);
  DerReader in(buffer, pos, end);
  if (!in.expectTag(kTagInteger)) return -1;
  int raw = 0;
  if (!in.readLengthValue(&raw)) return -1;
  const unsigned int length = static_cast<unsigned int>(raw);
  if (length > kMaxOctets) {
    log.msg(__LINE__, 2, "Size of integer value > %d bytes", static_cast<int>(kMaxOctets));
    return -1;
  }
  if (length == 0) {
    log.msg(__LINE__, 2, "INTEGER without content octets at pos %d", static_cast<int>(*pos));
    return -1;
  }
  if (!in.need(length)) return -1;
  octets_.assign(in.here(), in.here() + length);
  in.skip(length);
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "deserialized INTEGER 0x%s", hex().c_str());
  return 0;
}
