// CAsn1data: the content of a ContentInfo of type data.
// ASN.1: content [0] EXPLICIT OCTET STRING
//
// Derives from CAsn1contentInfo for the shape of the class family; only the
// OCTET STRING is used.
#ifndef TSTL_CASN1DATA_H_
#define TSTL_CASN1DATA_H_

#include "tstl/CAsn1contentInfo.h"
#include "tstl/CAsn1string.h"
#include "tstl/Der.h"

class CAsn1data : public CAsn1contentInfo {
 public:
  CAsn1data() = default;

  // A0, length, the OCTET STRING.
  int getDER(unsigned char* buffer, unsigned int* pos) override;
  // Starts at the [0]; the string keeps whatever tag it has.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() override;

  CAsn1string octets{kTagOctetString};
};

#endif  // TSTL_CASN1DATA_H_
