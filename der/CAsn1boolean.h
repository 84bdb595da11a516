// CAsn1boolean: ASN.1 BOOLEAN.
// ASN.1: BOOLEAN (01 01 FF for true, 01 01 00 for false)
#ifndef DER_CASN1BOOLEAN_H_
#define DER_CASN1BOOLEAN_H_

#include "der/CAsn1object.h"

class CAsn1boolean : public CAsn1object {
 public:
  CAsn1boolean() = default;
  explicit CAsn1boolean(int v) : value(v) {}

  // FF when value > 0, else 00.
  int getDER(DerWriter& out) const override;
  // Identifier 0x01 and a length octet of exactly 0x01 required; any
  // non-zero content octet is true.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // Always 3.
  unsigned int getSize() const override;

  int value = 0;  // 0 = false
};

#endif  // DER_CASN1BOOLEAN_H_
