// CAsn1oid: an OBJECT IDENTIFIER held as an OpenSSL NID.
// ASN.1: OBJECT IDENTIFIER
//
// Encoding and decoding go through OpenSSL's DER functions for object
// identifiers. An identifier that OpenSSL does not know is registered with
// OpenSSL at run time (dotted text as number, short and long name), so it
// gets a NID and re-encodes identically. That registry is process-wide.
#ifndef DER_CASN1OID_H_
#define DER_CASN1OID_H_

#include "der/CAsn1object.h"

class CAsn1oid : public CAsn1object {
 public:
  CAsn1oid() = default;
  explicit CAsn1oid(int n) : nid(n) {}

  // Fails with "Object not initialized" when nid is 0.
  int getDER(DerWriter& out) const override;
  // Identifier 0x06 required; an OpenSSL decoding failure logs its error queue.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // Length of OpenSSL's encoding; 0 when nid is 0 or unknown to OpenSSL.
  unsigned int getSize() const override;

  // Writes "[%3d] %s (%s) (%s)\n" (NID, dotted text, long name, short name)
  // to standard output.
  void print() const;

  int nid = 0;  // OpenSSL NID; 0 = not set
};

#endif  // DER_CASN1OID_H_
