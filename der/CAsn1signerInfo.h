// CAsn1signerInfo: the one SignerInfo of a timestamp token.
// ASN.1: SignerInfo ::= SEQUENCE { version INTEGER, sid SignerIdentifier,
//   digestAlgorithm AlgorithmIdentifier, signedAttrs [0] IMPLICIT Attributes
//   OPTIONAL, signatureAlgorithm AlgorithmIdentifier, signature OCTET STRING,
//   unsignedAttrs [1] IMPLICIT OPTIONAL }
// SignerIdentifier ::= CHOICE { issuerAndSerialNumber IssuerAndSerialNumber,
//   subjectKeyIdentifier [0] IMPLICIT OCTET STRING }
//
// Servers name their signer either way (version 1 by issuer and serial,
// version 3 by key identifier); both are read and written back as read.
// Unsigned attributes are neither read nor written. A value type.
#ifndef DER_CASN1SIGNERINFO_H_
#define DER_CASN1SIGNERINFO_H_

#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1attributes.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1issuerSerial.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

class CAsn1signerInfo : public CAsn1object {
 public:
  CAsn1signerInfo() = default;

  // 30, length, the members; the signed attributes only when there are any.
  int getDER(DerWriter& out) const override;
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // Stores a signature made with a key of OpenSSL type pkeyType (the
  // EVP_PKEY base id) over digestNid: the signature algorithm becomes
  // rsaEncryption (with NULL parameters) for RSA keys, else the OpenSSL
  // signature algorithm for digest and key (dsa_with_SHA256, ecdsa-with-SHA256).
  // 0, or -1 when there is no such algorithm.
  int setSignature(int pkeyType, const unsigned char* signature, unsigned int length,
                   int digestNid);

  static constexpr unsigned char kTagKeyIdentifier = 0x80;

  CAsn1integer version{1};
  // The signer: by key identifier when bySubjectKeyId, else by issuerSerial.
  bool bySubjectKeyId = false;
  CAsn1issuerSerial issuerSerial;
  CAsn1string subjectKeyId{kTagKeyIdentifier};
  CAsn1algorithmIdentifier digestAlgorithm;
  CAsn1attributes signedAttributes;
  CAsn1algorithmIdentifier signatureAlgorithm;
  CAsn1string signature{kTagOctetString};
};

#endif  // DER_CASN1SIGNERINFO_H_
