// TokenMaker: signs timestamp tokens in the shapes real Timestamp Servers
// send, with OpenSSL's CMS code (independent of our DER classes): any serial
// length, RSA PKCS#1 v1.5, RSA-PSS and ECDSA P-256/P-384/P-521 signers,
// signingCertificate or signingCertificateV2, with or without the signer
// certificate, a nonce, a tsa name, and a broken signature on request.
//
// The signers are certificates of one TestCa (critical extendedKeyUsage
// timeStamping unless asked otherwise), made on first use and kept. No
// GoogleTest calls; not thread-safe.
#ifndef TESTING_TOKENMAKER_H_
#define TESTING_TOKENMAKER_H_

#include <openssl/obj_mac.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "testing/TestCa.h"

namespace testing_support {

enum class SignerKey { kRsa, kRsaPss, kEc256, kEc384, kEc521 };

struct TokenShape {
  SignerKey key = SignerKey::kRsa;
  int imprintNid = NID_sha256;
  std::vector<uint8_t> digest;                 // empty: the digest of "clockette"
  std::vector<uint8_t> serial = {0x01, 0x00};  // INTEGER content octets
  std::vector<uint8_t> nonce;                  // INTEGER content octets; empty: none
  std::string policyOid = "1.3.6.1.4.1.7359.1.2";
  time_t genTime = 0;  // 0: now
  bool tsaName = false;
  int signerDigestNid = NID_sha256;
  bool essV1 = false;       // signingCertificate (SHA-1) instead of signingCertificateV2
  bool essNamesCa = false;  // the ESS attribute names the CA certificate, not the signer
  bool includeSigner = true;
  bool flipSignature = false;     // flip one bit of the signature value
  bool timestampingUsage = true;  // the signer certificate's extendedKeyUsage
  long signerFrom = -86400;       // signer validity, seconds from now
  long signerTo = 365L * 86400;
};

class TokenMaker {
 public:
  TokenMaker() = default;
  TokenMaker(const TokenMaker&) = delete;
  TokenMaker& operator=(const TokenMaker&) = delete;

  const std::string& error() const { return error_; }
  TestCa& ca() { return ca_; }

  // A granted DER TimeStampResp with a token of that shape; empty on failure.
  std::vector<uint8_t> response(const TokenShape& shape);
  // The signer certificate that response(shape) signs with.
  X509* signer(const TokenShape& shape);

 private:
  struct Signer {
    EvpPkeyPtr key;
    X509Ptr cert;
  };
  Signer* signerFor(const TokenShape& shape);
  bool fail(const std::string& what);

  TestCa ca_;
  std::map<std::string, Signer> signers_;
  std::string error_;
};

// A TimeStampResp of status 0 around a DER token.
std::vector<uint8_t> grantedResponse(const std::vector<uint8_t>& token);

}  // namespace testing_support

#endif  // TESTING_TOKENMAKER_H_
