#include "der/CAsn1boolean.h"

#include "base/Log.h"
#include "der/Der.h"

int CAsn1boolean::getDER(DerWriter& out) const {
  Log log("CAsn1boolean", "getDER", __FILE__, __LINE__, 13);
  out.octet(kTagBoolean);
  out.octet(0x01);
  out.octet(value > 0 ? 0xFF : 0x00);
  log.msg(__LINE__, 9, "serialized BOOLEAN %s", value > 0 ? "true" : "false");
  return 0;
}

int CAsn1boolean::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1boolean", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  // The length octet is checked like an identifier: exactly one content octet.
  unsigned char content = 0;
  if (!in.expectTag(kTagBoolean) || !in.expectTag(0x01) || !in.readOctet(&content)) return -1;
  value = content != 0 ? 1 : 0;
  log.msg(__LINE__, 9, "deserialized BOOLEAN %s", value ? "true" : "false");
  return 0;
}

unsigned int CAsn1boolean::getSize() const {
  Log log("CAsn1boolean", "getSize", __FILE__, __LINE__, 13);
  return 3;
}
