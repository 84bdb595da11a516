// CAsn1messageImprint: the hash algorithm and the hash of the timestamped data.
// ASN.1: MessageImprint ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier, hashedMessage OCTET
// STRING }
#ifndef DER_CASN1MESSAGEIMPRINT_H_
#define DER_CASN1MESSAGEIMPRINT_H_

#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

class CAsn1messageImprint : public CAsn1object {
 public:
  CAsn1messageImprint() = default;

  // 30, length, hashAlgorithm, hashedMessage.
  int getDER(DerWriter& out) const override;
  // 0x30 required (else -1 without a message), then the algorithm and the
  // hash in that order. The hash keeps whatever tag it was read with.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  CAsn1string hashedMessage{kTagOctetString};
  CAsn1algorithmIdentifier hashAlgorithm;
};

#endif  // DER_CASN1MESSAGEIMPRINT_H_
