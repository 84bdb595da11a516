// CAsn1ietfTSResp: the RFC 3161 TimeStampResp (module asn1ietf).
// ASN.1: TimeStampResp ::= SEQUENCE { status PKIStatusInfo,
//   timeStampToken TimeStampToken (a ContentInfo of SignedData) OPTIONAL }
//
// Decoding: every Timestamp Server answer goes through setDER; the requester
// accepts it when decoding succeeds and getStatus() is 0 or 1. A granted
// answer without a token is accepted as it came. After a token was decoded,
// copies of its TSTInfo, signer information and the signer's issuer/serial
// are kept for the accessors; the certificates stay in the token.
//
// Encoding (a local signer building its own answer): configure the message
// imprint, generation time, policy, serial number and the signer's
// certificate (addRefFromCert), take getTBSbuf, sign it, hand the signature to
// setSignature (which assembles the token) and encode with getDER.
//
// A value type (copies are deep); not thread-safe.
#ifndef DER_CASN1IETFTSRESP_H_
#define DER_CASN1IETFTSRESP_H_

#include <ctime>
#include <string>

#include "der/CAsn1TSTInfo.h"
#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1contentInfo.h"
#include "der/CAsn1ietfStatusInfo.h"
#include "der/CAsn1issuerSerial.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1signerInfo.h"
#include "der/CAsn1string.h"
#include "der/CAsn1tsToken.h"

class CCertInfo;

class CAsn1ietfTSResp : public CAsn1tsToken {
 public:
  static constexpr unsigned int kMaxCertificates = 20;

  CAsn1ietfTSResp() = default;

  // 30, length, the status info, then the token when one is present.
  int getDER(DerWriter& out) const override;
  // 0 for a status info with or without a well-formed token; -1 for a broken
  // status info, a broken token, or a token that is no SignedData over a
  // TSTInfo ("Sub contentType = %d(%s), expected %d(%s)"). A token whose
  // length runs past the response is ignored.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // PKIStatus and the first status text.
  int getStatus() const { return statusInfo.status.value; }
  std::string getStatusString() const { return statusInfo.statusText(); }
  bool hasToken() const { return tokenPresent_; }
  const CAsn1TSTInfo& getTSTInfo() const { return tstInfo_; }
  const CAsn1contentInfo& getToken() const { return token_; }

  const CAsn1signerInfo& getSigner() const { return signerInfo_; }
  // Empty when the signer is named by key identifier (getSigner().bySubjectKeyId).
  const CAsn1issuerSerial& getSignerIssuerSerial() const { return issuerSerial_; }
  // Certificate i of the token (0..19); null for i >= 20, a token that is no
  // SignedData, or no such certificate.
  CCertInfo* getCert(unsigned int i) const;
  // Certificates in the token (at most 20); 0 when the token is no SignedData.
  unsigned int getCertCount() const;
  // Frees the token's certificates so that getDER writes it without them.
  // -1 when the token is no SignedData.
  int removeCerts();

  // The signature of the signer information.
  CAsn1string getSignature() const { return signerInfo_.signature; }
  // Stores the signature made with a key of OpenSSL type pkeyType over
  // digestNid, and assembles the token (SignedData over the TSTInfo with this
  // signer) so that getDER writes it. 0 or -1.
  int setSignature(int pkeyType, const unsigned char* signature, unsigned int length,
                   int digestNid);

  // The messageDigest signed attribute (NID 51), or an empty string.
  CAsn1string getDigestAttrib() const;
  // The digest algorithm that the signed attributes were hashed with.
  const CAsn1algorithmIdentifier& getDigestAlgAttrib() const { return signerInfo_.digestAlgorithm; }
  // The DER of the TSTInfo SEQUENCE: what the messageDigest attribute covers.
  int getIETF_TBSbuf(CAsn1string* out);
  // The signed attributes as a SET: what the signature covers. While the
  // attributes are still pending (a response being built), all five members
  // must be configured and the contentType, signingTime and messageDigest
  // attributes are added first. 0 or -1.
  int getTBSbuf(CAsn1string* out);

  // Records the signer certificate's issuer and serial number after checking
  // that the generation time lies within its validity (skipped with
  // ignoreValidityDates, for tests with old certificates). 0 or -1.
  int addRefFromCert(const CCertInfo& cert, bool ignoreValidityDates);

  // Members of a response being built.
  void setMessageImprint(const CAsn1messageImprint& imprint);
  // The generation time (also the signing time); GeneralizedTime in UTC.
  void setGenTime(time_t when);
  void setPolicy(int nid);
  void setSerialNumber(int serial);
  // Digest of the signed attributes and of the signature.
  void setDigestNid(int nid) { digestNid_ = nid; }

  CAsn1ietfStatusInfo statusInfo;

 private:
  CAsn1contentInfo token_;
  bool tokenPresent_ = false;
  CAsn1TSTInfo tstInfo_;
  CAsn1signerInfo signerInfo_;
  CAsn1issuerSerial issuerSerial_;
  // Local-signing state: attributes still to be added, and which members
  // have been configured.
  bool attributesPending_ = true;
  bool hashSet_ = false;
  bool timeSet_ = false;
  bool certRefSet_ = false;
  bool policySet_ = false;
  bool serialSet_ = false;
  int digestNid_ = 0;
  time_t genTime_ = 0;
};

// The digest (OpenSSL NID nid) of the string's bytes as an OCTET STRING; an
// empty OCTET STRING when the digest is unknown ("can't get a digest EVP for
// NID %d") or cannot be computed.
CAsn1string hashAsn1string(const CAsn1string& string, int nid);

#endif  // DER_CASN1IETFTSRESP_H_
