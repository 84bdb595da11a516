// CAsn1size: a DER length field on its own (no identifier octet).
// ASN.1: length octets of X.690 8.1.3, definite form, at most 4 value octets.
#ifndef DER_CASN1SIZE_H_
#define DER_CASN1SIZE_H_

#include "der/CAsn1object.h"

class CAsn1size : public CAsn1object {
 public:
  CAsn1size() = default;
  explicit CAsn1size(int v) : value(v) {}

  // Short form below 128, else 0x80 | n and n octets, most significant first.
  int getDER(DerWriter& out) const override;
  // A first octet 0x85 or more fails ("Size of size value > 4 bytes"); 0x80
  // reads as 0. The length itself is not checked against the bytes left:
  // the caller that consumes the contents does that.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // 1 below 128, 2 below 256, 3 below 65536, 4 up to 0xFFFFFF, else 5.
  unsigned int getSize() const override;

  int value = 0;
};

#endif  // DER_CASN1SIZE_H_
