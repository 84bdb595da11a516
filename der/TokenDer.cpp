#include "der/TokenDer.h"

#include <openssl/objects.h>

#include "base/Log.h"
#include "ossl/OpenSslErrors.h"

namespace {
constexpr char kTstInfoOid[] = "1.2.840.113549.1.9.16.1.4";
}

int tstInfoNid() {
  Log log("asn1pkcs7", "tstInfoNid", __FILE__, __LINE__, 13);
  // A constant of the process, worked out at first use: OpenSSL's object
  // table (itself process-wide) never drops an entry, so the NID found or
  // registered then stays the TSTInfo NID until the process ends.
  static const int nid = [] {
    int n = OBJ_txt2nid(kTstInfoOid);
    if (n == NID_undef) n = OBJ_create(kTstInfoOid, "TSTInfo", "id-smime-ct-TSTInfo");
    if (n == NID_undef) logOpenSslErrorQueue("asn1pkcs7", "tstInfoNid");
    return n;
  }();
  return nid;
}

bool readTokenLength(DerReader& in, unsigned int* length) {
  Log log("asn1pkcs7", "readTokenLength", __FILE__, __LINE__, 13);
  const unsigned int at = in.pos();
  if (in.readLength(length)) return true;
  log.msg(__LINE__, 2, "DER size decoding-error at pos %d.", static_cast<int>(at));
  return false;
}
