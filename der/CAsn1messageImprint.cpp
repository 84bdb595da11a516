#include "der/CAsn1messageImprint.h"

#include "base/Log.h"

int CAsn1messageImprint::getDER(DerWriter& out) const {
  Log log("CAsn1messageImprint", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (hashAlgorithm.getDER(out) != 0 || hashedMessage.getDER(out) != 0) return -1;
  out.close(sequence);
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
