#include "der/CAsn1nameAttribute.h"

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

int CAsn1nameAttribute::getDER(DerWriter& out) const {
  Log log("CAsn1nameAttribute", "getDER", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "serializing NameAttribute with %d elements", count_);
  const size_t set = out.open(kTagSet);
  for (int i = 0; i < count_; ++i) {
    const size_t element = out.open(kTagSequence);
    if (types_[i].getDER(out) != 0 || values_[i].getDER(out) != 0) return -1;
    out.close(element);
  }
  out.close(set);
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
