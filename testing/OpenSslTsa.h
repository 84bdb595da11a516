// OpenSslTsa: a throwaway Timestamp Authority built on OpenSSL's own TSA code
// (TS_RESP_CTX), for tests and test peers that need real RFC 3161 responses
// made independently of our DER classes.
//
// One object holds a freshly generated CA (self-signed) and a TSA certificate
// issued by it (extendedKeyUsage timeStamping, critical) with its private key,
// RSA or ECDSA. respond() answers a TimeStampReq like an OpenSSL TSA would:
// granted responses with a signed token, or rejection/waiting responses with
// status texts and failure info. inspectResponse() and verifyResponse() report
// what OpenSSL itself reads from a response, to check our decoder against.
//
// No GoogleTest calls here, so a tool can link it too. Not thread-safe; use one
// object per thread. Errors are reported through the error() text and empty
// results, never by exceptions.
#ifndef TESTING_OPENSSLTSA_H_
#define TESTING_OPENSSLTSA_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace testing_support {

// Owners for the OpenSSL objects the fixture hands out.
struct TsaX509Deleter {
  void operator()(X509* x) const { X509_free(x); }
};
struct TsaPkeyDeleter {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using TsaX509Ptr = std::unique_ptr<X509, TsaX509Deleter>;
using TsaPkeyPtr = std::unique_ptr<EVP_PKEY, TsaPkeyDeleter>;

// What one TimeStampReq asks for.
struct TsRequestOptions {
  int hashNid = NID_sha256;     // imprint algorithm
  std::vector<uint8_t> digest;  // empty: the digest of "clockette" with hashNid
  bool certReq = true;          // ask for the signer certificate
  bool withNonce = false;
  std::vector<uint8_t> nonce = {0x01, 0x02, 0x03, 0x04};  // big-endian, positive
  std::string policyOid;                                  // requested policy; empty: none
};

// How the TSA answers.
struct TsResponseOptions {
  // PKIStatus. 0/1 give a signed token; any other status an unsigned answer.
  int status = 0;
  // PKIFreeText strings of a non-granted answer (0, 1 or 2 are typical).
  std::vector<std::string> statusTexts;
  // PKIFailureInfo bit numbers of a non-granted answer (TS_INFO_* values).
  std::vector<int> failureBits;
  uint64_t serial = 0x1234;  // TSTInfo serialNumber
  time_t genTime = 0;        // 0: now
  long genTimeMicros = 0;
  unsigned clockPrecisionDigits = 0;  // fraction digits of genTime (0..6)
  int accuracySeconds = -1;           // -1: no accuracy; else seconds, millis, micros
  int accuracyMillis = 0;
  int accuracyMicros = 0;
  bool ordering = false;
  bool tsaName = false;                 // put the TSA's subject into the token
  bool includeCaCert = false;           // add the CA certificate to the token's certificates
  int signerDigestNid = NID_sha256;     // digest of the SignerInfo
  int essCertIdDigestNid = NID_sha256;  // sha1: signingCertificate, else signingCertificateV2
  // Default policy of the TSA: the one the tool's requester registers.
  std::string policyOid = "1.3.6.1.4.1.7359.1.2";
};

// What OpenSSL reads from a TimeStampResp.
struct TsResponseFacts {
  long status = -1;
  std::vector<std::string> statusTexts;
  std::vector<int> failureBits;  // set bit numbers, ascending
  bool hasToken = false;
  std::string policyOid;  // dotted
  long serial = -1;
  std::string genTime;  // the GeneralizedTime text, e.g. "20240102030405Z"
  int imprintNid = 0;
  std::vector<uint8_t> imprint;
  bool hasNonce = false;
  long nonce = 0;
  bool hasAccuracy = false;
  bool ordering = false;
  bool hasTsaName = false;
  int certificateCount = 0;
  int signerCount = 0;
};

class OpenSslTsa {
 public:
  enum class KeyType { kRsa, kEcdsa };

  // Creates the CA and the TSA certificate (valid from one day ago for a year,
  // unless notBefore/notAfter, seconds since 1970, say otherwise).
  explicit OpenSslTsa(KeyType keyType = KeyType::kRsa, time_t notBefore = 0, time_t notAfter = 0);
  ~OpenSslTsa();
  OpenSslTsa(const OpenSslTsa&) = delete;
  OpenSslTsa& operator=(const OpenSslTsa&) = delete;

  // False when the set-up failed; error() says why.
  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }

  X509* caCert() const { return ca_.get(); }
  X509* tsaCert() const { return tsa_.get(); }
  EVP_PKEY* tsaKey() const { return tsaKey_.get(); }
  std::vector<uint8_t> tsaCertDer() const;
  std::string caCertPem() const;
  std::string tsaCertPem() const;
  std::string tsaKeyPem() const;  // unencrypted PKCS#8
  // Writes ca.pem, tsa.pem and tsa.key into dir. False on an I/O error.
  bool writeFiles(const std::string& dir) const;

  // A DER TimeStampReq.
  static std::vector<uint8_t> makeRequest(const TsRequestOptions& request);
  // The DER TimeStampResp for a DER TimeStampReq; empty on failure (error()).
  std::vector<uint8_t> respond(const std::vector<uint8_t>& requestDer,
                               const TsResponseOptions& response);
  std::vector<uint8_t> respond(const TsRequestOptions& request, const TsResponseOptions& response) {
    return respond(makeRequest(request), response);
  }

  // Verifies a granted response's token against the CA for the request's
  // imprint (signature, certificate chain, imprint, nonce when the request
  // had one). On failure *why holds OpenSSL's error text.
  bool verifyResponse(const std::vector<uint8_t>& responseDer, const TsRequestOptions& request,
                      std::string* why) const;

 private:
  bool setUp(KeyType keyType, time_t notBefore, time_t notAfter);
  bool fail(const std::string& what);

  bool ok_ = false;
  std::string error_;
  TsaPkeyPtr caKey_;
  TsaX509Ptr ca_;
  TsaPkeyPtr tsaKey_;
  TsaX509Ptr tsa_;
};

// The digest of data with the digest of nid; empty for an unknown nid.
std::vector<uint8_t> digestOf(int nid, const std::string& data);

// What OpenSSL reads from responseDer. False (with *why) when OpenSSL cannot
// decode it.
bool inspectResponse(const std::vector<uint8_t>& responseDer, TsResponseFacts* facts,
                     std::string* why);

// OpenSSL's error queue as text (and emptied).
std::string openSslErrors();

}  // namespace testing_support

#endif  // TESTING_OPENSSLTSA_H_
