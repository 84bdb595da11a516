// CCertInfo: one X.509 certificate, as carried in a timestamp token or used by
// the local signer.
//
// The object owns the decoded certificate (X509) and the fields taken out of
// it at load time: issuer, subject, serial number, validity, public key and
// signature algorithm. A certificate that failed to decode or to analyse
// leaves ok() false and every accessor answers "nothing" (empty text, null
// key, negative result). Not thread-safe; distinct objects are independent.
#ifndef DER_CCERTINFO_H_
#define DER_CCERTINFO_H_

#include <openssl/x509.h>

#include <ctime>
#include <string>
#include <vector>

#include "ossl/OpenSslPtr.h"

class CAsn1issuerSerial;
class DerWriter;
class CAsn1time;

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
  // Writes the certificate as PEM. 0 on success, -1 on failure.
  int writePEM(const char* file) const;

  // The certificate's DER, exactly as decoded (or as read from PEM).
  const std::vector<unsigned char>& der() const { return der_; }
  // Octets that getDER writes (0 when nothing is held).
  unsigned int getSize() const { return static_cast<unsigned int>(der_.size()); }
  // Appends the DER to out. 0, or -1 when nothing is held.
  int getDER(DerWriter& out) const;
  // The OpenSSL certificate, owned by this object (null when !ok()).
  X509* x509() const { return cert_.get(); }

  // Issuer and subject in OpenSSL's one-line form ("/C=DE/O=.../CN=...").
  std::string GetIssuerName() const;
  std::string GetSubjectName() const;
  // The serial number's INTEGER contents.
  const std::vector<unsigned char>& GetSerialNumber() const { return serial_; }
  // Fills an IssuerAndSerialNumber: the issuer Name and the serial number as
  // an INTEGER-tagged string. 0, or -1 when nothing is held or the issuer
  // does not decode.
  int GetIssuerAndSerial(CAsn1issuerSerial* out) const;

  // Validity bounds in seconds since 1970 (UTC).
  time_t GetNotBefore() const { return notBefore_; }
  time_t GetNotAfter() const { return notAfter_; }
  // The bounds as certificate times (UTCTime or GeneralizedTime, as they are
  // encoded in the certificate). 0, or -1 when nothing is held.
  int GetTimeNotBefore(CAsn1time* out) const;
  int GetTimeNotAfter(CAsn1time* out) const;
  // The bounds as "YYYY-MM-DD hh:mm:ss GMT" for messages.
  std::string GetTimeNotBeforeText() const;
  std::string GetTimeNotAfterText() const;

  // 4 (RSA), 8 (DSA), or -1 for another key type or no certificate.
  int GetKeyType() const;
  // Size of the public key's modulus (RSA) or prime (DSA) in bytes; -1 when
  // the key is of neither type.
  int GetKeyLength() const;
  // The public key (owned by this object); null when nothing is held.
  EVP_PKEY* GetPublicKey() const { return publicKey_.get(); }
  // A new reference to the public key when it is RSA (resp. DSA), else null.
  EvpPkeyPtr GetRSAPublicKey() const;
  EvpPkeyPtr GetDSApublicKey() const;
  // NID of the certificate's signature algorithm (e.g. sha256WithRSAEncryption),
  // NID_undef when nothing is held.
  int GetSignatureType() const { return signatureNid_; }

  // Digest of the DER certificate with the digest of digestNid into md
  // (room for EVP_MAX_MD_SIZE octets); *length receives the digest size.
  // 0, or -1 for an unknown digest or no certificate.
  int GetFingerprint(int digestNid, unsigned char* md, unsigned int* length) const;
  // The same as upper-case hex pairs separated by ':' ("AB:CD:..."); empty on failure.
  std::string GetFingerprint(int digestNid) const;

  // Checks the certificate's signature with the issuer's public key.
  // 0 when it verifies, -1 when it does not, -2 when nothing is held.
  int VerifyCertSignature(const CCertInfo& issuer) const;
  int VerifyCertSignature(EVP_PKEY* issuerKey) const;

 private:
  // Takes the fields out of cert_; false when one of them is missing.
  bool analyze();
  void clear();

  X509Ptr cert_;
  std::vector<unsigned char> der_;
  std::vector<unsigned char> issuerDer_;
  std::vector<unsigned char> serial_;
  std::string issuerText_;
  std::string subjectText_;
  std::vector<unsigned char> notBeforeDer_;
  std::vector<unsigned char> notAfterDer_;
  time_t notBefore_ = 0;
  time_t notAfter_ = 0;
  EvpPkeyPtr publicKey_;
  int signatureNid_ = NID_undef;
};

#endif  // DER_CCERTINFO_H_
