// CAsn1string: any primitive string-like value; the identifier octet is the
// caller's choice (OCTET STRING, PrintableString, an INTEGER kept as bytes...).
// ASN.1: <tag> OCTET STRING-like contents, copied unchanged
#ifndef DER_CASN1STRING_H_
#define DER_CASN1STRING_H_

#include <string>
#include <vector>

#include "der/CAsn1object.h"

class CAsn1string : public CAsn1object {
 public:
  CAsn1string() = default;
  explicit CAsn1string(unsigned char tag) : tag_(tag) {}
  CAsn1string(unsigned char tag, const unsigned char* bytes, unsigned int length);

  // Tag, length, bytes. Logs "serialized STRING[%d](%d bytes) %s" at level 9.
  int getDER(DerWriter& out) const override;
  // Takes whatever identifier octet it finds as the new tag (no check), then
  // the length and that many bytes; fails when they were not all received.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // 1 + size of the length field + length.
  unsigned int getSize() const override;

  // Replace the bytes (a copy of length bytes, plus a NUL kept after them).
  void setVal(unsigned char tag, const unsigned char* bytes, unsigned int length);
  void setVal(const unsigned char* bytes, unsigned int length);

  unsigned char tag() const { return tag_; }
  // The bytes, followed by a NUL; nullptr when empty.
  const unsigned char* data() const { return bytes_.empty() ? nullptr : bytes_.data(); }
  unsigned int length() const { return length_; }

  // "STRING[%d](%d bytes) %s" with up to 8 bytes as derHexText.
  std::string logText() const;
  // Standard output: every byte as "%02X ", or as characters ('.' below 32).
  void printHex() const;
  void printChars() const;

 private:
  unsigned char tag_ = 0;
  std::vector<unsigned char> bytes_;  // length_ bytes and a NUL, or empty
  unsigned int length_ = 0;
};

#endif  // DER_CASN1STRING_H_
