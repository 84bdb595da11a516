#include "der/CAsn1ietfTSResp.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <cstdio>
#include <memory>

#include "base/Log.h"
#include "der/CAsn1attribute.h"
#include "der/CAsn1signedData.h"
#include "der/CCertInfo.h"
#include "der/TokenDer.h"
#include "ossl/OpenSslErrors.h"
#include "ossl/OpenSslPtr.h"

namespace {

const char* shortName(int nid) {
  const char* sn = OBJ_nid2sn(nid);
  return sn != nullptr ? sn : "";
}

std::string gmtText(time_t t) {
  struct tm tm = {};
  gmtime_r(&t, &tm);
  char text[64];
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d GMT", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return text;
}

}  // namespace

int CAsn1ietfTSResp::getDER(DerWriter& out) const {
  Log log("CAsn1ietfTSResp", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (statusInfo.getDER(out) != 0) return -1;
  if (tokenPresent_ && token_.getDER(out) != 0) return -1;
  out.close(sequence);
  return 0;
}

int CAsn1ietfTSResp::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1ietfTSResp", "setDER", __FILE__, __LINE__, 13);
  tokenPresent_ = false;
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagSequence) || !readTokenLength(in, &length)) return -1;
  const unsigned int responseEnd = *pos + length;
  if (statusInfo.setDER(buffer, pos, responseEnd) != 0) return -1;

  DerReader rest(buffer, pos, responseEnd);
  unsigned char tag = 0;
  if (!rest.peek(&tag) || tag != kTagSequence) return 0;
  unsigned int ahead = *pos + 1;
  DerReader tokenHeader(buffer, &ahead, responseEnd);
  int tokenLength = 0;
  if (!tokenHeader.readLengthValue(&tokenLength)) {
    log.msg(__LINE__, 2, "DER size decoding-error at pos %d.", static_cast<int>(*pos + 1));
    return -1;
  }
  if (static_cast<unsigned long long>(ahead) + static_cast<unsigned int>(tokenLength) >
      responseEnd) {
    log.msg(__LINE__, 9, "token of %u bytes runs past the response: not decoded",
            static_cast<unsigned int>(tokenLength));
    return 0;
  }
  if (token_.setDER(buffer, pos, responseEnd) != 0) return -1;
  attributesPending_ = false;
  if (token_.contentNid() != NID_pkcs7_signed) {
    log.msg(__LINE__, 2, "Sub contentType = %d(%s), expected %d(%s)", token_.contentNid(),
            shortName(token_.contentNid()), NID_pkcs7_signed, shortName(NID_pkcs7_signed));
    return -1;
  }
  tokenPresent_ = true;
  const CAsn1signedData* signedData = token_.signedData();
  if (signedData == nullptr) return 0;
  signerInfo_ = signedData->signerInfo;
  issuerSerial_ = signerInfo_.issuerSerial;
  const int encapNid = signedData->encapContent.contentNid();
  if (encapNid != tstInfoNid()) {
    log.msg(__LINE__, 2, "Sub contentType = %d(%s), expected %d(%s)", encapNid, shortName(encapNid),
            tstInfoNid(), shortName(tstInfoNid()));
    return -1;
  }
  if (const CAsn1TSTInfo* tstInfo = signedData->encapContent.tstInfo()) tstInfo_ = *tstInfo;
  return 0;
}

CCertInfo* CAsn1ietfTSResp::getCert(unsigned int i) const {
  const CAsn1signedData* signedData = token_.signedData();
  if (i >= kMaxCertificates || signedData == nullptr) return nullptr;
  return signedData->getCert(i);
}

unsigned int CAsn1ietfTSResp::getCertCount() const {
  const CAsn1signedData* signedData = token_.signedData();
  return signedData != nullptr ? signedData->certCount() : 0;
}

int CAsn1ietfTSResp::removeCerts() {
  Log log("CAsn1ietfTSResp", "removeCerts", __FILE__, __LINE__, 13);
  CAsn1signedData* signedData = token_.signedData();
  if (signedData == nullptr) return -1;
  signedData->removeCerts();
  return 0;
}

int CAsn1ietfTSResp::setSignature(int pkeyType, const unsigned char* signature, unsigned int length,
                                  int digestNid) {
  Log log("CAsn1ietfTSResp", "setSignature", __FILE__, __LINE__, 13);
  if (signerInfo_.setSignature(pkeyType, signature, length, digestNid) != 0) return -1;
  auto signedData = std::make_unique<CAsn1signedData>();
  signedData->digestAlgorithm = signerInfo_.digestAlgorithm;
  signedData->encapContent.setContent(tstInfoNid(), std::make_unique<CAsn1TSTInfo>(tstInfo_));
  signedData->signerInfo = signerInfo_;
  token_.setContent(NID_pkcs7_signed, std::move(signedData));
  tokenPresent_ = true;
  return 0;
}

CAsn1string CAsn1ietfTSResp::getDigestAttrib() const {
  const CAsn1attribute* digest = signerInfo_.signedAttributes.find(NID_pkcs9_messageDigest);
  if (digest != nullptr && digest->stringValue() != nullptr) return *digest->stringValue();
  return CAsn1string(kTagOctetString);
}

int CAsn1ietfTSResp::getIETF_TBSbuf(CAsn1string* out) {
  Log log("CAsn1ietfTSResp", "getIETF_TBSbuf", __FILE__, __LINE__, 13);
  return tstInfo_.toBeHashedBuf(out);
}

int CAsn1ietfTSResp::getTBSbuf(CAsn1string* out) {
  Log log("CAsn1ietfTSResp", "getTBSbuf", __FILE__, __LINE__, 13);
  if (attributesPending_) {
    if (!hashSet_ || !timeSet_ || !certRefSet_ || !policySet_ || !serialSet_) {
      log.msg(__LINE__, 2,
              "ToBeSigned buffer can not be created because at least one member has not been "
              "configured");
      log.msg(__LINE__, 9, "Hash %d, Time %d, CertRef %d, Policy %d, SerialNo %d", hashSet_,
              timeSet_, certRefSet_, policySet_, serialSet_);
      return -1;
    }
    CAsn1string tstInfo;
    if (tstInfo_.toBeHashedBuf(&tstInfo) != 0) return -1;
    CAsn1attributes& attributes = signerInfo_.signedAttributes;
    attributes.clear();
    attributes.add(CAsn1attribute::contentType(tstInfoNid()));
    attributes.add(CAsn1attribute::signingTime(genTime_));
    attributes.add(
        CAsn1attribute::stringValue(NID_pkcs9_messageDigest, hashAsn1string(tstInfo, digestNid_)));
    attributesPending_ = false;
  }
  return signerInfo_.signedAttributes.getToBeHashedSequence(out);
}

int CAsn1ietfTSResp::addRefFromCert(const CCertInfo& cert, bool ignoreValidityDates) {
  Log log("CAsn1ietfTSResp", "addRefFromCert", __FILE__, __LINE__, 13);
  if (!ignoreValidityDates) {
    if (genTime_ < cert.GetNotBefore()) {
      log.msg(__LINE__, 7, "Certificate is no valid yet. VNB: %s - Now: %s",
              cert.GetTimeNotBeforeText().c_str(), gmtText(genTime_).c_str());
      return -1;
    }
    if (genTime_ > cert.GetNotAfter()) {
      log.msg(__LINE__, 7, "Certificate has expired. VNA: %s - Now: %s",
              cert.GetTimeNotAfterText().c_str(), gmtText(genTime_).c_str());
      return -1;
    }
  }
  CAsn1issuerSerial issuerSerial;
  if (cert.GetIssuerAndSerial(&issuerSerial) != 0) return -1;
  issuerSerial_ = issuerSerial;
  signerInfo_.issuerSerial = issuerSerial;
  certRefSet_ = true;
  return 0;
}

void CAsn1ietfTSResp::setMessageImprint(const CAsn1messageImprint& imprint) {
  tstInfo_.messageImprint = imprint;
  hashSet_ = true;
}

void CAsn1ietfTSResp::setGenTime(time_t when) {
  struct tm tm = {};
  gmtime_r(&when, &tm);
  CAsn1time& t = tstInfo_.genTime;
  t.type = CAsn1time::kGeneralizedTime;
  t.year = tm.tm_year + 1900;
  t.month = tm.tm_mon + 1;
  t.day = tm.tm_mday;
  t.hour = tm.tm_hour;
  t.minute = tm.tm_min;
  t.second = tm.tm_sec;
  t.tzHours = 0;
  t.tzMinutes = 0;
  t.fraction = 0;
  genTime_ = when;
  timeSet_ = true;
}

void CAsn1ietfTSResp::setPolicy(int nid) {
  tstInfo_.policy.nid = nid;
  policySet_ = true;
}

void CAsn1ietfTSResp::setSerialNumber(int serial) {
  tstInfo_.serialNumber.setValue(static_cast<uint64_t>(static_cast<unsigned int>(serial)));
  serialSet_ = true;
}

CAsn1string hashAsn1string(const CAsn1string& string, int nid) {
  Log log("asn1ietf", "hashAsn1string", __FILE__, __LINE__, 13);
  const char* name = OBJ_nid2sn(nid);
  const EVP_MD* md = name != nullptr ? EVP_get_digestbyname(name) : nullptr;
  if (md == nullptr) {
    log.msg(__LINE__, 2, "can't get a digest EVP for NID %d", nid);
    return CAsn1string(kTagOctetString);
  }
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx) {
    log.msg(__LINE__, 2, "Allocation of digest context failed");
    return CAsn1string(kTagOctetString);
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), string.data(), string.length()) != 1 ||
      EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) {
    logOpenSslErrorQueue("asn1ietf", "hashAsn1string");
    return CAsn1string(kTagOctetString);
  }
  return CAsn1string(kTagOctetString, digest, length);
}
