// CAsn1oid: an OBJECT IDENTIFIER held as an OpenSSL NID, or as its content
// octets when OpenSSL does not know it.
// ASN.1: OBJECT IDENTIFIER
//
// Encoding and decoding go through OpenSSL's DER functions for object
// identifiers. Decoding only looks identifiers up: one that OpenSSL does not
// know keeps its content octets and re-encodes from them. Nothing read from
// a peer goes into OpenSSL's process-wide object table, which would grow with
// every new identifier and which OpenSSL reads from other threads unlocked.
#ifndef DER_CASN1OID_H_
#define DER_CASN1OID_H_

#include <string>
#include <vector>

#include "der/CAsn1object.h"

class CAsn1oid : public CAsn1object {
 public:
  CAsn1oid() = default;
  explicit CAsn1oid(int n) : nid(n) {}

  // Fails with "Object not initialized" when the identifier is not set.
  int getDER(DerWriter& out) const override;
  // Identifier 0x06 required; an OpenSSL decoding failure logs its error
  // queue. An identifier unknown to OpenSSL leaves nid 0 and keeps its octets.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // Length of the encoding; 0 when the identifier is not set.
  unsigned int getSize() const override;

  // A NID, or the octets of an identifier OpenSSL does not know.
  bool isSet() const { return nid != 0 || !unknown_.empty(); }
  // Dotted numeric text ("1.2.3.4"); empty when not set.
  std::string dotted() const;
  // The same identifier, whichever way each side holds it.
  bool sameAs(const CAsn1oid& other) const;

  // Writes "[%3d] %s (%s) (%s)\n" (NID, dotted text, long name, short name)
  // to standard output.
  void print() const;

  int nid = 0;  // OpenSSL NID; 0 = not set or unknown to OpenSSL (then see unknown_)

 private:
  // The content octets of an identifier OpenSSL does not know; used only
  // while nid is 0, so that assigning a NID replaces the identifier.
  std::vector<unsigned char> unknown_;
  // The complete DER (06, length, contents); empty when not set.
  std::vector<unsigned char> der() const;
};

#endif  // DER_CASN1OID_H_
