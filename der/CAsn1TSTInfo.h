// CAsn1TSTInfo: the RFC 3161 TSTInfo as the eContent of a timestamp token.
// ASN.1: [0] EXPLICIT OCTET STRING { TSTInfo ::= SEQUENCE { version INTEGER,
//   policy OBJECT IDENTIFIER, messageImprint MessageImprint, serialNumber
//   INTEGER, genTime GeneralizedTime, accuracy OPTIONAL, ordering BOOLEAN
//   DEFAULT FALSE, nonce INTEGER OPTIONAL, tsa [0] OPTIONAL, extensions [1]
//   OPTIONAL } }
//
// The five required members are decoded; everything after genTime is kept as
// raw bytes (and written back unchanged), with the nonce read out of them.
// A value type: copyable.
#ifndef DER_CASN1TSTINFO_H_
#define DER_CASN1TSTINFO_H_

#include <vector>

#include "der/CAsn1bigInteger.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1string.h"
#include "der/CAsn1time.h"

class CAsn1TSTInfo : public CAsn1object {
 public:
  CAsn1TSTInfo() = default;

  // A0, length, 04, length, 30, length, the members, the raw rest.
  int getDER(DerWriter& out) const override;
  // Starts at the [0] of the eContent and ends after it. Every INTEGER in the
  // rest is read as the nonce: with two, the later one wins.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // The DER of the TSTInfo SEQUENCE alone (no [0], no OCTET STRING): what the
  // messageDigest attribute is computed over. 0, or -1 when it cannot be encoded.
  int toBeHashedBuf(CAsn1string* out) const;

  // Raw DER of the optional members after genTime.
  const std::vector<unsigned char>& rest() const { return rest_; }
  // True when the rest held an INTEGER (the nonce).
  bool hasNonce() const { return hasNonce_; }

  CAsn1integer version{1};
  CAsn1oid policy;
  CAsn1messageImprint messageImprint;
  CAsn1bigInteger serialNumber;
  CAsn1time genTime;
  CAsn1bigInteger nonce;

 private:
  // The TSTInfo SEQUENCE alone.
  int getSequenceDER(DerWriter& out) const;

  std::vector<unsigned char> rest_;
  bool hasNonce_ = false;
};

#endif  // DER_CASN1TSTINFO_H_
