#include "der/CAsn1attribute.h"

#include <openssl/objects.h>

#include <cstdio>

#include "base/Log.h"
#include "der/CAsn1time.h"
#include "der/TokenDer.h"

namespace {

// The value object for an attribute type.
std::unique_ptr<CAsn1object> newValueFor(int nid) {
  if (nid == NID_pkcs9_contentType) return std::make_unique<CAsn1oid>();
  if (nid == NID_pkcs9_signingTime) return std::make_unique<CAsn1time>();
  return std::make_unique<CAsn1string>();
}

std::unique_ptr<CAsn1object> copyValue(const CAsn1object* value) {
  if (value == nullptr) return nullptr;
  if (auto* oid = dynamic_cast<const CAsn1oid*>(value)) return std::make_unique<CAsn1oid>(*oid);
  if (auto* time = dynamic_cast<const CAsn1time*>(value)) {
    return std::make_unique<CAsn1time>(*time);
  }
  return std::make_unique<CAsn1string>(*dynamic_cast<const CAsn1string*>(value));
}

}  // namespace

CAsn1attribute::CAsn1attribute(const CAsn1attribute& other)
    : CAsn1object(other), type(other.type), value_(copyValue(other.value_.get())) {}

CAsn1attribute& CAsn1attribute::operator=(const CAsn1attribute& other) {
  if (this != &other) {
    type = other.type;
    value_ = copyValue(other.value_.get());
  }
  return *this;
}

CAsn1attribute::~CAsn1attribute() = default;

CAsn1attribute CAsn1attribute::contentType(int nid) {
  CAsn1attribute a;
  a.type.nid = NID_pkcs9_contentType;
  a.value_ = std::make_unique<CAsn1oid>(nid);
  return a;
}

CAsn1attribute CAsn1attribute::signingTime(time_t when) {
  struct tm t = {};
  gmtime_r(&when, &t);
  char text[32];
  snprintf(text, sizeof text, "%02d%02d%02d%02d%02d%02d", (t.tm_year + 1900) % 100, t.tm_mon + 1,
           t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  CAsn1attribute a;
  a.type.nid = NID_pkcs9_signingTime;
  // Kept as a string object: a time object would add the 'Z' that the
  // local signer's signatures never covered.
  a.value_ = std::make_unique<CAsn1string>(kTagUtcTime, reinterpret_cast<unsigned char*>(text),
                                           static_cast<unsigned int>(12));
  return a;
}

CAsn1attribute CAsn1attribute::stringValue(int nid, const CAsn1string& value) {
  CAsn1attribute a;
  a.type.nid = nid;
  a.value_ = std::make_unique<CAsn1string>(value);
  return a;
}

const CAsn1string* CAsn1attribute::stringValue() const {
  return dynamic_cast<const CAsn1string*>(value_.get());
}

int CAsn1attribute::getDER(DerWriter& out) const {
  Log log("CAsn1attribute", "getDER", __FILE__, __LINE__, 13);
  if (!value_) {
    log.msg(__LINE__, 2, "Attribute %d has no value", type.nid);
    return -1;
  }
  const size_t sequence = out.open(kTagSequence);
  if (type.getDER(out) != 0) return -1;
  const size_t set = out.open(kTagSet);
  if (value_->getDER(out) != 0) return -1;
  out.close(set);
  out.close(sequence);
  return 0;
}

int CAsn1attribute::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1attribute", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagSequence) || !readTokenLength(in, &length)) return -1;
  const unsigned int attributeEnd = in.pos() + length;
  if (type.setDER(buffer, pos, attributeEnd) != 0) return -1;
  value_ = newValueFor(type.nid);
  DerReader values(buffer, pos, attributeEnd);
  if (!values.expectTag(kTagSet) || !readTokenLength(values, &length)) return -1;
  return value_->setDER(buffer, pos, in.pos() + length);
}
