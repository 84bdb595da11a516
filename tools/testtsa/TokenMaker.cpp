#include "tools/testtsa/TokenMaker.h"

#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/ess.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "ossl/OpenSslErrors.h"

namespace testtsa {
namespace {

template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, ossl::Deleter<T, Free>>;
using TsReqPtr = Owned<TS_REQ, TS_REQ_free>;
using TstInfoPtr = Owned<TS_TST_INFO, TS_TST_INFO_free>;
using ImprintPtr = Owned<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free>;
using AccuracyPtr = Owned<TS_ACCURACY, TS_ACCURACY_free>;
using IntegerPtr = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using TimePtr = Owned<ASN1_GENERALIZEDTIME, ASN1_GENERALIZEDTIME_free>;
using ObjPtr = Owned<ASN1_OBJECT, ASN1_OBJECT_free>;
using NamePtr = Owned<GENERAL_NAME, GENERAL_NAME_free>;
using CmsPtr = Owned<CMS_ContentInfo, CMS_ContentInfo_free>;
using BioPtr = Owned<BIO, BIO_free_all>;
using StringPtr = Owned<ASN1_STRING, ASN1_STRING_free>;
using EssPtr = Owned<ESS_SIGNING_CERT, ESS_SIGNING_CERT_free>;
using EssV2Ptr = Owned<ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free>;

// PKIFailureInfo bits.
constexpr int kBadAlg = 0;
constexpr int kBadDataFormat = 5;
constexpr int kUnacceptedPolicy = 15;

// An attribute type of our own (a UUID OID, free for anybody to use).
constexpr const char* kUnsignedAttributeOid = "2.25.238712540498163374263271346417419402539";

std::string tlv(unsigned char tag, const std::string& content) {
  std::string out(1, static_cast<char>(tag));
  size_t n = content.size();
  if (n < 0x80) {
    out += static_cast<char>(n);
  } else {
    std::string length;
    for (; n > 0; n >>= 8) length.insert(length.begin(), static_cast<char>(n & 0xFF));
    out += static_cast<char>(0x80 | length.size());
    out += length;
  }
  return out + content;
}

// PKIStatusInfo with its texts and failure bits (none for empty lists).
std::string statusInfo(int status, const std::vector<std::string>& texts,
                       const std::vector<int>& failureBits) {
  std::string content = tlv(0x02, std::string(1, static_cast<char>(status)));
  std::string freeText;
  for (const std::string& text : texts) freeText += tlv(0x0C, text);
  if (!texts.empty()) content += tlv(0x30, freeText);
  int last = -1;
  for (int bit : failureBits) last = std::max(last, bit);
  if (last >= 0) {
    std::string bits(static_cast<size_t>(last / 8 + 1), '\0');
    for (int bit : failureBits) bits[bit / 8] = static_cast<char>(bits[bit / 8] | 0x80 >> bit % 8);
    content += tlv(0x03, static_cast<char>(7 - last % 8) + bits);
  }
  return tlv(0x30, content);
}

std::string rejection(const std::string& text, int failureBit) {
  return tlv(0x30, statusInfo(TS_STATUS_REJECTION, {text}, {failureBit}));
}

// A GeneralizedTime text with digits fractional digits, trailing zeros
// dropped as DER wants them.
std::string generalizedTime(timespec at, int digits) {
  tm t;
  gmtime_r(&at.tv_sec, &t);
  char text[40];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
           t.tm_hour, t.tm_min, t.tm_sec);
  std::string out = text;
  if (digits > 0) {
    snprintf(text, sizeof text, "%09ld", at.tv_nsec);
    std::string fraction(text, static_cast<size_t>(digits));
    while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
    if (!fraction.empty()) out += "." + fraction;
  }
  return out + "Z";
}

IntegerPtr integerOf(const std::vector<unsigned char>& bytes) {
  BIGNUM* bn = BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  IntegerPtr out(bn ? BN_to_ASN1_INTEGER(bn, nullptr) : nullptr);
  BN_free(bn);
  return out;
}

std::string derOf(const ASN1_STRING* s) {
  return std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                     static_cast<size_t>(ASN1_STRING_length(s)));
}

// Adds one signed attribute whose value is the DER SEQUENCE der.
bool addSequenceAttribute(CMS_SignerInfo* si, int nid, const unsigned char* der, int len) {
  StringPtr seq(ASN1_STRING_new());
  return seq && ASN1_STRING_set(seq.get(), der, len) == 1 &&
         CMS_signed_add1_attr_by_NID(si, nid, V_ASN1_SEQUENCE, seq.get(), -1) == 1;
}

bool addEssCertIds(CMS_SignerInfo* si, X509* cert, EssCertId ess) {
  if (ess != EssCertId::kV2) {
    EssPtr v1(OSSL_ESS_signing_cert_new_init(cert, nullptr, 1));
    unsigned char* der = nullptr;
    int len = v1 ? i2d_ESS_SIGNING_CERT(v1.get(), &der) : -1;
    bool ok = len > 0 && addSequenceAttribute(si, NID_id_smime_aa_signingCertificate, der, len);
    OPENSSL_free(der);
    if (!ok) return false;
  }
  if (ess != EssCertId::kV1) {
    EssV2Ptr v2(OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), cert, nullptr, 1));
    unsigned char* der = nullptr;
    int len = v2 ? i2d_ESS_SIGNING_CERT_V2(v2.get(), &der) : -1;
    bool ok = len > 0 && addSequenceAttribute(si, NID_id_smime_aa_signingCertificateV2, der, len);
    OPENSSL_free(der);
    if (!ok) return false;
  }
  return true;
}

}  // namespace

TokenMaker::TokenMaker(const TokenShape& shape, const Signer* signer)
    : shape_(shape), signer_(signer) {
  if (shape_.serialBytes > 0) {
    serialPrefix_.resize(static_cast<size_t>(shape_.serialBytes));
    RAND_bytes(serialPrefix_.data(), shape_.serialBytes);
    serialPrefix_[0] = static_cast<unsigned char>(0x40 | (serialPrefix_[0] & 0x3F));
  }
}

std::string TokenMaker::answer(const std::string& request, std::string* error) {
  const auto* p = reinterpret_cast<const unsigned char*>(request.data());
  TsReqPtr req(d2i_TS_REQ(nullptr, &p, static_cast<long>(request.size())));
  if (!req) return rejection("Bad request format or system error.", kBadDataFormat);
  if (shape_.status > TS_STATUS_GRANTED_WITH_MODS) {
    return tlv(0x30, statusInfo(shape_.status, shape_.statusTexts, shape_.failureBits));
  }
  if (TS_REQ_get_version(req.get()) != 1) {
    return rejection("Bad request version.", kBadDataFormat);
  }
  TS_MSG_IMPRINT* imprint = TS_REQ_get_msg_imprint(req.get());
  const ASN1_OBJECT* algorithm = nullptr;
  X509_ALGOR_get0(&algorithm, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
  const EVP_MD* md = EVP_get_digestbyobj(algorithm);
  if (!md) return rejection("Message digest algorithm is not supported.", kBadAlg);
  ASN1_OCTET_STRING* digest = TS_MSG_IMPRINT_get_msg(imprint);
  if (ASN1_STRING_length(digest) != EVP_MD_get_size(md)) {
    return rejection("Bad message digest.", kBadDataFormat);
  }
  ObjPtr policy(OBJ_txt2obj(shape_.policyOid.c_str(), 1));
  ASN1_OBJECT* asked = TS_REQ_get_policy_id(req.get());
  if (!policy || (asked && OBJ_cmp(asked, policy.get()) != 0)) {
    return rejection("Requested policy is not supported.", kUnacceptedPolicy);
  }

  TstInfoPtr tst(TS_TST_INFO_new());
  ImprintPtr covered(TS_MSG_IMPRINT_dup(imprint));
  if (!tst || !covered) return std::string();
  if (shape_.otherImprint) {
    std::string other = derOf(digest);
    other[0] = static_cast<char>(other[0] ^ 0xFF);
    TS_MSG_IMPRINT_set_msg(covered.get(), reinterpret_cast<unsigned char*>(other.data()),
                           static_cast<int>(other.size()));
  }
  ++counter_;
  IntegerPtr serial;
  if (!shape_.serial.empty()) {
    const std::string der = tlv(0x02, std::string(shape_.serial.begin(), shape_.serial.end()));
    const auto* octets = reinterpret_cast<const unsigned char*>(der.data());
    serial.reset(d2i_ASN1_INTEGER(nullptr, &octets, static_cast<long>(der.size())));
  } else if (serialPrefix_.empty()) {
    serial.reset(ASN1_INTEGER_new());
    if (serial) ASN1_INTEGER_set(serial.get(), counter_);
  } else {
    // The counter in the last octets (at most four, never the first), the
    // random prefix before it: unique, positive, exactly serialBytes octets.
    std::vector<unsigned char> octets = serialPrefix_;
    size_t n = octets.size();
    for (size_t i = 0; i < 4 && i + 1 < n; ++i) {
      octets[n - 1 - i] = static_cast<unsigned char>(counter_ >> (8 * i));
    }
    if (n == 1) octets[0] = static_cast<unsigned char>(0x40 | (counter_ & 0x3F));
    serial = integerOf(octets);
  }
  timespec at{shape_.genTime, shape_.genTimeMicros * 1000};
  if (shape_.genTime == 0) clock_gettime(CLOCK_REALTIME, &at);
  TimePtr genTime(ASN1_GENERALIZEDTIME_new());
  if (!serial || !genTime ||
      !ASN1_GENERALIZEDTIME_set_string(genTime.get(),
                                       generalizedTime(at, shape_.fractionDigits).c_str()) ||
      !TS_TST_INFO_set_version(tst.get(), 1) ||
      !TS_TST_INFO_set_policy_id(tst.get(), policy.get()) ||
      !TS_TST_INFO_set_msg_imprint(tst.get(), covered.get()) ||
      !TS_TST_INFO_set_serial(tst.get(), serial.get()) ||
      !TS_TST_INFO_set_time(tst.get(), genTime.get())) {
    *error = "cannot fill the TSTInfo";
    return std::string();
  }
  if (shape_.accuracy) {
    AccuracyPtr accuracy(TS_ACCURACY_new());
    if (!accuracy) return std::string();
    const std::pair<int, int (*)(TS_ACCURACY*, const ASN1_INTEGER*)> parts[] = {
        {shape_.accuracySeconds, TS_ACCURACY_set_seconds},
        {shape_.accuracyMillis, TS_ACCURACY_set_millis},
        {shape_.accuracyMicros, TS_ACCURACY_set_micros}};
    for (const auto& part : parts) {
      if (part.first == 0) continue;
      IntegerPtr value(ASN1_INTEGER_new());
      if (!value || !ASN1_INTEGER_set(value.get(), part.first) ||
          !part.second(accuracy.get(), value.get())) {
        return std::string();
      }
    }
    if (!TS_TST_INFO_set_accuracy(tst.get(), accuracy.get())) return std::string();
  }
  if (shape_.ordering && !TS_TST_INFO_set_ordering(tst.get(), 1)) return std::string();
  if (const ASN1_INTEGER* nonce = TS_REQ_get_nonce(req.get())) {
    if (!TS_TST_INFO_set_nonce(tst.get(), nonce)) return std::string();
  }
  if (shape_.tsaName) {
    NamePtr name(GENERAL_NAME_new());
    X509_NAME* subject = X509_NAME_dup(X509_get_subject_name(signer_->cert.get()));
    if (!name || !subject) {
      X509_NAME_free(subject);
      return std::string();
    }
    GENERAL_NAME_set0_value(name.get(), GEN_DIRNAME, subject);
    if (!TS_TST_INFO_set_tsa(tst.get(), name.get())) return std::string();
  }
  unsigned char* der = nullptr;
  int len = i2d_TS_TST_INFO(tst.get(), &der);
  if (len <= 0) {
    *error = "cannot encode the TSTInfo: " + takeOpenSslErrors();
    return std::string();
  }
  std::string tstInfo(reinterpret_cast<char*>(der), static_cast<size_t>(len));
  OPENSSL_free(der);
  return grant(tstInfo, TS_REQ_get_cert_req(req.get()) && !shape_.noCertificates, error);
}

std::string TokenMaker::grant(const std::string& tstInfo, bool withCertificates,
                              std::string* error) {
  CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY));
  const EVP_MD* md = shape_.signerDigest ? shape_.signerDigest : EVP_sha256();
  // An RSA-PSS key signs with its parameters at hand, so that the
  // SignerInfo names RSASSA-PSS with them rather than rsaEncryption; so does
  // a plain RSA key asked to.
  bool pss = EVP_PKEY_is_a(signer_->key.get(), "RSA-PSS") ||
             (shape_.pssPadding && EVP_PKEY_is_a(signer_->key.get(), "RSA"));
  int flags = CMS_PARTIAL | CMS_BINARY | CMS_NOSMIMECAP | CMS_NOCERTS | (pss ? CMS_KEY_PARAM : 0) |
              (shape_.signerByKeyId ? CMS_USE_KEYID : 0);
  CMS_SignerInfo* si =
      cms && CMS_set1_eContentType(cms.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)) == 1
          ? CMS_add1_signer(cms.get(), signer_->cert.get(), signer_->key.get(), md, flags)
          : nullptr;
  if (si && pss) {
    EVP_PKEY_CTX* pctx = CMS_SignerInfo_get0_pkey_ctx(si);
    if (EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) <= 0) {
      si = nullptr;
    }
  }
  X509* named = shape_.essNamesIssuer && !signer_->issuers.empty() ? signer_->issuers[0].get()
                                                                   : signer_->cert.get();
  if (!si || !addEssCertIds(si, named, shape_.ess)) {
    *error = "cannot set up the signature: " + takeOpenSslErrors();
    return std::string();
  }
  if (withCertificates) {
    bool ok = CMS_add1_cert(cms.get(), signer_->cert.get()) == 1;
    for (const X509Ptr& issuer : signer_->issuers) {
      ok = ok && CMS_add1_cert(cms.get(), issuer.get()) == 1;
    }
    if (!ok) return std::string();
  }
  BioPtr content(BIO_new_mem_buf(tstInfo.data(), static_cast<int>(tstInfo.size())));
  if (!content || CMS_final(cms.get(), content.get(), nullptr, CMS_BINARY) != 1) {
    *error = "cannot sign the token: " + takeOpenSslErrors();
    return std::string();
  }
  // Unsigned attributes and the signature value are outside what is signed:
  // both can be changed after signing.
  if (shape_.unsignedAttribute) {
    static const char kText[] = "unsigned attribute of the test server";
    if (CMS_unsigned_add1_attr_by_txt(si, kUnsignedAttributeOid, V_ASN1_UTF8STRING, kText,
                                      sizeof kText - 1) != 1) {
      return std::string();
    }
  }
  if (shape_.flipSignature) {
    ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(si);
    auto* bytes = const_cast<unsigned char*>(ASN1_STRING_get0_data(signature));
    int n = ASN1_STRING_length(signature);
    bytes[n / 2] = static_cast<unsigned char>(bytes[n / 2] ^ 0xFF);
  }
  unsigned char* der = nullptr;
  int len = i2d_CMS_ContentInfo(cms.get(), &der);
  if (len <= 0) return std::string();
  std::string token(reinterpret_cast<char*>(der), static_cast<size_t>(len));
  OPENSSL_free(der);
  const int status = shape_.status == TS_STATUS_GRANTED_WITH_MODS ? shape_.status : 0;
  return tlv(0x30, statusInfo(status, shape_.statusTexts, shape_.failureBits) + token) +
         std::string(static_cast<size_t>(shape_.trailingBytes), '\x5A');
}

}  // namespace testtsa
