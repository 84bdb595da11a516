#include "der/CAsn1name.h"

#include "base/Log.h"
#include "der/Der.h"

int CAsn1name::addVal(int nid, const CAsn1string& value) {
  Log log("CAsn1name", "addVal", __FILE__, __LINE__, 13);
  // One short of what decoding accepts; callers rely on the 9.
  if (count_ >= kMaxAddedAttributes) return -1;
  CAsn1nameAttribute attribute;
  attribute.addElement(nid, value);
  attributes_[count_++] = attribute;
  return 0;
}

int CAsn1name::getDER(DerWriter& out) const {
  Log log("CAsn1name", "getDER", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "serializing Name with %d attributes", count_);
  const size_t sequence = out.open(kTagSequence);
  for (int i = 0; i < count_; ++i) {
    if (attributes_[i].getDER(out) != 0) return -1;
  }
  out.close(sequence);
  return 0;
}

int CAsn1name::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1name", "setDER", __FILE__, __LINE__, 13);
  count_ = 0;
  DerReader in(buffer, pos, end);
  unsigned int content = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&content)) return -1;
  unsigned long long consumed = 0;
  while (consumed < content && count_ < kMaxAttributes) {
    // The attribute's own length, read ahead, says how far it reaches.
    unsigned int next = in.pos() + 1;
    DerReader ahead(buffer, &next, end);
    unsigned int attributeLength = 0, lengthOctets = 0;
    if (!ahead.need(1) || !ahead.peekLength(&attributeLength, &lengthOctets)) return -1;
    // The length field counts with its DER size, not with the octets found:
    // a longer than minimal field counts short and the loop reads on.
    consumed += 1ULL + derLengthSize(static_cast<int>(attributeLength)) + attributeLength;
    if (attributes_[count_].setDER(buffer, pos, end) != 0) return -1;
    ++count_;
  }
  log.msg(__LINE__, 9, "deserialized Name with %d attributes", count_);
  return 0;
}

