// TokenCheck: does a Timestamp Server's answer prove what it should?
//
// Given the DER bytes of a TimeStampResp, checkTimestampResponse decodes them
// with our own DER classes (the parser of what we store) and then checks, in
// this order:
//   - the answer is exactly one DER object, nothing after it;
//   - the status is granted (0) or grantedWithMods (1), and a token is there
//     that OpenSSL reads as well;
//   - the token's messageImprint (algorithm and digest) equals the expected
//     one, when one is given; likewise the nonce and the policy;
//   - when the signer certificate is at hand (in the token, or among the
//     untrusted certificates of the trust settings): the SignerInfo signature
//     over the signed attributes, the messageDigest attribute against the
//     TSTInfo bytes, the contentType attribute, and the ESS signingCertificate
//     or signingCertificateV2 hash of that certificate;
//   - with trust anchors: the signer certificate chains to one of them as of
//     the token's genTime and carries the critical extendedKeyUsage
//     timeStamping. With anchors, a signer that cannot be found is refused.
// The cryptography is OpenSSL's (CMS, X509, EVP). The first failing check
// ends the checking and its reason is returned; the facts read so far stay.
//
// Thread-safety: checkTimestampResponse may run on several threads at once,
// also with one shared TokenTrust (read-only after load).
#ifndef TSCLIENT_TOKENCHECK_H_
#define TSCLIENT_TOKENCHECK_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ossl/OpenSslPtr.h"

// Trust settings: anchors (a PEM file or a directory of PEM files) and
// untrusted certificates (a PEM file of signer and intermediate
// certificates for tokens that carry none). Both optional.
class TokenTrust {
 public:
  TokenTrust() = default;
  ~TokenTrust();
  TokenTrust(const TokenTrust&) = delete;
  TokenTrust& operator=(const TokenTrust&) = delete;

  // Loads the anchors from caPath and the certificates from certsPath; an
  // empty path loads nothing. False, with *error, when a named file cannot be
  // read or holds no certificate.
  bool load(const std::string& caPath, const std::string& certsPath, std::string* error);

  bool hasAnchors() const { return store_ != nullptr; }
  X509_STORE* anchors() const { return store_.get(); }
  // Borrowed: lives as long as this object.
  STACK_OF(X509) * untrusted() const { return untrusted_; }

 private:
  X509StorePtr store_;
  STACK_OF(X509) * untrusted_ = nullptr;  // owned, with its certificates
};

// What the caller expects of the token. Unset members are not compared.
struct TokenExpectations {
  // The request's messageImprint: algorithm NID and digest. hashNid 0 = skip.
  int hashNid = 0;
  std::vector<unsigned char> digest;
  // The request's nonce as INTEGER content octets; empty = no nonce asked.
  std::vector<unsigned char> nonce;
  // The requested policy, dotted; empty = any.
  std::string policyOid;
};

// What the answer says, as far as it was read.
struct TokenFacts {
  int status = -1;         // PKIStatus; -1 when the answer did not decode
  std::string statusText;  // first PKIFreeText, if any
  std::string failInfo;    // the set PKIFailureInfo bits by name, "badAlg, badRequest"
  bool hasToken = false;
  std::string genTime;                // "2024-01-02 03:04:05.5 GMT"
  std::string genTimeDer;             // the GeneralizedTime text as sent, "20240102030405.5Z"
  std::string serialHex;              // upper-case hex, "0100"
  std::string tsaName;                // one-line text of the tsa field; empty when absent
  std::string policyOid;              // dotted
  int hashNid = 0;                    // imprint algorithm
  std::vector<unsigned char> digest;  // imprint digest
  std::string nonceHex;               // empty when the token has no nonce
  bool signatureChecked = false;      // signature, messageDigest and ESS hash held
  bool chainChecked = false;          // chain to an anchor and timeStamping usage held
};

struct TokenCheckResult {
  bool ok = false;
  std::string reason;  // why not, one line; empty when ok
  TokenFacts facts;
};

// Checks the DER TimeStampResp in der[0..length). expect and trust may be null.
TokenCheckResult checkTimestampResponse(const unsigned char* der, size_t length,
                                        const TokenExpectations* expect, const TokenTrust* trust);

// Upper-case hex of bytes without separators.
std::string hexOf(const unsigned char* data, size_t length);

#endif  // TSCLIENT_TOKENCHECK_H_
