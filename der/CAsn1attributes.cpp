#include "der/CAsn1attributes.h"

#include "base/Log.h"
#include "der/TokenDer.h"

int CAsn1attributes::getDER(DerWriter& out) const {
  Log log("CAsn1attributes", "getDER", __FILE__, __LINE__, 13);
  const size_t implicit0 = out.open(kTagContext0);
  for (const CAsn1attribute& a : attributes_) {
    if (a.getDER(out) != 0) return -1;
  }
  out.close(implicit0);
  return 0;
}

int CAsn1attributes::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1attributes", "setDER", __FILE__, __LINE__, 13);
  attributes_.clear();
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagContext0) || !readTokenLength(in, &length)) return -1;
  const unsigned int attributesEnd = in.pos() + length;
  while (*pos < attributesEnd && attributes_.size() < kMaxAttributes) {
    attributes_.emplace_back();
    if (attributes_.back().setDER(buffer, pos, attributesEnd) != 0) return -1;
  }
  log.msg(__LINE__, 9, "deserialized %u signed attributes", count());
  return 0;
}

int CAsn1attributes::getToBeHashedSequence(CAsn1string* out) const {
  Log log("CAsn1attributes", "getToBeHashedSequence", __FILE__, __LINE__, 13);
  std::vector<unsigned char> der = encodeDER(*this);
  if (der.empty()) return -1;
  // The signature covers the attributes as a SET, not as the [0] they are sent in.
  der[0] = kTagSet;
  out->setVal(kTagOctetString, der.data(), static_cast<unsigned int>(der.size()));
  return 0;
}

int CAsn1attributes::add(const CAsn1attribute& attribute) {
  Log log("CAsn1attributes", "add", __FILE__, __LINE__, 13);
  if (attributes_.size() >= kMaxAttributes) return -1;
  attributes_.push_back(attribute);
  return 0;
}

const CAsn1attribute* CAsn1attributes::find(int nid) const {
  for (const CAsn1attribute& a : attributes_) {
    if (a.type.nid == nid) return &a;
  }
  return nullptr;
}
