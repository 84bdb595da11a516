// Helpers for DER byte-vector tests: encode an object to hex text, decode hex
// text into an object. Header-only; for tests of der/ only.
#ifndef TESTING_DERTEST_H_
#define TESTING_DERTEST_H_

#include <string>
#include <vector>

#include "der/CAsn1object.h"
#include "der/Der.h"
#include "testing/Hex.h"

namespace testing_support {

// The object's DER as "30 03 02 01 05"; "getDER failed" when it fails.
inline std::string derHex(const CAsn1object& object) {
  DerWriter out;
  if (object.getDER(out) != 0) return "getDER failed";
  const unsigned int size = object.getSize();
  if (out.size() != size) {
    return "getDER wrote " + std::to_string(out.size()) + ", getSize said " + std::to_string(size);
  }
  return toHex(out.data().data(), out.size());
}

// Decodes hex into object from position 0 with the input's end at the last
// byte; stores the final position in *pos when given. Returns setDER's result.
// The bytes live in a vector of exactly their size, so ASan catches any read
// past the end.
inline int setDerHex(CAsn1object& object, const std::string& hex, unsigned int* pos = nullptr) {
  std::vector<uint8_t> bytes = fromHex(hex);
  std::vector<unsigned char> exact(bytes.begin(), bytes.end());
  unsigned int p = 0;
  int rc = object.setDER(exact.empty() ? nullptr : exact.data(), &p,
                         static_cast<unsigned int>(exact.size()));
  if (pos != nullptr) *pos = p;
  return rc;
}

}  // namespace testing_support

#endif  // TESTING_DERTEST_H_
