// CAsn1integer: a small INTEGER held in a signed 32-bit value.
// ASN.1: INTEGER (at most 4 content octets)
#ifndef DER_CASN1INTEGER_H_
#define DER_CASN1INTEGER_H_

#include "der/CAsn1object.h"

class CAsn1integer : public CAsn1object {
 public:
  CAsn1integer() = default;
  explicit CAsn1integer(int v) : value(v) {}

  // 02, length, the low getSize() - 2 octets of the value. A negative value
  // is written as its lowest octet alone: only -128..-1 come out right.
  int getDER(DerWriter& out) const override;
  // Identifier 0x02 required; 5 or more content octets fail. The octets are
  // shifted in without sign extension: 02 01 FF reads as 255.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // 3 below 128, 4 below 32768, 5 below 0x800000, else 6 (signed: every
  // negative value gets 3).
  unsigned int getSize() const override;

  int value = 0;
};

#endif  // DER_CASN1INTEGER_H_
