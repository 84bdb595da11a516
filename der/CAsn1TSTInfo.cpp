#include "der/CAsn1TSTInfo.h"

#include "base/Log.h"
#include "der/TokenDer.h"

int CAsn1TSTInfo::getDER(DerWriter& out) const {
  Log log("CAsn1TSTInfo", "getDER", __FILE__, __LINE__, 13);
  const size_t explicit0 = out.open(kTagContext0);
  const size_t octets = out.open(kTagOctetString);
  if (getSequenceDER(out) != 0) return -1;
  out.close(octets);
  out.close(explicit0);
  return 0;
}

int CAsn1TSTInfo::getSequenceDER(DerWriter& out) const {
  const size_t sequence = out.open(kTagSequence);
  if (version.getDER(out) != 0 || policy.getDER(out) != 0 || messageImprint.getDER(out) != 0 ||
      serialNumber.getDER(out) != 0 || genTime.getDER(out) != 0) {
    return -1;
  }
  out.bytes(rest_);
  out.close(sequence);
  return 0;
}

int CAsn1TSTInfo::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1TSTInfo", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagContext0) || !readTokenLength(in, &length)) return -1;
  const unsigned int contentEnd = in.pos() + length;
  DerReader content(buffer, pos, contentEnd);
  if (!content.expectTag(kTagOctetString) || !readTokenLength(content, &length) ||
      !content.expectTag(kTagSequence) || !readTokenLength(content, &length)) {
    return -1;
  }
  if (version.setDER(buffer, pos, contentEnd) != 0 || policy.setDER(buffer, pos, contentEnd) != 0 ||
      messageImprint.setDER(buffer, pos, contentEnd) != 0 ||
      serialNumber.setDER(buffer, pos, contentEnd) != 0 ||
      genTime.setDER(buffer, pos, contentEnd) != 0) {
    return -1;
  }
  rest_.assign(buffer + *pos, buffer + contentEnd);
  hasNonce_ = false;
  nonce.setValue(0);
  // Accuracy, ordering, tsa and extensions stay raw; the nonce is the one
  // INTEGER among them.
  while (!content.atEnd()) {
    unsigned char tag = 0;
    content.peek(&tag);
    if (tag == kTagInteger) {
      if (nonce.setDER(buffer, pos, contentEnd) != 0) return -1;
      hasNonce_ = true;
      continue;
    }
    unsigned int skip = 0;
    content.skip(1);
    if (!readTokenLength(content, &skip)) return -1;
    if (!content.skip(skip)) return -1;
  }
  *pos = contentEnd;
  log.msg(__LINE__, 9, "deserialized TSTInfo serial 0x%s with %u bytes after genTime",
          serialNumber.hex().c_str(), static_cast<unsigned int>(rest_.size()));
  return 0;
}

int CAsn1TSTInfo::toBeHashedBuf(CAsn1string* out) const {
  Log log("CAsn1TSTInfo", "toBeHashedBuf", __FILE__, __LINE__, 13);
  DerWriter der;
  if (getSequenceDER(der) != 0) return -1;
  out->setVal(kTagOctetString, der.data().data(), der.size());
  return 0;
}
