// CCertInfo: one X.509 certificate, as carried in a timestamp token or used by
// the local signer.
//
// The object owns the decoded certificate (X509) and the fields taken out of
// it at load time: issuer, subject, serial number, validity and public key.
// A certificate that failed to decode or to analyse leaves ok() false and
// every accessor answers "nothing" (empty text, null key, negative result).
// Not thread-safe; distinct objects are independent.
#ifndef DER_CCERTINFO_H_
#define DER_CCERTINFO_H_

#include <openssl/x509.h>

#include <ctime>
#include <string>
#include <vector>

#include "ossl/OpenSslPtr.h"

class CAsn1issuerSerial;
class DerWriter;

class CCertInfo {
 public:
  // An empty object, to be filled by readPEM.
  CCertInfo();
  // Decodes the complete DER encoding of a Certificate (tag, length,
  // contents) from der[0..length). ok() says whether that worked.
  CCertInfo(const unsigned char* der, unsigned int length);
  ~CCertInfo();
  CCertInfo(const CCertInfo&) = delete;
  CCertInfo& operator=(const CCertInfo&) = delete;

  // The success flag: a certificate is held and its fields were analysed.
  bool ok() const { return cert_ != nullptr; }

  // Loads a PEM certificate file, replacing what was held. 0 on success;
  // -1 when the file cannot be opened, -2 when it holds no certificate,
  // -3 when its fields cannot be analysed.
  int readPEM(const char* file);

  // The certificate's DER, exactly as decoded (or as read from PEM).
  const std::vector<unsigned char>& der() const { return der_; }
  // Octets that getDER writes (0 when nothing is held).
  unsigned int getSize() const { return static_cast<unsigned int>(der_.size()); }
  // Appends the DER to out. 0, or -1 when nothing is held.
  int getDER(DerWriter& out) const;
  // The OpenSSL certificate, owned by this object (null when !ok()).
  X509* x509() const { return cert_.get(); }

  // The subject in OpenSSL's one-line form ("/C=DE/O=.../CN=...").
  std::string GetSubjectName() const;
  // Fills an IssuerAndSerialNumber: the issuer Name and the serial number as
  // an INTEGER-tagged string. 0, or -1 when nothing is held or the issuer
  // does not decode.
  int GetIssuerAndSerial(CAsn1issuerSerial* out) const;

  // Validity bounds in seconds since 1970 (UTC).
  time_t GetNotBefore() const { return notBefore_; }
  time_t GetNotAfter() const { return notAfter_; }
  // The bounds as "YYYY-MM-DD hh:mm:ss GMT" for messages.
  std::string GetTimeNotBeforeText() const;
  std::string GetTimeNotAfterText() const;

  // A new reference to the public key when it is RSA (resp. DSA), else null.
  EvpPkeyPtr GetRSAPublicKey() const;
  EvpPkeyPtr GetDSApublicKey() const;

 private:
  // Takes the fields out of cert_; false when one of them is missing.
  bool analyze();
  void clear();

  X509Ptr cert_;
  std::vector<unsigned char> der_;
  std::vector<unsigned char> issuerDer_;
  std::vector<unsigned char> serial_;
  std::string subjectText_;
  time_t notBefore_ = 0;
  time_t notAfter_ = 0;
  EvpPkeyPtr publicKey_;
};

#endif  // DER_CCERTINFO_H_
