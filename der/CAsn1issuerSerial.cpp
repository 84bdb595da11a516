#include "der/CAsn1issuerSerial.h"

#include "base/Log.h"

int CAsn1issuerSerial::getDER(DerWriter& out) const {
  Log log("CAsn1issuerSerial", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (issuer.getDER(out) != 0 || serial.getDER(out) != 0) return -1;
  out.close(sequence);
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
