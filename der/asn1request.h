// The request objects of the DER object model: CAsn1Request, the base of all
// request kinds, and its four kinds. The timestamp requester uses only
// CAsn1IETFrequest (RFC 3161 TimeStampReq); the other kinds follow the same
// rules. Value types: copyable, not thread-safe.
#ifndef DER_ASN1REQUEST_H_
#define DER_ASN1REQUEST_H_

#include "der/CAsn1boolean.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1size.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

// Version and message imprint of every request kind; on its own it encodes
// just those two, one after the other, without a SEQUENCE around them.
class CAsn1Request : public CAsn1object {
 public:
  CAsn1Request() = default;

  int getDER(unsigned char* buffer, unsigned int* pos) override;
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() override;

  CAsn1integer version{0};
  CAsn1messageImprint messageImprint;  // hashedMessage an OCTET STRING unless the kind says
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

  int getDER(unsigned char* buffer, unsigned int* pos) override;
  // 0x30 required (else -1, no message); version and imprint must decode; an
  // optional field is decoded only when its stated length fits in what is
  // left of the request, otherwise it is skipped.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // Also stores the content length in contentLength.
  unsigned int getSize() override;

  CAsn1size contentLength;
  CAsn1string nonce{kTagInteger};  // the INTEGER's bytes as they are
  CAsn1oid reqPolicy;
  CAsn1boolean certReq{0};
  bool policyPresent = false;
  bool noncePresent = false;
  bool certReqPresent = false;
};

// ASN.1: [0] { SEQUENCE { version INTEGER (99), [2] { MessageImprint } } }
// The hashed message is a BIT STRING: tag 03, first content byte 0 (no
// unused bits), then the hash.
class CAsn1sigIA4request : public CAsn1Request {
 public:
  CAsn1sigIA4request();

  int getDER(unsigned char* buffer, unsigned int* pos) override;
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() override;

 private:
  unsigned int innerLength();
};

// ASN.1: [3] { SEQUENCE { version INTEGER (0), MessageImprint } }
class CAsn1Pkcs7request : public CAsn1Request {
 public:
  CAsn1Pkcs7request() = default;

  int getDER(unsigned char* buffer, unsigned int* pos) override;
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() override;
};

// ASN.1: [2] { SEQUENCE { INTEGER 1, [0] { first } } }                 (mode 1)
//        [2] { SEQUENCE { INTEGER 1, SEQUENCE { first, second } } }    (mode 2)
// The elements are kept as opaque DER elements. The INTEGER is always
// written as 1 and not checked when read (its value lands in version).
class CAsn1CertRequest : public CAsn1Request {
 public:
  CAsn1CertRequest() = default;

  // -1 for a mode other than 1 or 2.
  int getDER(unsigned char* buffer, unsigned int* pos) override;
  // Sets the mode from what it finds: [0] gives 1, SEQUENCE gives 2.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // 0 for a mode other than 1 or 2.
  unsigned int getSize() override;

  int mode = 1;
  CAsn1string first{kTagOctetString};
  CAsn1string second{kTagOctetString};

 private:
  unsigned int choiceLength();
};

#endif  // DER_ASN1REQUEST_H_
