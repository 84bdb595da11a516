#include "der/asn1request.h"

#include <cassert>

#include "base/Log.h"

namespace {

// Octets of a TLV whose contents are length octets long.
unsigned int wrapped(unsigned int length) {
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

void writeHeader(DerWriter& out, unsigned char tag, unsigned int length) {
  out.octet(tag);
  out.length(static_cast<int>(length));
}

// Identifier and length of a constructed element; -1 (no message) on another
// identifier, -1 with the decoding error when the length runs past the end.
bool readHeader(DerReader& in, unsigned char tag) {
  unsigned int length = 0;
  return in.expectTagQuiet(tag) && in.readLength(&length);
}

// The INTEGER 1 that CAsn1CertRequest writes as a constant.
constexpr unsigned char kVersionOne[] = {kTagInteger, 0x01, 0x01};

}  // namespace

// ---- CAsn1Request

unsigned int CAsn1Request::getSize() {
  Log log("CAsn1Request", "getSize", __FILE__, __LINE__, 13);
  return version.getSize() + messageImprint.getSize();
}

int CAsn1Request::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1Request", "getDER", __FILE__, __LINE__, 13);
  if (version.getDER(buffer, pos) != 0) return -1;
  return messageImprint.getDER(buffer, pos);
}

int CAsn1Request::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1Request", "setDER", __FILE__, __LINE__, 13);
  if (version.setDER(buffer, pos, end) != 0) return -1;
  return messageImprint.setDER(buffer, pos, end);
}

// ---- CAsn1IETFrequest

unsigned int CAsn1IETFrequest::getSize() {
  Log log("CIETFrequest", "getSize", __FILE__, __LINE__, 13);
  unsigned int contents = version.getSize() + messageImprint.getSize();
  if (policyPresent) contents += reqPolicy.getSize();
  if (noncePresent) contents += nonce.getSize();
  if (certReqPresent) contents += certReq.getSize();
  contentLength.value = static_cast<int>(contents);
  return 1 + contentLength.getSize() + contents;
}

int CAsn1IETFrequest::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CIETFrequest", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  unsigned int size = getSize();
  DerWriter out(buffer, pos);
  out.octet(kTagSequence);
  if (contentLength.getDER(buffer, pos) != 0 || version.getDER(buffer, pos) != 0 ||
      messageImprint.getDER(buffer, pos) != 0) {
    return -1;
  }
  if (policyPresent && reqPolicy.getDER(buffer, pos) != 0) return -1;
  if (noncePresent && nonce.getDER(buffer, pos) != 0) return -1;
  if (certReqPresent && certReq.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == size);
  (void)start;
  (void)size;
  return 0;
}

int CAsn1IETFrequest::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CIETFrequest", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&length)) return -1;
  contentLength.value = static_cast<int>(length);
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

// ---- CAsn1sigIA4request

CAsn1sigIA4request::CAsn1sigIA4request() {
  version.value = 99;
  const unsigned char noUnusedBits = 0;
  messageImprint.hashedMessage.setVal(kTagBitString, &noUnusedBits, 1);
}

unsigned int CAsn1sigIA4request::innerLength() {
  return version.getSize() + wrapped(messageImprint.getSize());
}

unsigned int CAsn1sigIA4request::getSize() {
  Log log("CAsn1sigIA4request", "getSize", __FILE__, __LINE__, 13);
  return wrapped(wrapped(innerLength()));
}

int CAsn1sigIA4request::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1sigIA4request", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  unsigned int inner = innerLength();
  DerWriter out(buffer, pos);
  writeHeader(out, kTagContext0, wrapped(inner));
  writeHeader(out, kTagSequence, inner);
  if (version.getDER(buffer, pos) != 0) return -1;
  writeHeader(out, kTagContext2, messageImprint.getSize());
  if (messageImprint.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1sigIA4request::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1sigIA4request", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  if (!readHeader(in, kTagContext0) || !readHeader(in, kTagSequence)) return -1;
  if (version.setDER(buffer, pos, end) != 0 || !readHeader(in, kTagContext2)) return -1;
  return messageImprint.setDER(buffer, pos, end);
}

// ---- CAsn1Pkcs7request

unsigned int CAsn1Pkcs7request::getSize() {
  Log log("CAsn1Pkcs7request", "getSize", __FILE__, __LINE__, 13);
  return wrapped(wrapped(version.getSize() + messageImprint.getSize()));
}

int CAsn1Pkcs7request::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1Pkcs7request", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  unsigned int inner = version.getSize() + messageImprint.getSize();
  DerWriter out(buffer, pos);
  writeHeader(out, kTagContext3, wrapped(inner));
  writeHeader(out, kTagSequence, inner);
  if (version.getDER(buffer, pos) != 0 || messageImprint.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1Pkcs7request::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1Pkcs7request", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  if (!readHeader(in, kTagContext3) || !readHeader(in, kTagSequence)) return -1;
  if (version.setDER(buffer, pos, end) != 0) return -1;
  return messageImprint.setDER(buffer, pos, end);
}

// ---- CAsn1CertRequest

unsigned int CAsn1CertRequest::choiceLength() {
  return mode == 1 ? first.getSize() : first.getSize() + second.getSize();
}

unsigned int CAsn1CertRequest::getSize() {
  Log log("CAsn1CertRequest", "getSize", __FILE__, __LINE__, 13);
  if (mode != 1 && mode != 2) return 0;
  return wrapped(wrapped(sizeof kVersionOne + wrapped(choiceLength())));
}

int CAsn1CertRequest::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1CertRequest", "getDER", __FILE__, __LINE__, 13);
  if (mode != 1 && mode != 2) return -1;
  unsigned int start = *pos;
  unsigned int choice = choiceLength();
  unsigned int inner = sizeof kVersionOne + wrapped(choice);
  DerWriter out(buffer, pos);
  writeHeader(out, kTagContext2, wrapped(inner));
  writeHeader(out, kTagSequence, inner);
  out.bytes(kVersionOne, sizeof kVersionOne);
  writeHeader(out, mode == 1 ? kTagContext0 : kTagSequence, choice);
  if (first.getDER(buffer, pos) != 0) return -1;
  if (mode == 2 && second.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1CertRequest::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1CertRequest", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  if (!readHeader(in, kTagContext2) || !readHeader(in, kTagSequence)) return -1;
  if (version.setDER(buffer, pos, end) != 0) return -1;
  unsigned char tag = 0;
  if (!in.need(1)) return -1;
  in.peek(&tag);
  if (tag == kTagContext0) {
    if (!readHeader(in, kTagContext0) || first.setDER(buffer, pos, end) != 0) return -1;
    mode = 1;
    return 0;
  }
  if (tag == kTagSequence) {
    if (!readHeader(in, kTagSequence) || first.setDER(buffer, pos, end) != 0 ||
        second.setDER(buffer, pos, end) != 0) {
      return -1;
    }
    mode = 2;
    return 0;
  }
  return -1;
}
