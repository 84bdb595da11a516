// The bounded DER reader and the DER writer that every CAsn1 class is built on.
//
// Decoding: the bytes come from a Timestamp Server over the network, so a
// decoder never trusts a length it reads. A DerReader is a cursor over the
// received bytes: the caller's position (shared through a pointer, so nested
// decoders advance one position) and the end of the bytes received, which
// never moves. Every read checks the end first; running past it is reported at
// level 2 as a decoding error and the decoder returns -1.
//
// Encoding: a DerWriter appends to a buffer of its own that grows; the length
// of a constructed element is filled in when the element is closed.
//
// Not thread-safe per object; the classes hold no global state except the
// object identifiers that OpenSSL registers (see CAsn1oid).
#ifndef DER_DER_H_
#define DER_DER_H_

#include <cstddef>
#include <string>
#include <vector>

class CAsn1object;

// Identifier octets used by the library.
constexpr unsigned char kTagBoolean = 0x01;
constexpr unsigned char kTagInteger = 0x02;
constexpr unsigned char kTagBitString = 0x03;
constexpr unsigned char kTagOctetString = 0x04;
constexpr unsigned char kTagNull = 0x05;
constexpr unsigned char kTagOid = 0x06;
constexpr unsigned char kTagUtf8String = 0x0C;
constexpr unsigned char kTagPrintableString = 0x13;
constexpr unsigned char kTagIa5String = 0x16;
constexpr unsigned char kTagUtcTime = 0x17;
constexpr unsigned char kTagGeneralizedTime = 0x18;
constexpr unsigned char kTagSequence = 0x30;
constexpr unsigned char kTagSet = 0x31;
// Context-specific constructed tags [0] to [3].
constexpr unsigned char kTagContext0 = 0xA0;
constexpr unsigned char kTagContext1 = 0xA1;
constexpr unsigned char kTagContext2 = 0xA2;
constexpr unsigned char kTagContext3 = 0xA3;

// Longest length field the library reads: 4 octets after the 0x8n octet.
constexpr int kMaxLengthOctets = 4;

// Number of octets of the DER length field for value (CAsn1size rules: 1 below
// 128, 2 below 256, 3 below 65536, 4 up to 0xFFFFFF, else 5). Signed on
// purpose: a negative value takes one octet.
unsigned int derLengthSize(int value);

class DerReader {
 public:
  // buffer[*pos] is the next octet; buffer[end - 1] the last one received.
  DerReader(const unsigned char* buffer, unsigned int* pos, unsigned int end)
      : buffer_(buffer), pos_(pos), end_(end) {}

  const unsigned char* buffer() const { return buffer_; }
  unsigned int pos() const { return *pos_; }
  unsigned int end() const { return end_; }
  unsigned int left() const { return *pos_ < end_ ? end_ - *pos_ : 0; }
  bool atEnd() const { return *pos_ >= end_; }
  const unsigned char* here() const { return buffer_ + *pos_; }

  // True when n more octets are there; otherwise logs the decoding error
  // ("needed n octets") at level 2 and returns false.
  bool need(unsigned long long n) const;
  // The next octet without moving; false (no message) at the end.
  bool peek(unsigned char* octet) const;
  bool readOctet(unsigned char* octet);
  // Reads the identifier octet and checks it; a mismatch logs "DER
  // decoding-error at pos %d. Expected 0x%02X, got 0x%02X" at level 2.
  bool expectTag(unsigned char tag);
  // Like expectTag but without a message on a mismatch (composite types do not
  // report their own identifiers); the end is still reported.
  bool expectTagQuiet(unsigned char tag);
  // Reads a length field (short form, or 0x81..0x84 with that many octets;
  // 0x80 reads as 0; more than 4 octets fails with "Size of size value > %d
  // bytes"). The raw value is returned as the library holds it: signed.
  bool readLengthValue(int* value);
  // readLengthValue, and then the contents must fit in what is left: a length
  // running past the end of the received bytes fails.
  bool readLength(unsigned int* length);
  // Reads a length field at the position without moving it.
  bool peekLength(unsigned int* length, unsigned int* lengthOctets) const;
  bool skip(unsigned int n);

 private:
  const unsigned char* buffer_;
  unsigned int* pos_;
  unsigned int end_;
};

// Appends an encoding to a buffer that grows as needed, so writing can never
// run past its end. Constructed elements are written by open() and close():
// the length field is computed from what was written between the two, the one
// place a SEQUENCE's length comes from.
class DerWriter {
 public:
  DerWriter() = default;
  DerWriter(const DerWriter&) = delete;
  DerWriter& operator=(const DerWriter&) = delete;

  unsigned int size() const { return static_cast<unsigned int>(out_.size()); }
  const std::vector<unsigned char>& data() const { return out_; }
  std::vector<unsigned char> release() { return std::move(out_); }

  void octet(unsigned char value) { out_.push_back(value); }
  void bytes(const unsigned char* data, unsigned int n);
  void bytes(const std::vector<unsigned char>& data) {
    out_.insert(out_.end(), data.begin(), data.end());
  }
  // Writes a length field: short form below 128, else 0x80 | n and n octets.
  void length(int value);
  // n zero octets to be filled in place; returns where they start.
  unsigned char* zeros(unsigned int n);

  // Writes the identifier octet and starts the contents; returns the mark
  // that close() takes. Elements nest: close the inner one first.
  size_t open(unsigned char tag);
  // Writes the length field of the element opened at mark from the number of
  // octets written since.
  void close(size_t mark);

 private:
  std::vector<unsigned char> out_;
};

// Encodes object into a new buffer. Empty when getDER fails. Asserts that
// getDER wrote what getSize announced.
std::vector<unsigned char> encodeDER(const CAsn1object& object);

// "30 31 32:012" -- up to max bytes as "%02X " with the last blank replaced
// by ':', then the same bytes as characters, '.' outside 0x20..0x7E.
std::string derHexText(const unsigned char* data, unsigned int length, unsigned int max);
// "30 31 32 " -- every byte as "%02X ".
std::string derHexBytes(const unsigned char* data, unsigned int length);

#endif  // DER_DER_H_
