// CAsn1attribute: one signed attribute of a SignerInfo.
// ASN.1: Attribute ::= SEQUENCE { attrType OBJECT IDENTIFIER, attrValues SET OF AttributeValue }
//
// Exactly one value is read and written. Its class follows the type:
// contentType (NID 50) an OID, signingTime (NID 52) a time, any other type
// (messageDigest among them) a string object that takes whatever tag it
// finds, so unknown attributes (signingCertificateV2, a SEQUENCE) come back
// unchanged. The attribute owns its value; copies are deep.
#ifndef DER_CASN1ATTRIBUTE_H_
#define DER_CASN1ATTRIBUTE_H_

#include <ctime>
#include <memory>

#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1string.h"

class CAsn1attribute : public CAsn1object {
 public:
  CAsn1attribute() = default;
  CAsn1attribute(const CAsn1attribute& other);
  CAsn1attribute& operator=(const CAsn1attribute& other);
  ~CAsn1attribute() override;

  // contentType attribute holding the OID of nid.
  static CAsn1attribute contentType(int nid);
  // signingTime attribute: a UTCTime "YYMMDDhhmmss" in UTC, written without
  // the trailing 'Z' (the form the local signer has always produced).
  static CAsn1attribute signingTime(time_t when);
  // An attribute of type nid whose value is the string object value
  // (messageDigest: an OCTET STRING).
  static CAsn1attribute stringValue(int nid, const CAsn1string& value);

  // 30, length, type, 31, length, the value. -1 without a value.
  int getDER(DerWriter& out) const override;
  // Any value after the first in the SET is not read.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // The value object (CAsn1oid, CAsn1time or CAsn1string); null before a
  // value was set or decoded.
  CAsn1object* value() const { return value_.get(); }
  // The value when it is a string object, else null.
  const CAsn1string* stringValue() const;

  CAsn1oid type;

 private:
  std::unique_ptr<CAsn1object> value_;
};

#endif  // DER_CASN1ATTRIBUTE_H_
