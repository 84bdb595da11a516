#include "der/CAsn1TSTInfo.h"

#include <cassert>

#include "base/Log.h"
#include "der/TokenDer.h"

unsigned int CAsn1TSTInfo::sequenceContentSize() {
  return version.getSize() + policy.getSize() + messageImprint.getSize() + serialNumber.getSize() +
         genTime.getSize() + static_cast<unsigned int>(rest_.size());
}

unsigned int CAsn1TSTInfo::getSize() {
  Log log("CAsn1TSTInfo", "getSize", __FILE__, __LINE__, 13);
  return derElementSize(derElementSize(derElementSize(sequenceContentSize())));
}

int CAsn1TSTInfo::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1TSTInfo", "getDER", __FILE__, __LINE__, 13);
  const unsigned int start = *pos;
  const unsigned int content = sequenceContentSize();
  DerWriter out(buffer, pos);
  derHeader(out, kTagContext0, derElementSize(derElementSize(content)));
  derHeader(out, kTagOctetString, derElementSize(content));
  derHeader(out, kTagSequence, content);
  if (version.getDER(buffer, pos) != 0 || policy.getDER(buffer, pos) != 0 ||
      messageImprint.getDER(buffer, pos) != 0 || serialNumber.getDER(buffer, pos) != 0 ||
      genTime.getDER(buffer, pos) != 0) {
    return -1;
  }
  out.bytes(rest_.data(), static_cast<unsigned int>(rest_.size()));
  assert(*pos - start == getSize());
  (void)start;
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

int CAsn1TSTInfo::toBeHashedBuf(CAsn1string* out) {
  Log log("CAsn1TSTInfo", "toBeHashedBuf", __FILE__, __LINE__, 13);
  std::vector<unsigned char> der = encodeDER(*this);
  if (der.empty()) return -1;
  // Drop the [0] and OCTET STRING headers in front of the SEQUENCE.
  const unsigned int sequence = derElementSize(sequenceContentSize());
  const unsigned int octetString = derElementSize(sequence);
  const unsigned int skip = 1 + derLengthSize(static_cast<int>(octetString)) + 1 +
                            derLengthSize(static_cast<int>(sequence));
  out->setVal(kTagOctetString, der.data() + skip, static_cast<unsigned int>(der.size()) - skip);
  return 0;
}
