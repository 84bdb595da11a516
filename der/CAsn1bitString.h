// CAsn1bitString: a BIT STRING held as one entry (0 or 1) per bit.
// ASN.1: BIT STRING
//
// The library's bit order is reversed against the usual one: the LAST entry
// goes to bit 7 of the first data octet, entry 0 to the last used bit. Peers
// encoded by this library depend on it, so keep it.
#ifndef DER_CASN1BITSTRING_H_
#define DER_CASN1BITSTRING_H_

#include <string>
#include <vector>

#include "der/CAsn1object.h"

class CAsn1bitString : public CAsn1object {
 public:
  CAsn1bitString() = default;
  // n bits, all 0.
  explicit CAsn1bitString(unsigned int n) : bits_(n, 0) {}

  // 03, length, unused-bits octet, data; 03 00 when there are no bits.
  int getDER(DerWriter& out) const override;
  // Identifier 0x03 required; length 0 gives no bits; more unused bits than
  // there are data bits fails.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() const override;

  unsigned int bitCount() const { return static_cast<unsigned int>(bits_.size()); }
  int getBit(unsigned int i) const { return i < bits_.size() ? bits_[i] : 0; }
  void setBit(unsigned int i, int on) {
    if (i < bits_.size()) bits_[i] = on ? 1 : 0;
  }
  // Number of set bits.
  unsigned int countSet() const;
  // Standard output: "Bits:" and "{%d}" for each set bit index.
  void print() const;

 private:
  // Up to 30 entries as '0'/'1' from entry 0, for the log.
  std::string logText() const;
  unsigned int contentLength() const;

  std::vector<unsigned char> bits_;
};

#endif  // DER_CASN1BITSTRING_H_
