// CAsn1nameAttribute: one relative distinguished name of at most 3 elements.
// ASN.1: RelativeDistinguishedName ::= SET SIZE (1..MAX) OF SEQUENCE { type OBJECT IDENTIFIER,
// value ANY }
//
// Each value keeps its own string tag (PrintableString, UTF8String...).
#ifndef DER_CASN1NAMEATTRIBUTE_H_
#define DER_CASN1NAMEATTRIBUTE_H_

#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1string.h"

class CAsn1nameAttribute : public CAsn1object {
 public:
  static constexpr int kMaxElements = 3;

  CAsn1nameAttribute() = default;

  // 31, length, then 30 len type value for each element.
  int getDER(DerWriter& out) const override;
  // 0x31 required; then elements until the SET's end is reached. A fourth
  // element, a missing 0x30 or a failing element gives -1.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // Appends an element; -1 when there are already 3.
  int addElement(int nid, const CAsn1string& value);
  int elementCount() const { return count_; }
  // i in 0..elementCount()-1.
  const CAsn1oid& type(int i) const { return types_[i]; }
  const CAsn1string& value(int i) const { return values_[i]; }

 private:
  CAsn1oid types_[kMaxElements];
  CAsn1string values_[kMaxElements];
  int count_ = 0;
};

#endif  // DER_CASN1NAMEATTRIBUTE_H_
