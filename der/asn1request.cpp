#include "der/asn1request.h"

#include "base/Log.h"

// ---- CAsn1Request

int CAsn1Request::getDER(DerWriter& out) const {
  Log log("CAsn1Request", "getDER", __FILE__, __LINE__, 13);
  if (version.getDER(out) != 0) return -1;
  return messageImprint.getDER(out);
}

int CAsn1Request::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1Request", "setDER", __FILE__, __LINE__, 13);
  if (version.setDER(buffer, pos, end) != 0) return -1;
  return messageImprint.setDER(buffer, pos, end);
}

// ---- CAsn1IETFrequest

int CAsn1IETFrequest::getDER(DerWriter& out) const {
  Log log("CIETFrequest", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (version.getDER(out) != 0 || messageImprint.getDER(out) != 0) return -1;
  if (policyPresent && reqPolicy.getDER(out) != 0) return -1;
  if (noncePresent && nonce.getDER(out) != 0) return -1;
  if (certReqPresent && certReq.getDER(out) != 0) return -1;
  out.close(sequence);
  return 0;
}

int CAsn1IETFrequest::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CIETFrequest", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&length)) return -1;
  long long contentsEnd = static_cast<long long>(in.pos()) + length;
  if (version.setDER(buffer, pos, end) != 0 || messageImprint.setDER(buffer, pos, end) != 0) {
    return -1;
  }
  // Optional fields in their order; the presence flags stay as they were.
  struct Optional {
    unsigned char tag;
    CAsn1object* member;
  } optionals[] = {{kTagOid, &reqPolicy}, {kTagInteger, &nonce}, {kTagBoolean, &certReq}};
  for (const Optional& o : optionals) {
    unsigned char tag = 0;
    if (!in.peek(&tag) || tag != o.tag) continue;
    unsigned int afterTag = in.pos() + 1;
    DerReader ahead(buffer, &afterTag, end);
    unsigned int elementLength = 0, lengthOctets = 0;
    if (!ahead.peekLength(&elementLength, &lengthOctets)) continue;
    // Room left in the request after the identifier octet; an element that
    // claims more is skipped, not decoded.
    long long room = contentsEnd - static_cast<long long>(afterTag);
    if (static_cast<long long>(elementLength) > room) continue;
    if (o.member->setDER(buffer, pos, end) != 0) return -1;
  }
  return 0;
}
