#include "der/CAsn1algorithmIdentifier.h"

#include <string>

#include "base/Log.h"

CAsn1algorithmIdentifier::CAsn1algorithmIdentifier(int nid, bool nullParameters) : algorithm(nid) {
  if (nullParameters) parm_ = {kTagNull, 0x00};
}

void CAsn1algorithmIdentifier::setParameters(const unsigned char* bytes, unsigned int length) {
  Log log("CAsn1algorithmIdentifier", "setParameters", __FILE__, __LINE__, 13);
  parm_.assign(bytes, bytes + length);
}

int CAsn1algorithmIdentifier::getDER(DerWriter& out, unsigned char tag) const {
  Log log("CAsn1algorithmIdentifier", "getDER", __FILE__, __LINE__, 13);
  const size_t element = out.open(tag);
  if (algorithm.getDER(out) != 0) return -1;
  if (!parm_.empty()) {
    out.bytes(parm_);
    log.msg(__LINE__, 9, "serialized %d bytes opaque CAsn1algorithmIdentifier.parm: %s",
            static_cast<int>(parm_.size()), derHexBytes(parm_.data(), parameterLength()).c_str());
  }
  out.close(element);
  return 0;
}

int CAsn1algorithmIdentifier::setDER(const unsigned char* buffer, unsigned int* pos,
                                     unsigned int end, unsigned char tag) {
  Log log("CAsn1algorithmIdentifier", "setDER", __FILE__, __LINE__, 13);
  parm_.clear();
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(tag) || !in.readLength(&length)) return -1;
  unsigned int contentsEnd = in.pos() + length;
  if (algorithm.setDER(buffer, pos, end) != 0) return -1;
  if (in.pos() > contentsEnd) {
    log.msg(__LINE__, 2, "DER decoding-error at pos %u. Algorithm runs %u bytes past its end",
            contentsEnd, in.pos() - contentsEnd);
    return -1;
  }
  parm_.assign(in.here(), buffer + contentsEnd);
  *pos = contentsEnd;
  log.msg(__LINE__, 9, "stored %d bytes opaque CAsn1algorithmIdentifier.parm: %s",
          static_cast<int>(parm_.size()),
          parm_.empty() ? "" : derHexBytes(parm_.data(), parameterLength()).c_str());
  return 0;
}
