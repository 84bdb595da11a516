// TestCa: a throwaway certificate authority for tests of the local signer.
//
// It generates an RSA CA key and a self-signed CA certificate, and issues
// end-entity certificates for keys that the test made itself (RSA or DSA),
// with chosen validity bounds and, for timestamping, the critical
// extendedKeyUsage timeStamping that verifiers of timestamps require.
// Everything lives in memory; writeCaPem/writeCertPem/writeKeyPem put it into
// files. No GoogleTest calls: a tool can link it too. Failures give null
// pointers or false, and error() says why.
#ifndef TESTING_TESTCA_H_
#define TESTING_TESTCA_H_

#include <ctime>
#include <string>

#include "tstl/OpenSslPtr.h"

namespace testing_support {

// New keys; null on failure. DSA generates its parameters first, which is
// slow for big sizes: tests use 1024 or 2048 bits.
EvpPkeyPtr makeRsaKey(int bits);
EvpPkeyPtr makeDsaKey(int bits);

class TestCa {
 public:
  // Makes the CA (RSA 2048, valid from a day ago for ten years).
  TestCa();
  TestCa(const TestCa&) = delete;
  TestCa& operator=(const TestCa&) = delete;

  bool ok() const { return ca_ != nullptr; }
  const std::string& error() const { return error_; }
  X509* caCert() const { return ca_.get(); }
  EVP_PKEY* caKey() const { return caKey_.get(); }

  // A certificate for subjectKey named CN=commonName, valid from now+from to
  // now+to (seconds), signed by the CA with SHA-256. With timestamping, it
  // carries extendedKeyUsage timeStamping (critical). Null on failure.
  X509Ptr issue(EVP_PKEY* subjectKey, const std::string& commonName, long from, long to,
                bool timestamping = true);

  bool writeCaPem(const std::string& path) const { return writeCertPem(ca_.get(), path); }
  static bool writeCertPem(X509* cert, const std::string& path);
  // An unencrypted PEM private key (PKCS#8).
  static bool writeKeyPem(EVP_PKEY* key, const std::string& path);

 private:
  long nextSerial_ = 1000;
  std::string error_;
  EvpPkeyPtr caKey_;
  X509Ptr ca_;
};

}  // namespace testing_support

#endif  // TESTING_TESTCA_H_
