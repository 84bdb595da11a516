// Fuzz target for the DER decoders of the timestamp library: every input is
// fed to each decoder (each primitive, the composites, the request) as
// if it had come from a Timestamp Server. Whatever decodes is encoded again,
// and getSize() must match what getDER() writes.
//
// Built two ways: with libFuzzer (CLOCKETTE_FUZZ, clang) and, in every build,
// with replay_main.cpp, which feeds the files of the seed corpus.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1bitString.h"
#include "der/CAsn1boolean.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1issuerSerial.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1name.h"
#include "der/CAsn1nameAttribute.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1size.h"
#include "der/CAsn1string.h"
#include "der/CAsn1time.h"
#include "der/Der.h"
#include "der/asn1request.h"
#include "fuzz/DiscardedLog.h"

namespace {

// Decodes data into object; on success encodes it again and checks the size.
void roundTrip(CAsn1object& object, const uint8_t* data, size_t size) {
  unsigned int pos = 0;
  unsigned int end = static_cast<unsigned int>(size);
  if (object.setDER(data, &pos, end) != 0) return;
  if (pos > end) abort();  // read past what it was given
  DerWriter out;
  if (object.getDER(out) == 0 && out.size() != object.getSize()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Every level on, so that each message is formatted too.
  static DiscardedLog quiet(true);
  if (size > 1 << 20) return 0;

  CAsn1size length;
  CAsn1integer integer;
  CAsn1boolean boolean;
  CAsn1oid oid;
  CAsn1string string;
  CAsn1time time;
  CAsn1bitString bits;
  CAsn1algorithmIdentifier algorithm;
  CAsn1messageImprint imprint;
  CAsn1nameAttribute rdn;
  CAsn1name name;
  CAsn1issuerSerial issuerSerial;
  CAsn1IETFrequest ietf;
  CAsn1object* objects[] = {&length,    &integer, &boolean, &oid,  &string,       &time, &bits,
                            &algorithm, &imprint, &rdn,     &name, &issuerSerial, &ietf};
  for (CAsn1object* object : objects) roundTrip(*object, data, size);

  // The text forms that logs and callers use.
  time.displayText();
  time.derText();
  return 0;
}
