#include "der/CAsn1issuerSerial.h"

#include <cassert>

#include "base/Log.h"

unsigned int CAsn1issuerSerial::getSize() {
  Log log("CAsn1issuerSerial", "getSize", __FILE__, __LINE__, 13);
  unsigned int length = issuer.getSize() + serial.getSize();
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

int CAsn1issuerSerial::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1issuerSerial", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  DerWriter out(buffer, pos);
  out.octet(kTagSequence);
  out.length(static_cast<int>(issuer.getSize() + serial.getSize()));
  if (issuer.getDER(buffer, pos) != 0 || serial.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1issuerSerial::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1issuerSerial", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&length)) return -1;
  if (issuer.setDER(buffer, pos, end) != 0) return -1;
  return serial.setDER(buffer, pos, end);
}
