#include "der/CAsn1contentInfo.h"

#include <openssl/objects.h>

#include <new>

#include "base/Log.h"
#include "der/CAsn1TSTInfo.h"
#include "der/CAsn1data.h"
#include "der/CAsn1signedData.h"
#include "der/TokenDer.h"

namespace {

std::unique_ptr<CAsn1object> copyContent(const CAsn1object* content) {
  if (content == nullptr) return nullptr;
  if (auto* d = dynamic_cast<const CAsn1data*>(content)) return std::make_unique<CAsn1data>(*d);
  if (auto* s = dynamic_cast<const CAsn1signedData*>(content)) {
    return std::make_unique<CAsn1signedData>(*s);
  }
  if (auto* t = dynamic_cast<const CAsn1TSTInfo*>(content)) {
    return std::make_unique<CAsn1TSTInfo>(*t);
  }
  return nullptr;
}

}  // namespace

CAsn1contentInfo::CAsn1contentInfo() = default;
CAsn1contentInfo::~CAsn1contentInfo() = default;

CAsn1contentInfo::CAsn1contentInfo(const CAsn1contentInfo& other)
    : CAsn1object(other), contentType(other.contentType), content_(copyContent(other.content())) {}

CAsn1contentInfo& CAsn1contentInfo::operator=(const CAsn1contentInfo& other) {
  if (this != &other) {
    contentType = other.contentType;
    content_ = copyContent(other.content());
  }
  return *this;
}

void CAsn1contentInfo::setContent(int nid, std::unique_ptr<CAsn1object> content) {
  contentType.nid = nid;
  content_ = std::move(content);
}

CAsn1signedData* CAsn1contentInfo::signedData() const {
  return dynamic_cast<CAsn1signedData*>(content_.get());
}
CAsn1TSTInfo* CAsn1contentInfo::tstInfo() const {
  return dynamic_cast<CAsn1TSTInfo*>(content_.get());
}
CAsn1data* CAsn1contentInfo::data() const { return dynamic_cast<CAsn1data*>(content_.get()); }

int CAsn1contentInfo::getDER(DerWriter& out) const {
  Log log("CAsn1contentInfo", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (contentType.getDER(out) != 0) return -1;
  if (content_ && content_->getDER(out) != 0) return -1;
  out.close(sequence);
  return 0;
}

int CAsn1contentInfo::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1contentInfo", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagSequence) || !readTokenLength(in, &length)) return -1;
  const unsigned int contentEnd = in.pos() + length;
  if (contentType.setDER(buffer, pos, contentEnd) != 0) return -1;
  content_.reset();
  const int nid = contentType.nid;
  DerReader rest(buffer, pos, contentEnd);
  unsigned char tag = 0;
  // A content that cannot be allocated leaves the content empty.
  if (nid == NID_pkcs7_data) {
    if (!rest.peek(&tag) || tag != kTagContext0) return 0;
    content_.reset(new (std::nothrow) CAsn1data());
  } else if (nid == NID_pkcs7_signed) {
    content_.reset(new (std::nothrow) CAsn1signedData());
  } else if (nid != NID_undef && nid == tstInfoNid()) {
    content_.reset(new (std::nothrow) CAsn1TSTInfo());
  } else {
    log.msg(__LINE__, 2, "Invalid contentType: %d", nid);
    return -1;
  }
  if (!content_) return 0;
  return content_->setDER(buffer, pos, contentEnd);
}
