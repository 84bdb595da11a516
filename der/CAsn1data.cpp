#include "der/CAsn1data.h"

#include "base/Log.h"
#include "der/TokenDer.h"

unsigned int CAsn1data::getSize() {
  Log log("CAsn1data", "getSize", __FILE__, __LINE__, 13);
  return derElementSize(octets.getSize());
}

int CAsn1data::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1data", "getDER", __FILE__, __LINE__, 13);
  DerWriter out(buffer, pos);
  derHeader(out, kTagContext0, octets.getSize());
  return octets.getDER(buffer, pos);
}

int CAsn1data::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1data", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagContext0) || !readTokenLength(in, &length)) return -1;
  return octets.setDER(buffer, pos, *pos + length);
}
