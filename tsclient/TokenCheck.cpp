#include "tsclient/TokenCheck.h"

#include <openssl/cms.h>
#include <openssl/ess.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "base/Log.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/Der.h"
#include "ossl/OpenSslErrors.h"

namespace {

const char kComponent[] = "TokenCheck";

void freeCertStack(STACK_OF(X509) * certs) { sk_X509_pop_free(certs, X509_free); }
using CertStackPtr = std::unique_ptr<STACK_OF(X509), ossl::Deleter<STACK_OF(X509), freeCertStack>>;
using CmsPtr =
    std::unique_ptr<CMS_ContentInfo, ossl::Deleter<CMS_ContentInfo, CMS_ContentInfo_free>>;
using TstInfoPtr = std::unique_ptr<TS_TST_INFO, ossl::Deleter<TS_TST_INFO, TS_TST_INFO_free>>;
using EssV1Ptr =
    std::unique_ptr<ESS_SIGNING_CERT, ossl::Deleter<ESS_SIGNING_CERT, ESS_SIGNING_CERT_free>>;
using EssV2Ptr = std::unique_ptr<ESS_SIGNING_CERT_V2,
                                 ossl::Deleter<ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free>>;
using StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, ossl::Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;

// Appends the certificates of from to to, each with one more reference.
bool appendCerts(STACK_OF(X509) * to, STACK_OF(X509) * from) {
  for (int i = 0; from != nullptr && i < sk_X509_num(from); ++i) {
    X509* cert = sk_X509_value(from, i);
    if (sk_X509_push(to, cert) == 0) return false;
    X509_up_ref(cert);
  }
  return true;
}

std::string dotted(int nid) {
  const ASN1_OBJECT* obj = OBJ_nid2obj(nid);
  char text[128] = "";
  if (obj != nullptr) OBJ_obj2txt(text, sizeof text, obj, 1);
  return text;
}

std::string nameOf(int nid) {
  const char* sn = OBJ_nid2sn(nid);
  return sn != nullptr ? sn : dotted(nid);
}

// The bytes of the TimeStampToken inside the TimeStampResp: the element after
// the PKIStatusInfo. Our decoder has accepted the answer before, so the
// layout is known to hold.
bool tokenBytes(const unsigned char* der, size_t length, const unsigned char** token,
                size_t* tokenLength) {
  unsigned int pos = 0;
  DerReader in(der, &pos, static_cast<unsigned int>(length));
  unsigned int len = 0;
  if (!in.expectTag(kTagSequence) || !in.readLength(&len)) return false;
  const unsigned int end = pos + len;
  if (!in.skip(1) || !in.readLength(&len) || !in.skip(len)) return false;  // PKIStatusInfo
  const unsigned int start = pos;
  if (!in.expectTag(kTagSequence) || !in.readLength(&len) || pos + len > end) return false;
  *token = der + start;
  *tokenLength = pos + len - start;
  return true;
}

std::string tsaNameText(const TS_TST_INFO* info) {
  const GENERAL_NAME* name = TS_TST_INFO_get_tsa(const_cast<TS_TST_INFO*>(info));
  if (name == nullptr) return "";
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) return "";
  if (name->type == GEN_DIRNAME) {
    X509_NAME_print_ex(bio.get(), name->d.directoryName, 0, XN_FLAG_ONELINE);
  } else {
    GENERAL_NAME_print(bio.get(), const_cast<GENERAL_NAME*>(name));
  }
  char* text = nullptr;
  long n = BIO_get_mem_data(bio.get(), &text);
  return n > 0 ? std::string(text, static_cast<size_t>(n)) : "";
}

bool timeOf(const ASN1_GENERALIZEDTIME* t, time_t* out) {
  struct tm tm = {};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) return false;
  *out = timegm(&tm);
  return true;
}

// OpenSSL's error queue as " (line; line)" for a reason text; empty when it held nothing.
std::string sslDetail() {
  std::string errors = takeOpenSslErrors();
  if (errors.empty()) return "";
  for (char& c : errors) {
    if (c == '\n') c = ';';
  }
  return " (" + errors + ")";
}

// Holds the state of one check so that each failure is one short return.
class Checker {
 public:
  Checker(const TokenExpectations* expect, const TokenTrust* trust, TokenCheckResult* result)
      : expect_(expect), trust_(trust), result_(result), facts_(result->facts) {}

  bool run(const unsigned char* der, size_t length);

 private:
  bool fail(const std::string& why) {
    result_->reason = why;
    return false;
  }
  bool failSsl(const std::string& why) { return fail(why + sslDetail()); }

  bool readOurs(const unsigned char* der, size_t length);
  bool compareExpectations();
  bool readWithOpenSsl(const unsigned char* der, size_t length);
  bool checkSignature(X509* signer);
  bool checkEss(CMS_SignerInfo* si, X509* signer);
  bool checkChain(X509* signer);

  const TokenExpectations* expect_;
  const TokenTrust* trust_;
  TokenCheckResult* result_;
  TokenFacts& facts_;
  CmsPtr cms_;
  TstInfoPtr tstInfo_;
  CertStackPtr tokenCerts_;
};

bool Checker::run(const unsigned char* der, size_t length) {
  if (!readOurs(der, length) || !readWithOpenSsl(der, length) || !compareExpectations()) {
    return false;
  }
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms_.get());
  if (sk_CMS_SignerInfo_num(signers) != 1) {
    return fail("the token carries " + std::to_string(sk_CMS_SignerInfo_num(signers)) +
                " signatures, a timestamp has exactly one");
  }
  STACK_OF(X509)* extra = trust_ != nullptr ? trust_->untrusted() : nullptr;
  const int found = CMS_set1_signers_certs(cms_.get(), extra, 0);
  clearOpenSslErrors();
  X509* signer = nullptr;
  CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, &signer, nullptr, nullptr);
  if (found <= 0 || signer == nullptr) {
    if (trust_ != nullptr && trust_->hasAnchors()) {
      return fail("the signer certificate is neither in the token nor among the given ones");
    }
    return true;  // nothing to check the signature with
  }
  if (!checkSignature(signer)) return false;
  facts_.signatureChecked = true;
  if (trust_ == nullptr || !trust_->hasAnchors()) return true;
  if (!checkChain(signer)) return false;
  facts_.chainChecked = true;
  return true;
}

bool Checker::readOurs(const unsigned char* der, size_t length) {
  CAsn1ietfTSResp resp;
  unsigned int pos = 0;
  if (length == 0 || length > 0xFFFFFFFFu ||
      resp.setDER(der, &pos, static_cast<unsigned int>(length)) != 0) {
    return fail("the answer is no TimeStampResp");
  }
  // Exactly one DER object: bytes after it are no part of what was signed,
  // and a stored answer must be what a verifier reads.
  unsigned int end = 0, contentLength = 0;
  DerReader outer(der, &end, static_cast<unsigned int>(length));
  if (outer.expectTagQuiet(kTagSequence) && outer.readLength(&contentLength) &&
      end + contentLength < length) {
    return fail(std::to_string(length - end - contentLength) +
                " bytes follow the TimeStampResp; an answer is exactly one DER object");
  }
  facts_.status = resp.getStatus();
  facts_.statusText = resp.getStatusString();
  facts_.failInfo = resp.statusInfo.failInfoNames();
  if (static_cast<unsigned int>(facts_.status) >= 2) {
    return fail("the answer's status is " + std::to_string(facts_.status) +
                (facts_.statusText.empty() ? "" : " (" + facts_.statusText + ")") +
                (facts_.failInfo.empty() ? "" : ", failInfo " + facts_.failInfo));
  }
  if (!resp.hasToken()) return fail("the answer is granted but carries no timestamp token");
  facts_.hasToken = true;
  const CAsn1TSTInfo& tst = resp.getTSTInfo();
  facts_.genTime = tst.genTime.displayText();
  facts_.genTimeDer = tst.genTime.derText();
  facts_.serialHex = tst.serialNumber.hex();
  facts_.hashNid = tst.messageImprint.hashAlgorithm.algorithm.nid;
  const CAsn1string& digest = tst.messageImprint.hashedMessage;
  facts_.digest.assign(digest.data(), digest.data() + digest.length());
  if (tst.hasNonce()) facts_.nonceHex = tst.nonce.hex();
  return true;
}

bool Checker::compareExpectations() {
  if (expect_ == nullptr) return true;
  if (expect_->hashNid != 0 &&
      (expect_->hashNid != facts_.hashNid || expect_->digest != facts_.digest)) {
    return fail("the token covers " + nameOf(facts_.hashNid) + " " +
                hexOf(facts_.digest.data(), facts_.digest.size()) + ", the request asked for " +
                nameOf(expect_->hashNid) + " " +
                hexOf(expect_->digest.data(), expect_->digest.size()));
  }
  if (!expect_->nonce.empty()) {
    CAsn1bigInteger asked;
    asked.setOctets(expect_->nonce);
    if (facts_.nonceHex.empty()) {
      return fail("the token carries no nonce, the request sent " + asked.hex());
    }
    if (facts_.nonceHex != asked.hex()) {
      return fail("the token's nonce " + facts_.nonceHex + " is not the request's " + asked.hex());
    }
  }
  if (!expect_->policyOid.empty() && expect_->policyOid != facts_.policyOid) {
    return fail("the token's policy " + facts_.policyOid + " is not the requested " +
                expect_->policyOid);
  }
  return true;
}

bool Checker::readWithOpenSsl(const unsigned char* der, size_t length) {
  const unsigned char* token = nullptr;
  size_t tokenLength = 0;
  if (!tokenBytes(der, length, &token, &tokenLength)) {
    return fail("the timestamp token cannot be located in the answer");
  }
  const unsigned char* p = token;
  cms_.reset(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(tokenLength)));
  if (!cms_) return failSsl("OpenSSL cannot read the timestamp token");
  ASN1_OCTET_STRING** content = CMS_get0_content(cms_.get());
  if (content == nullptr || *content == nullptr) return fail("the timestamp token has no content");
  p = ASN1_STRING_get0_data(*content);
  tstInfo_.reset(d2i_TS_TST_INFO(nullptr, &p, ASN1_STRING_length(*content)));
  if (!tstInfo_) return failSsl("OpenSSL cannot read the TSTInfo");
  facts_.tsaName = tsaNameText(tstInfo_.get());
  // The dotted text straight from the DER: a policy that OpenSSL did not know
  // was added to its object table, which OpenSSL 3.0 reads without a lock.
  char policy[128] = "";
  OBJ_obj2txt(policy, sizeof policy, TS_TST_INFO_get_policy_id(tstInfo_.get()), 1);
  facts_.policyOid = policy;
  tokenCerts_.reset(CMS_get1_certs(cms_.get()));
  if (!tokenCerts_) tokenCerts_.reset(sk_X509_new_null());
  clearOpenSslErrors();
  return tokenCerts_ != nullptr || fail("out of memory");
}

bool Checker::checkSignature(X509* signer) {
  CMS_SignerInfo* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms_.get()), 0);
  if (CMS_signed_get_attr_count(si) <= 0) return fail("the token has no signed attributes");
  if (CMS_SignerInfo_verify(si) != 1) return failSsl("the token's signature does not hold");

  const ASN1_OBJECT* contentType = static_cast<const ASN1_OBJECT*>(
      CMS_signed_get0_data_by_OBJ(si, OBJ_nid2obj(NID_pkcs9_contentType), -3, V_ASN1_OBJECT));
  if (contentType == nullptr || OBJ_cmp(contentType, CMS_get0_eContentType(cms_.get())) != 0) {
    return fail("the signed contentType attribute is not the token's content type");
  }

  X509_ALGOR* digestAlg = nullptr;
  CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digestAlg, nullptr);
  const ASN1_OBJECT* digestObj = nullptr;
  X509_ALGOR_get0(&digestObj, nullptr, nullptr, digestAlg);
  const EVP_MD* md = EVP_get_digestbyobj(digestObj);
  if (md == nullptr) return fail("the token's digest algorithm is unknown");
  const ASN1_OCTET_STRING* content = *CMS_get0_content(cms_.get());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (EVP_Digest(ASN1_STRING_get0_data(content), static_cast<size_t>(ASN1_STRING_length(content)),
                 digest, &digestLength, md, nullptr) != 1) {
    return failSsl("the TSTInfo digest cannot be computed");
  }
  const ASN1_OCTET_STRING* messageDigest =
      static_cast<const ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
          si, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
  if (messageDigest == nullptr) return fail("the token has no messageDigest attribute");
  if (static_cast<unsigned int>(ASN1_STRING_length(messageDigest)) != digestLength ||
      memcmp(ASN1_STRING_get0_data(messageDigest), digest, digestLength) != 0) {
    return fail("the messageDigest attribute " +
                hexOf(ASN1_STRING_get0_data(messageDigest),
                      static_cast<size_t>(ASN1_STRING_length(messageDigest))) +
                " is not the TSTInfo's digest " + hexOf(digest, digestLength));
  }
  return checkEss(si, signer);
}

// The ESS attribute names the signer certificate by its hash (and issuer and
// serial): a token cannot be passed off as signed by another certificate of
// the same key.
bool Checker::checkEss(CMS_SignerInfo* si, X509* signer) {
  EssV1Ptr v1;
  EssV2Ptr v2;
  const ASN1_STRING* raw = static_cast<const ASN1_STRING*>(CMS_signed_get0_data_by_OBJ(
      si, OBJ_nid2obj(NID_id_smime_aa_signingCertificate), -3, V_ASN1_SEQUENCE));
  if (raw != nullptr) {
    const unsigned char* p = ASN1_STRING_get0_data(raw);
    v1.reset(d2i_ESS_SIGNING_CERT(nullptr, &p, ASN1_STRING_length(raw)));
    if (!v1) return failSsl("the signingCertificate attribute cannot be read");
  }
  raw = static_cast<const ASN1_STRING*>(CMS_signed_get0_data_by_OBJ(
      si, OBJ_nid2obj(NID_id_smime_aa_signingCertificateV2), -3, V_ASN1_SEQUENCE));
  if (raw != nullptr) {
    const unsigned char* p = ASN1_STRING_get0_data(raw);
    v2.reset(d2i_ESS_SIGNING_CERT_V2(nullptr, &p, ASN1_STRING_length(raw)));
    if (!v2) return failSsl("the signingCertificateV2 attribute cannot be read");
  }
  if (!v1 && !v2) return fail("the token names no signing certificate (ESS attribute missing)");
  // The signer first, then every other certificate the ESS list may name.
  CertStackPtr chain(sk_X509_new_null());
  if (!chain || sk_X509_push(chain.get(), signer) == 0) return fail("out of memory");
  X509_up_ref(signer);
  if (!appendCerts(chain.get(), tokenCerts_.get()) ||
      (trust_ != nullptr && !appendCerts(chain.get(), trust_->untrusted()))) {
    return fail("out of memory");
  }
  if (OSSL_ESS_check_signing_certs(v1.get(), v2.get(), chain.get(), 1) != 1) {
    return failSsl("the ESS certificate hash does not name the signer certificate");
  }
  return true;
}

bool Checker::checkChain(X509* signer) {
  const int eku = X509_get_ext_by_NID(signer, NID_ext_key_usage, -1);
  if (eku < 0 || X509_EXTENSION_get_critical(X509_get_ext(signer, eku)) != 1 ||
      (X509_get_extension_flags(signer) & EXFLAG_XKUSAGE) == 0 ||
      (X509_get_extended_key_usage(signer) & XKU_TIMESTAMP) == 0) {
    return fail("the signer certificate lacks the critical extendedKeyUsage timeStamping");
  }
  time_t genTime = 0;
  if (!timeOf(TS_TST_INFO_get_time(tstInfo_.get()), &genTime)) {
    return failSsl("the token's genTime cannot be read");
  }
  CertStackPtr untrusted(sk_X509_new_null());
  if (!untrusted || !appendCerts(untrusted.get(), tokenCerts_.get()) ||
      !appendCerts(untrusted.get(), trust_->untrusted())) {
    return fail("out of memory");
  }
  StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx || X509_STORE_CTX_init(ctx.get(), trust_->anchors(), signer, untrusted.get()) != 1) {
    return failSsl("the certificate check cannot be set up");
  }
  X509_STORE_CTX_set_time(ctx.get(), 0, genTime);
  X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_TIMESTAMP_SIGN);
  if (X509_verify_cert(ctx.get()) != 1) {
    const int err = X509_STORE_CTX_get_error(ctx.get());
    clearOpenSslErrors();
    return fail("the signer certificate does not chain to a trust anchor as of " + facts_.genTime +
                ": " + X509_verify_cert_error_string(err));
  }
  return true;
}

}  // namespace

TokenTrust::~TokenTrust() {
  if (untrusted_ != nullptr) freeCertStack(untrusted_);
}

bool TokenTrust::load(const std::string& caPath, const std::string& certsPath, std::string* error) {
  Log log(kComponent, "TokenTrust::load", __FILE__, __LINE__, 13);
  if (!caPath.empty()) {
    X509StorePtr store(X509_STORE_new());
    if (!store) {
      *error = "out of memory";
      return false;
    }
    std::error_code ec;
    int loaded = 0;
    if (std::filesystem::is_directory(caPath, ec)) {
      // Every file of the directory that holds PEM certificates; others are
      // passed over (a README, hash links to the same files).
      for (const auto& entry : std::filesystem::directory_iterator(caPath, ec)) {
        if (!entry.is_regular_file(ec)) continue;
        if (X509_STORE_load_file(store.get(), entry.path().c_str()) == 1) ++loaded;
        clearOpenSslErrors();
      }
    } else if (X509_STORE_load_file(store.get(), caPath.c_str()) == 1) {
      ++loaded;
    }
    if (loaded == 0) {
      *error = "no trust anchor can be read from " + caPath + sslDetail();
      return false;
    }
    store_ = std::move(store);
  }
  if (!certsPath.empty()) {
    BioPtr bio(BIO_new_file(certsPath.c_str(), "r"));
    CertStackPtr certs(sk_X509_new_null());
    while (bio && certs) {
      X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
      if (cert == nullptr) break;
      if (sk_X509_push(certs.get(), cert) == 0) X509_free(cert);
    }
    clearOpenSslErrors();
    if (!certs || sk_X509_num(certs.get()) == 0) {
      *error = "no certificate can be read from " + certsPath;
      return false;
    }
    if (untrusted_ != nullptr) freeCertStack(untrusted_);
    untrusted_ = certs.release();
  }
  return true;
}

TokenCheckResult checkTimestampResponse(const unsigned char* der, size_t length,
                                        const TokenExpectations* expect, const TokenTrust* trust) {
  Log log(kComponent, "checkTimestampResponse", __FILE__, __LINE__, 13);
  TokenCheckResult result;
  Checker checker(expect, trust, &result);
  result.ok = checker.run(der, length);
  // Nothing of a failed check may linger in this thread's error queue.
  clearOpenSslErrors();
  return result;
}

std::string hexOf(const unsigned char* data, size_t length) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * length);
  for (size_t i = 0; i < length; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0x0F];
  }
  return text;
}
