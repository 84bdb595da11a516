#include "der/CAsn1string.h"

#include <cstdio>
#include <cstring>

#include "base/Log.h"
#include "der/Der.h"

namespace {
constexpr unsigned int kLogBytes = 8;
}

CAsn1string::CAsn1string(unsigned char tag, const unsigned char* bytes, unsigned int length)
    : tag_(tag) {
  setVal(bytes, length);
}

void CAsn1string::setVal(unsigned char tag, const unsigned char* bytes, unsigned int length) {
  tag_ = tag;
  setVal(bytes, length);
}

void CAsn1string::setVal(const unsigned char* bytes, unsigned int length) {
  Log log("CAsn1string", "setVal", __FILE__, __LINE__, 13);
  bytes_.assign(static_cast<size_t>(length) + 1, 0);
  if (length > 0 && bytes != nullptr) memcpy(bytes_.data(), bytes, length);
  length_ = length;
}

int CAsn1string::getDER(DerWriter& out) const {
  Log log("CAsn1string", "getDER", __FILE__, __LINE__, 13);
  out.octet(tag_);
  out.length(static_cast<int>(length_));
  out.bytes(data(), length_);
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "serialized %s", logText().c_str());
  return 0;
}

int CAsn1string::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1string", "setDER", __FILE__, __LINE__, 13);
  bytes_.clear();
  length_ = 0;
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.readOctet(&tag_) || !in.readLength(&length)) return -1;
  setVal(in.here(), length);
  in.skip(length);
  // The text is built only for a log that takes it: answers are decoded on
  // every exchange.
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "deserialized %s", logText().c_str());
  return 0;
}

unsigned int CAsn1string::getSize() const {
  Log log("CAsn1string", "getSize", __FILE__, __LINE__, 13);
  return 1 + derLengthSize(static_cast<int>(length_)) + length_;
}

std::string CAsn1string::logText() const {
  char head[64];
  snprintf(head, sizeof head, "STRING[%d](%d bytes) ", tag_, static_cast<int>(length_));
  return head + derHexText(data(), length_, kLogBytes);
}

void CAsn1string::printHex() const {
  Log log("CAsn1string", "printHex", __FILE__, __LINE__, 13);
  for (unsigned int i = 0; i < length_; ++i) printf("%02X ", bytes_[i]);
}

void CAsn1string::printChars() const {
  Log log("CAsn1string", "printChars", __FILE__, __LINE__, 13);
  for (unsigned int i = 0; i < length_; ++i) printf("%c", bytes_[i] < 32 ? '.' : bytes_[i]);
}
