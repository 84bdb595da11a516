// TokenMaker: the answer of the test Timestamp Server to one request.
//
// Builds the TSTInfo with OpenSSL's TS types and signs it as CMS SignedData,
// so that every field real servers vary can be chosen: serial numbers of up
// to 20 octets, accuracy, ordering, the TSA name, ESSCertID and/or
// ESSCertIDv2, the signer by issuer and serial or by key identifier, an unsigned attribute,
// fractions of a second in genTime, RSA, RSA-PSS and ECDSA signers; fixed serials and times for
// tests that compare fields, and any status with texts and failure bits. A few deliberate faults
// make tokens that look right but prove nothing (another imprint, a broken
// signature, no certificate, an ESS attribute naming another certificate).
// Requests are judged as OpenSSL's TSA code judges them (version, known
// digest of the right length, policy); a refused request gets a rejection
// with a status text and a failure bit.
//
// Not thread-safe: the caller serialises answer() (serial numbers count up).
#ifndef TOOLS_TESTTSA_TOKENMAKER_H_
#define TOOLS_TESTTSA_TOKENMAKER_H_

#include <openssl/evp.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "tools/testtsa/TsaPki.h"

namespace testtsa {

enum class EssCertId { kV1, kV2, kBoth };

struct TokenShape {
  std::string policyOid = "1.2.3.4.1";
  int serialBytes = 0;  // 0: serials 1, 2, ...; else exactly this many octets (at most 64)
  std::vector<unsigned char> serial;  // content octets of every serial; empty: as serialBytes
  time_t genTime = 0;                 // 0: now
  long genTimeMicros = 0;             // with genTime: its fraction of a second
  bool accuracy = true;
  int accuracySeconds = 1;
  int accuracyMillis = 0;
  int accuracyMicros = 0;
  bool ordering = false;
  bool tsaName = false;  // the signer's subject as directoryName
  EssCertId ess = EssCertId::kV1;
  bool signerByKeyId = false;  // SignerInfo version 3, subjectKeyIdentifier
  bool pssPadding = false;     // an rsaEncryption key signs with RSASSA-PSS
  bool unsignedAttribute = false;
  int fractionDigits = 0;                // of a second in genTime, 0..6
  const EVP_MD* signerDigest = nullptr;  // nullptr: SHA-256
  // PKIStatus of every answer: 0 or 1 with a token, else none; texts and
  // failure bits (PKIFailureInfo bit numbers) go into its PKIStatusInfo.
  int status = 0;
  std::vector<std::string> statusTexts;
  std::vector<int> failureBits;
  // Faults.
  bool otherImprint = false;    // the token covers a digest other than the request's
  bool flipSignature = false;   // one octet of the signature value inverted
  bool noCertificates = false;  // none, even when the request asks for them
  bool essNamesIssuer = false;  // the ESS attribute names the signer's issuer
  int trailingBytes = 0;        // bytes appended after the TimeStampResp
};

class TokenMaker {
 public:
  // signer: borrowed, outlives the maker.
  TokenMaker(const TokenShape& shape, const Signer* signer);

  // The DER TimeStampResp for a DER TimeStampReq; empty with a reason in
  // *error when it cannot be built.
  std::string answer(const std::string& request, std::string* error);

 private:
  std::string grant(const std::string& tstInfo, bool withCertificates, std::string* error);

  TokenShape shape_;
  const Signer* signer_;
  uint32_t counter_ = 0;
  std::vector<unsigned char> serialPrefix_;  // the octets before the counter
};

}  // namespace testtsa

#endif  // TOOLS_TESTTSA_TOKENMAKER_H_
