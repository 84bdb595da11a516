// CAsn1bigInteger: an INTEGER of up to 64 content octets, kept as its octets.
// ASN.1: INTEGER (a TSTInfo serialNumber or nonce)
//
// Timestamp Servers number their tokens with serials of 160 bits and more
// and echo nonces of any size a requester chose, so these fields do not fit
// the 32-bit CAsn1integer. The octets are written back exactly as they were read.
// A value type.
#ifndef DER_CASN1BIGINTEGER_H_
#define DER_CASN1BIGINTEGER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "der/CAsn1object.h"

class CAsn1bigInteger : public CAsn1object {
 public:
  static constexpr unsigned int kMaxOctets = 64;

  CAsn1bigInteger() { setValue(0); }
  explicit CAsn1bigInteger(uint64_t value) { setValue(value); }

  // 02, length, the content octets.
  int getDER(DerWriter& out) const override;
  // Identifier 0x02 and 1 to 64 content octets, else -1 ("Size of integer
  // value > %d bytes" with 64 for more, "INTEGER without content octets" for none).
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  unsigned int getSize() const override;

  // The minimal two's complement octets of a non-negative value.
  void setValue(uint64_t value);
  // The content octets as given (1 to 64 of them); false otherwise.
  bool setOctets(const std::vector<unsigned char>& octets);
  const std::vector<unsigned char>& octets() const { return octets_; }
  // Upper-case hex of the value without the sign octet that DER puts in front
  // of a positive value whose top bit is set ("0100", "C3FF", "00" for zero).
  std::string hex() const;
  // The value when it is non-negative and fits 64 bits.
  bool toUint64(uint64_t* value) const;

  bool operator==(const CAsn1bigInteger& other) const { return octets_ == other.octets_; }
  bool operator!=(const CAsn1bigInteger& other) const { return !(*this == other); }

 private:
  std::vector<unsigned char> octets_;
};

#endif  // DER_CASN1BIGINTEGER_H_
