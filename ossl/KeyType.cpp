#include "ossl/KeyType.h"

#include "base/Log.h"

int keyTypeFromOpenSslId(int id) {
  Log log("KeyType", "keyTypeFromOpenSslId", __FILE__, __LINE__, 13);
  switch (id) {
    case 6:   // rsaEncryption
    case 19:  // rsa (the old X.500 algorithm id)
      return kKeyTypeRsa;
    case 66:   // dsaWithSHA
    case 67:   // dsaEncryption-old
    case 70:   // dsaWithSHA1-old
    case 113:  // dsaWithSHA1
    case 116:  // dsaEncryption
      return kKeyTypeDsa;
    default:
      log.msg(__LINE__, 2, "Unexpected keytype %d", id);
      return -1;
  }
}
