// CAsn1attributes: the signed attributes of a SignerInfo, at most 10.
// ASN.1: signedAttrs [0] IMPLICIT SET SIZE (1..MAX) OF Attribute
//
// Attributes keep the order they were read or added in. A value type.
#ifndef DER_CASN1ATTRIBUTES_H_
#define DER_CASN1ATTRIBUTES_H_

#include <vector>

#include "der/CAsn1attribute.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"

class CAsn1attributes : public CAsn1object {
 public:
  static constexpr unsigned int kMaxAttributes = 10;

  CAsn1attributes() = default;

  // A0, length, the attributes.
  int getDER(DerWriter& out) const override;
  // Reads attributes until the end of the [0], at most 10.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // What the signature of the signed attributes covers: their encoding with
  // the [0] replaced by a SET tag (31), as an OCTET STRING object. 0 or -1.
  int getToBeHashedSequence(CAsn1string* out) const;

  // Appends an attribute; -1 when 10 are there already.
  int add(const CAsn1attribute& attribute);
  unsigned int count() const { return static_cast<unsigned int>(attributes_.size()); }
  const CAsn1attribute& at(unsigned int i) const { return attributes_[i]; }
  // The first attribute of type nid, or null.
  const CAsn1attribute* find(int nid) const;
  void clear() { attributes_.clear(); }

 private:
  std::vector<CAsn1attribute> attributes_;
};

#endif  // DER_CASN1ATTRIBUTES_H_
