// CAsn1algorithmIdentifier: an algorithm OID with opaque parameters.
// ASN.1: AlgorithmIdentifier ::= SEQUENCE { algorithm OBJECT IDENTIFIER, parameters ANY OPTIONAL }
//
// The parameters are never interpreted: whatever follows the OID inside the
// SEQUENCE (05 00 for a NULL, say) is kept as bytes and written back as read.
#ifndef DER_CASN1ALGORITHMIDENTIFIER_H_
#define DER_CASN1ALGORITHMIDENTIFIER_H_

#include <vector>

#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"
#include "der/Der.h"

class CAsn1algorithmIdentifier : public CAsn1object {
 public:
  CAsn1algorithmIdentifier() = default;
  // The algorithm nid, with NULL parameters (05 00) when nullParameters.
  CAsn1algorithmIdentifier(int nid, bool nullParameters);

  // The forms with an identifier octet also encode and decode implicitly
  // tagged algorithm identifiers; the virtual slots use 0x30.
  int getDER(DerWriter& out) const override { return getDER(out, kTagSequence); }
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override {
    return setDER(buffer, pos, end, kTagSequence);
  }
  int getDER(DerWriter& out, unsigned char tag) const;
  // A different identifier octet gives -1 without a message.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end, unsigned char tag);

  // Replaces the parameter bytes (none when length is 0).
  void setParameters(const unsigned char* bytes, unsigned int length);
  const unsigned char* parameters() const { return parm_.empty() ? nullptr : parm_.data(); }
  unsigned int parameterLength() const { return static_cast<unsigned int>(parm_.size()); }

  CAsn1oid algorithm;

 private:
  std::vector<unsigned char> parm_;
};

#endif  // DER_CASN1ALGORITHMIDENTIFIER_H_
