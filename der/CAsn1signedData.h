// CAsn1signedData: the SignedData content of a timestamp token.
// ASN.1: [0] EXPLICIT SignedData ::= SEQUENCE { version INTEGER,
//   digestAlgorithms SET OF AlgorithmIdentifier, encapContentInfo
//   EncapsulatedContentInfo, certificates [0] IMPLICIT CertificateSet OPTIONAL,
//   crls [1] IMPLICIT OPTIONAL, signerInfos SET OF SignerInfo }
//
// What is kept of it: the last digest algorithm of the SET, the encapsulated
// content, up to 20 certificates (owned, in order), and the first signer.
// CRLs and other certificate choices are skipped and not written back.
// A value type: copies re-decode the certificates.
#ifndef DER_CASN1SIGNEDDATA_H_
#define DER_CASN1SIGNEDDATA_H_

#include <memory>
#include <vector>

#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1contentInfo.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1object.h"
#include "der/CAsn1signerInfo.h"
#include "der/CCertInfo.h"

class CAsn1signedData : public CAsn1object {
 public:
  static constexpr unsigned int kMaxCertificates = 20;

  CAsn1signedData();
  CAsn1signedData(const CAsn1signedData& other);
  CAsn1signedData& operator=(const CAsn1signedData& other);
  ~CAsn1signedData() override;

  // A0, length, 30, length, the members; the certificates only when there are any.
  int getDER(DerWriter& out) const override;
  // Starts at the [0] EXPLICIT tag of the ContentInfo's content.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // Certificate i (0..19), or null.
  CCertInfo* getCert(unsigned int i) const;
  unsigned int certCount() const { return static_cast<unsigned int>(certs_.size()); }
  // Appends a copy of cert; -1 when 20 are there already or cert holds nothing.
  int addCert(const CCertInfo& cert);
  // Frees all certificates: the token is then written without them.
  void removeCerts() { certs_.clear(); }

  CAsn1integer version{3};
  CAsn1algorithmIdentifier digestAlgorithm;
  CAsn1contentInfo encapContent;
  CAsn1signerInfo signerInfo;

 private:
  int readCertificates(const unsigned char* buffer, unsigned int* pos, unsigned int end);

  std::vector<std::unique_ptr<CCertInfo>> certs_;
};

#endif  // DER_CASN1SIGNEDDATA_H_
