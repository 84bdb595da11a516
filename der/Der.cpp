#include "der/Der.h"

#include <cassert>
#include <cstddef>
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

bool DerReader::skip(unsigned int n) {
  if (!need(n)) return false;
  *pos_ += n;
  return true;
}

namespace {

// Writes the length field of value, derLengthSize(value) octets, at p.
void putLength(unsigned char* p, int value) {
  const unsigned int size = derLengthSize(value);
  if (size == 1) {
    *p = static_cast<unsigned char>(value);
    return;
  }
  const unsigned int n = size - 1;
  *p++ = static_cast<unsigned char>(0x80 | n);
  for (unsigned int i = n; i > 0; --i) {
    *p++ = static_cast<unsigned char>(static_cast<unsigned int>(value) >> (8 * (i - 1)));
  }
}

}  // namespace

void DerWriter::bytes(const unsigned char* data, unsigned int n) {
  if (n > 0) out_.insert(out_.end(), data, data + n);
}

void DerWriter::length(int value) {
  const size_t at = out_.size();
  out_.resize(at + derLengthSize(value));
  putLength(&out_[at], value);
}

unsigned char* DerWriter::zeros(unsigned int n) {
  const size_t at = out_.size();
  out_.resize(at + n, 0);
  return out_.data() + at;
}

size_t DerWriter::open(unsigned char tag) {
  out_.push_back(tag);
  out_.push_back(0);  // a short-form length; close() makes room for a longer one
  return out_.size() - 1;
}

void DerWriter::close(size_t mark) {
  assert(mark < out_.size());
  const int length = static_cast<int>(out_.size() - mark - 1);
  const unsigned int size = derLengthSize(length);
  if (size > 1) out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(mark) + 1, size - 1, 0);
  putLength(&out_[mark], length);
}

std::vector<unsigned char> encodeDER(const CAsn1object& object) {
  DerWriter out;
  if (object.getDER(out) != 0) return std::vector<unsigned char>();
  assert(out.size() == object.getSize());
  return out.release();
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
