// CAsn1name: an X.509 name of at most 10 relative distinguished names.
// ASN.1: Name ::= SEQUENCE OF RelativeDistinguishedName
//
// Two limits on purpose: decoding reads up to 10 attributes (an 11th is left
// unread), addVal stops at 9. Keep both.
#ifndef DER_CASN1NAME_H_
#define DER_CASN1NAME_H_

#include "der/CAsn1nameAttribute.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"

class CAsn1name : public CAsn1object {
 public:
  static constexpr int kMaxAttributes = 10;
  static constexpr int kMaxAddedAttributes = 9;

  CAsn1name() = default;

  // 30, length, the attributes in order.
  int getDER(DerWriter& out) const override;
  // 0x30 required (else -1 without a message); attributes while the octets
  // consumed are fewer than the length and fewer than 10 were read.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // Appends an attribute of one element (nid, value); -1 when 9 are present.
  int addVal(int nid, const CAsn1string& value);

  int attributeCount() const { return count_; }
  // i in 0..attributeCount()-1.
  const CAsn1nameAttribute& attribute(int i) const { return attributes_[i]; }

 private:
  CAsn1nameAttribute attributes_[kMaxAttributes];
  int count_ = 0;
};

#endif  // DER_CASN1NAME_H_
