// The request objects of the DER object model: CAsn1Request, version and
// message imprint, and CAsn1IETFrequest, the RFC 3161 TimeStampReq built on
// it. Value types: copyable, not thread-safe.
#ifndef DER_ASN1REQUEST_H_
#define DER_ASN1REQUEST_H_

#include "der/CAsn1boolean.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

// Version and message imprint of a request; on its own it encodes just those
// two, one after the other, without a SEQUENCE around them.
class CAsn1Request : public CAsn1object {
 public:
  CAsn1Request() = default;

  int getDER(DerWriter& out) const override;
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  CAsn1integer version{0};
  CAsn1messageImprint messageImprint;
};

// ASN.1: TimeStampReq ::= SEQUENCE { version INTEGER, messageImprint MessageImprint,
//   reqPolicy TSAPolicyId OPTIONAL, nonce INTEGER OPTIONAL, certReq BOOLEAN DEFAULT FALSE, ... }
//
// The optional fields are written only when their presence flag is set.
// Decoding reads them but does not change the flags: a decoded request keeps
// the flags it had, so encoding it again writes only what was flagged before.
// Extensions are neither written nor read.
class CAsn1IETFrequest : public CAsn1Request {
 public:
  CAsn1IETFrequest() { version.value = 1; }

  int getDER(DerWriter& out) const override;
  // 0x30 required (else -1, no message); version and imprint must decode; an
  // optional field is decoded only when its stated length fits in what is
  // left of the request, otherwise it is skipped.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  CAsn1string nonce{kTagInteger};  // the INTEGER's bytes as they are
  CAsn1oid reqPolicy;
  CAsn1boolean certReq{0};
  bool policyPresent = false;
  bool noncePresent = false;
  bool certReqPresent = false;
};

#endif  // DER_ASN1REQUEST_H_
