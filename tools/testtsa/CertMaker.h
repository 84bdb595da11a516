// CertMaker: throwaway keys and certificates for the test Timestamp Server,
// the local signer's server and the tests that need a certificate authority.
//
// Every certificate is made by makeCertificate() from a role, so a root CA, an
// intermediate CA, a timestamping signer (critical extendedKeyUsage
// timeStamping, which verifiers of timestamps demand), a signer without that
// usage and a TLS server certificate for localhost all come from one place.
// Keys are written unencrypted: nothing here is meant to protect anything.
// Failures give null pointers or false; OpenSSL's error queue says why.
#ifndef TOOLS_TESTTSA_CERTMAKER_H_
#define TOOLS_TESTTSA_CERTMAKER_H_

#include <initializer_list>
#include <string>

#include "ossl/OpenSslPtr.h"

namespace testtsa {

enum class KeyKind { kRsa, kRsaPss, kEc256, kEc384, kEc521, kDsa };

// The signer keys the server offers: "rsa", "rsa-pss", "ec256", "ec384".
// Returns false for any other name.
bool parseKeyKind(const std::string& name, KeyKind* kind);
const char* keyKindName(KeyKind kind);

// A new key; RSA and DSA have 2048 bits (DSA makes its parameters first,
// which takes a few seconds).
EvpPkeyPtr generateKey(KeyKind kind);

enum class CertRole {
  kRootCa,          // self-signed
  kIntermediateCa,  // a CA that issues end entities only
  kTimestamping,    // critical extendedKeyUsage timeStamping
  kSigner,          // a signing certificate without any extendedKeyUsage
  kTls,             // serverAuth for localhost, 127.0.0.1 and ::1
};

// What a certificate is to say: its name, its role (which sets its extensions),
// its serial and its validity relative to now.
struct CertOrder {
  std::string commonName;
  CertRole role = CertRole::kTimestamping;
  long serial = 1;
  int serialBytes = 0;      // >0: a random positive serial of exactly this many octets
  long notBefore = -86400;  // seconds from now
  long notAfter = 3650L * 86400;
};

// A certificate for key named O=clockette test, CN=commonName, signed with
// SHA-256 by issuer/issuerKey, or by key itself for a root CA.
X509Ptr makeCertificate(const CertOrder& order, EVP_PKEY* key, X509* issuer = nullptr,
                        EVP_PKEY* issuerKey = nullptr);

X509Ptr readCertificate(const std::string& path);
EvpPkeyPtr readKey(const std::string& path);
// PEM files; the key as unencrypted PKCS#8, readable by its owner only.
bool writeCertificates(const std::string& path, std::initializer_list<X509*> certs);
bool writeKey(const std::string& path, EVP_PKEY* key);

// A root CA in memory (RSA, valid from a day ago for ten years) that issues
// certificates for keys made elsewhere.
class CertAuthority {
 public:
  CertAuthority();
  CertAuthority(const CertAuthority&) = delete;
  CertAuthority& operator=(const CertAuthority&) = delete;

  bool ok() const { return cert_ != nullptr; }
  X509* caCert() const { return cert_.get(); }
  EVP_PKEY* caKey() const { return key_.get(); }
  bool writeCaPem(const std::string& path) const { return writeCertificates(path, {caCert()}); }

  // A certificate for subjectKey valid from now+from to now+to (seconds):
  // timestamping, or a plain signer without the usage. Null on failure.
  X509Ptr issue(EVP_PKEY* subjectKey, const std::string& commonName, long from, long to,
                bool timestamping = true);

 private:
  long nextSerial_ = 1000;
  EvpPkeyPtr key_;
  X509Ptr cert_;
};

}  // namespace testtsa

#endif  // TOOLS_TESTTSA_CERTMAKER_H_
