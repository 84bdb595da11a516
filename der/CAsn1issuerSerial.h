// CAsn1issuerSerial: a certificate named by its issuer and serial number.
// ASN.1: IssuerSerial ::= SEQUENCE { issuer Name, serialNumber CertificateSerialNumber }
#ifndef DER_CASN1ISSUERSERIAL_H_
#define DER_CASN1ISSUERSERIAL_H_

#include "der/CAsn1name.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

class CAsn1issuerSerial : public CAsn1object {
 public:
  CAsn1issuerSerial() = default;

  int getDER(DerWriter& out) const override;
  // 0x30 required (else -1 without a message), then issuer and serial. The
  // serial keeps whatever tag it was read with.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  CAsn1name issuer;
  CAsn1string serial{kTagInteger};
};

#endif  // DER_CASN1ISSUERSERIAL_H_
