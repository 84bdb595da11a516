#include "der/CAsn1size.h"

#include <cassert>

#include "base/Log.h"
#include "der/Der.h"

int CAsn1size::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1size", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  DerWriter out(buffer, pos);
  out.length(value);
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1size::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1size", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  return in.readLengthValue(&value) ? 0 : -1;
}

unsigned int CAsn1size::getSize() {
  Log log("CAsn1size", "getSize", __FILE__, __LINE__, 13);
  return derLengthSize(value);
}
