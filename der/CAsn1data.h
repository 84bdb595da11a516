// CAsn1data: the content of a ContentInfo of type data.
// ASN.1: content [0] EXPLICIT OCTET STRING
//
// Derives from CAsn1contentInfo for the shape of the class family; only the
// OCTET STRING is used.
#ifndef DER_CASN1DATA_H_
#define DER_CASN1DATA_H_

#include "der/CAsn1contentInfo.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

class CAsn1data : public CAsn1contentInfo {
 public:
  CAsn1data() = default;

  // A0, length, the OCTET STRING.
  int getDER(DerWriter& out) const override;
  // Starts at the [0]; the string keeps whatever tag it has.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  CAsn1string octets{kTagOctetString};
};

#endif  // DER_CASN1DATA_H_
