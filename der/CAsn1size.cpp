#include "der/CAsn1size.h"

#include "base/Log.h"
#include "der/Der.h"

int CAsn1size::getDER(DerWriter& out) const {
  Log log("CAsn1size", "getDER", __FILE__, __LINE__, 13);
  out.length(value);
  return 0;
}

int CAsn1size::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1size", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  return in.readLengthValue(&value) ? 0 : -1;
}

unsigned int CAsn1size::getSize() const {
  Log log("CAsn1size", "getSize", __FILE__, __LINE__, 13);
  return derLengthSize(value);
}
