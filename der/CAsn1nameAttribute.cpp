#include "der/CAsn1nameAttribute.h"

#include <cassert>

#include "base/Log.h"
#include "der/Der.h"

int CAsn1nameAttribute::addElement(int nid, const CAsn1string& value) {
  Log log("CAsn1nameAttribute", "addElement", __FILE__, __LINE__, 13);
  if (count_ >= kMaxElements) return -1;
  types_[count_] = CAsn1oid(nid);
  values_[count_] = value;
  ++count_;
  return 0;
}

unsigned int CAsn1nameAttribute::innerLength(int i) {
  return types_[i].getSize() + values_[i].getSize();
}

unsigned int CAsn1nameAttribute::setLength() {
  unsigned int length = 0;
  for (int i = 0; i < count_; ++i) {
    unsigned int inner = innerLength(i);
    length += 1 + derLengthSize(static_cast<int>(inner)) + inner;
  }
  return length;
}

unsigned int CAsn1nameAttribute::getSize() {
  Log log("CAsn1nameAttribute", "getSize", __FILE__, __LINE__, 13);
  unsigned int length = setLength();
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

int CAsn1nameAttribute::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1nameAttribute", "getDER", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "serializing NameAttribute with %d elements", count_);
  unsigned int start = *pos;
  DerWriter out(buffer, pos);
  out.octet(kTagSet);
  out.length(static_cast<int>(setLength()));
  for (int i = 0; i < count_; ++i) {
    out.octet(kTagSequence);
    out.length(static_cast<int>(innerLength(i)));
    if (types_[i].getDER(buffer, pos) != 0 || values_[i].getDER(buffer, pos) != 0) return -1;
  }
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1nameAttribute::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1nameAttribute", "setDER", __FILE__, __LINE__, 13);
  count_ = 0;
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(kTagSet) || !in.readLength(&length)) return -1;
  unsigned int setEnd = in.pos() + length;
  for (int i = 0; i < kMaxElements; ++i) {
    unsigned int inner = 0;
    if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&inner)) return -1;
    if (types_[i].setDER(buffer, pos, end) != 0 || values_[i].setDER(buffer, pos, end) != 0) {
      return -1;
    }
    ++count_;
    if (in.pos() >= setEnd) {
      log.msg(__LINE__, 9, "deserialized NameAttribute with %d elements", count_);
      return 0;
    }
  }
  return -1;  // a fourth element before the end
}
