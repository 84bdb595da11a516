#include "der/Der.h"

#include <cassert>
#include <cstdio>
#include <cstring>

#include "base/Log.h"
#include "der/CAsn1object.h"

unsigned int derLengthSize(int value) {
  if (value < 128) return 1;
  if (value < 256) return 2;
  if (value < 65536) return 3;
  if (value <= 0xFFFFFF) return 4;
  return 5;
}

bool DerReader::need(unsigned long long n) const {
  if (n <= left()) return true;
  Log log("DerReader", "need", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "DER decoding-error at pos %u. Needed %llu bytes, only %u left", *pos_, n,
          left());
  return false;
}

bool DerReader::peek(unsigned char* octet) const {
  if (atEnd()) return false;
  *octet = buffer_[*pos_];
  return true;
}

bool DerReader::readOctet(unsigned char* octet) {
  if (!need(1)) return false;
  *octet = buffer_[(*pos_)++];
  return true;
}

bool DerReader::expectTag(unsigned char tag) {
  unsigned int at = *pos_;
  unsigned char got = 0;
  if (!readOctet(&got)) return false;
  if (got == tag) return true;
  Log log("DerReader", "expectTag", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "DER decoding-error at pos %d. Expected 0x%02X, got 0x%02X",
          static_cast<int>(at), tag, got);
  return false;
}

bool DerReader::expectTagQuiet(unsigned char tag) {
  unsigned char got = 0;
  if (!readOctet(&got)) return false;
  return got == tag;
}

bool DerReader::readLengthValue(int* value) {
  unsigned char first = 0;
  if (!readOctet(&first)) return false;
  if ((first & 0x80) == 0) {
    *value = first;
    return true;
  }
  int n = first & 0x7F;
  if (n > kMaxLengthOctets) {
    Log log("CAsn1size", "setDER", __FILE__, __LINE__, 13);
    log.msg(__LINE__, 2, "Size of size value > %d bytes", kMaxLengthOctets);
    return false;
  }
  // 0x80 is the indefinite form, which DER does not allow: it reads as an
  // empty length.
  if (!need(static_cast<unsigned int>(n))) return false;
  unsigned int v = 0;
  for (int i = 0; i < n; ++i) v = (v << 8) | buffer_[(*pos_)++];
  *value = static_cast<int>(v);
  return true;
}

bool DerReader::readLength(unsigned int* length) {
  int value = 0;
  if (!readLengthValue(&value)) return false;
  *length = static_cast<unsigned int>(value);
  return need(*length);
}

bool DerReader::peekLength(unsigned int* length, unsigned int* lengthOctets) const {
  unsigned int pos = *pos_;
  DerReader ahead(buffer_, &pos, end_);
  int value = 0;
  if (!ahead.readLengthValue(&value)) return false;
  *length = static_cast<unsigned int>(value);
  *lengthOctets = pos - *pos_;
  return true;
}

bool DerReader::readBytes(unsigned char* dest, unsigned int n) {
  if (!need(n)) return false;
  if (n > 0) memcpy(dest, buffer_ + *pos_, n);
  *pos_ += n;
  return true;
}

bool DerReader::skip(unsigned int n) {
  if (!need(n)) return false;
  *pos_ += n;
  return true;
}

void DerWriter::bytes(const unsigned char* data, unsigned int n) {
  if (n > 0) memcpy(buffer_ + *pos_, data, n);
  *pos_ += n;
}

void DerWriter::length(int value) {
  unsigned int size = derLengthSize(value);
  if (size == 1) {
    octet(static_cast<unsigned char>(value));
    return;
  }
  unsigned int n = size - 1;
  octet(static_cast<unsigned char>(0x80 | n));
  for (unsigned int i = n; i > 0; --i) {
    octet(static_cast<unsigned char>(static_cast<unsigned int>(value) >> (8 * (i - 1))));
  }
}

std::vector<unsigned char> encodeDER(CAsn1object& object) {
  unsigned int size = object.getSize();
  std::vector<unsigned char> out(size);
  unsigned int pos = 0;
  if (object.getDER(out.data(), &pos) != 0) return std::vector<unsigned char>();
  assert(pos == size);
  return out;
}

std::string derHexText(const unsigned char* data, unsigned int length, unsigned int max) {
  unsigned int n = length < max ? length : max;
  std::string text;
  char b[4];
  for (unsigned int i = 0; i < n; ++i) {
    snprintf(b, sizeof b, "%02X ", data[i]);
    text += b;
  }
  if (!text.empty()) text.back() = ':';
  for (unsigned int i = 0; i < n; ++i) {
    text += data[i] >= 0x20 && data[i] <= 0x7E ? static_cast<char>(data[i]) : '.';
  }
  return text;
}

std::string derHexBytes(const unsigned char* data, unsigned int length) {
  std::string text;
  char b[4];
  for (unsigned int i = 0; i < length; ++i) {
    snprintf(b, sizeof b, "%02X ", data[i]);
    text += b;
  }
  return text;
}
