#include "der/CAsn1messageImprint.h"

#include <cassert>

#include "base/Log.h"

unsigned int CAsn1messageImprint::getSize() {
  Log log("CAsn1messageImprint", "getSize", __FILE__, __LINE__, 13);
  unsigned int length = hashAlgorithm.getSize() + hashedMessage.getSize();
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

int CAsn1messageImprint::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1messageImprint", "getDER", __FILE__, __LINE__, 13);
  unsigned int start = *pos;
  DerWriter out(buffer, pos);
  out.octet(kTagSequence);
  out.length(static_cast<int>(hashAlgorithm.getSize() + hashedMessage.getSize()));
  if (hashAlgorithm.getDER(buffer, pos) != 0 || hashedMessage.getDER(buffer, pos) != 0) return -1;
  assert(*pos - start == getSize());
  (void)start;
  return 0;
}

int CAsn1messageImprint::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1messageImprint", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&length)) return -1;
  if (hashAlgorithm.setDER(buffer, pos, end) != 0) return -1;
  return hashedMessage.setDER(buffer, pos, end);
}
