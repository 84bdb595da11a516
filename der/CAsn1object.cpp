#include "der/CAsn1object.h"

#include "der/Der.h"

unsigned int CAsn1object::getSize() const {
  DerWriter out;
  return getDER(out) == 0 ? out.size() : 0;
}
