// TsaPki: the throwaway certificates of the test Timestamp Server.
//
// A self-signed CA, a timestamping certificate (critical extended key usage
// timeStamping) and a TLS server certificate for localhost / 127.0.0.1 / ::1,
// both signed by the CA. They are created in a directory, or loaded from it when
// an earlier run left them there, so several server processes can share one CA.
// Keys are written unencrypted: nothing here is meant to protect anything.
#ifndef TOOLS_TESTTSA_TSAPKI_H_
#define TOOLS_TESTTSA_TSAPKI_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace testtsa {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;

struct TsaPki {
  X509Ptr caCert;
  EvpPkeyPtr caKey;
  X509Ptr tsaCert;
  EvpPkeyPtr tsaKey;
  X509Ptr tlsCert;
  EvpPkeyPtr tlsKey;
  // PEM files in the directory (certificates; keys sit beside them as *-key.pem).
  std::string caFile;
  std::string tsaCertFile;
  std::string tlsCertFile;
};

// Loads the six PEM files from dir, or creates and writes all of them when any
// is missing. Returns false with a reason in *error.
bool loadOrCreatePki(const std::string& dir, TsaPki* pki, std::string* error);

// OpenSSL's error queue as one line of text (empty when the queue is empty); clears it.
std::string openSslErrorText();

}  // namespace testtsa

#endif  // TOOLS_TESTTSA_TSAPKI_H_
