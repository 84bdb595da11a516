#include "der/CAsn1data.h"

#include "base/Log.h"
#include "der/TokenDer.h"

int CAsn1data::getDER(DerWriter& out) const {
  Log log("CAsn1data", "getDER", __FILE__, __LINE__, 13);
  const size_t explicit0 = out.open(kTagContext0);
  if (octets.getDER(out) != 0) return -1;
  out.close(explicit0);
  return 0;
}

int CAsn1data::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1data", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagContext0) || !readTokenLength(in, &length)) return -1;
  return octets.setDER(buffer, pos, *pos + length);
}
