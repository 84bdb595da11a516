// TokenMaker: the in-process test TSA. Answers with the test Timestamp
// Server's own token maker (OpenSSL's TS and CMS code, independent of our DER
// classes), for a request it makes from a TokenShape: any serial, key type,
// status, ESS attribute and the broken shapes, with fixed fields that tests
// compare against.
//
// The signers are certificates of one CA (critical extendedKeyUsage
// timeStamping unless asked otherwise), made on first use and kept. Not
// thread-safe.
#ifndef TESTING_TOKENMAKER_H_
#define TESTING_TOKENMAKER_H_

#include <openssl/obj_mac.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/testtsa/CertMaker.h"
#include "tools/testtsa/TokenMaker.h"
#include "tools/testtsa/TsaPki.h"

namespace testing_support {

using SignerKey = testtsa::KeyKind;

// The server's shape with the request side added, and defaults that the
// tests compare against: a fixed serial 01 00, no accuracy, signingCertificateV2.
struct TokenShape : testtsa::TokenShape {
  TokenShape() {
    policyOid = "1.3.6.1.4.1.7359.1.2";
    serial = {0x01, 0x00};  // INTEGER content octets
    accuracy = false;
    ess = testtsa::EssCertId::kV2;
  }
  SignerKey key = SignerKey::kRsa;
  int imprintNid = NID_sha256;
  std::vector<uint8_t> digest;    // empty: the digest of "clockette"
  std::vector<uint8_t> nonce;     // INTEGER content octets; empty: none
  bool includeSigner = true;      // certReq: the token carries the signer and the CA
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
  testtsa::CertAuthority& ca() { return ca_; }

  // The DER TimeStampResp for a token of that shape; empty on failure.
  std::vector<uint8_t> response(const TokenShape& shape);
  // The signer certificate that response(shape) signs with.
  X509* signer(const TokenShape& shape);

 private:
  testtsa::Signer* signerFor(const TokenShape& shape);

  testtsa::CertAuthority ca_;
  std::map<std::string, testtsa::Signer> signers_;
  std::string error_;
};

// The digest of data with the digest of nid; empty for an unknown nid.
std::vector<uint8_t> digestOf(int nid, const std::string& data);

}  // namespace testing_support

#endif  // TESTING_TOKENMAKER_H_
