#include "testing/TokenMaker.h"

#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/ess.h>
#include <openssl/rsa.h>
#include <openssl/ts.h>

namespace testing_support {

namespace {

template <typename T, void (*F)(T*)>
struct Free {
  void operator()(T* p) const { F(p); }
};
template <typename T, void (*F)(T*)>
using Owned = std::unique_ptr<T, Free<T, F>>;

std::vector<uint8_t> tlv(uint8_t tag, const std::vector<uint8_t>& content) {
  std::vector<uint8_t> out{tag};
  const size_t n = content.size();
  if (n < 128) {
    out.push_back(static_cast<uint8_t>(n));
  } else {
    std::vector<uint8_t> len;
    for (size_t v = n; v > 0; v >>= 8) len.insert(len.begin(), static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(0x80 | len.size()));
    out.insert(out.end(), len.begin(), len.end());
  }
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

ASN1_INTEGER* integerOf(const std::vector<uint8_t>& octets) {
  const std::vector<uint8_t> der = tlv(0x02, octets);
  const unsigned char* p = der.data();
  return d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size()));
}

template <typename T>
std::vector<uint8_t> derOf(T* object, int (*i2d)(const T*, unsigned char**)) {
  unsigned char* der = nullptr;
  const int n = i2d(object, &der);
  if (n <= 0) return {};
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return out;
}

}  // namespace

std::vector<uint8_t> grantedResponse(const std::vector<uint8_t>& token) {
  std::vector<uint8_t> content = {0x30, 0x03, 0x02, 0x01, 0x00};
  content.insert(content.end(), token.begin(), token.end());
  return tlv(0x30, content);
}

bool TokenMaker::fail(const std::string& what) {
  error_ = what;
  unsigned long e;
  char buf[256];
  while ((e = ERR_get_error()) != 0) {
    ERR_error_string_n(e, buf, sizeof buf);
    error_ += std::string("; ") + buf;
  }
  return false;
}

TokenMaker::Signer* TokenMaker::signerFor(const TokenShape& shape) {
  const std::string id = std::to_string(static_cast<int>(shape.key)) + "/" +
                         std::to_string(shape.timestampingUsage) + "/" +
                         std::to_string(shape.signerFrom) + "/" + std::to_string(shape.signerTo);
  auto it = signers_.find(id);
  if (it != signers_.end()) return &it->second;
  Signer s;
  switch (shape.key) {
    case SignerKey::kRsa:
    case SignerKey::kRsaPss:
      s.key = makeRsaKey(2048);
      break;
    case SignerKey::kEc256:
      s.key.reset(EVP_EC_gen("P-256"));
      break;
    case SignerKey::kEc384:
      s.key.reset(EVP_EC_gen("P-384"));
      break;
    case SignerKey::kEc521:
      s.key.reset(EVP_EC_gen("P-521"));
      break;
  }
  if (!s.key || !ca_.ok()) {
    fail("signer key generation failed " + ca_.error());
    return nullptr;
  }
  s.cert = ca_.issue(s.key.get(), "Clockette Token Signer " + id, shape.signerFrom, shape.signerTo,
                     shape.timestampingUsage);
  if (!s.cert) {
    fail("signer certificate failed: " + ca_.error());
    return nullptr;
  }
  return &signers_.emplace(id, std::move(s)).first->second;
}

X509* TokenMaker::signer(const TokenShape& shape) {
  Signer* s = signerFor(shape);
  return s != nullptr ? s->cert.get() : nullptr;
}

std::vector<uint8_t> TokenMaker::response(const TokenShape& shape) {
  Signer* s = signerFor(shape);
  if (s == nullptr) return {};
  const EVP_MD* imprintMd = EVP_get_digestbynid(shape.imprintNid);
  const EVP_MD* signerMd = EVP_get_digestbynid(shape.signerDigestNid);
  if (imprintMd == nullptr || signerMd == nullptr) {
    fail("unknown digest");
    return {};
  }
  std::vector<uint8_t> digest = shape.digest;
  if (digest.empty()) {
    digest.resize(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    EVP_Digest("clockette", 9, digest.data(), &n, imprintMd, nullptr);
    digest.resize(n);
  }

  // The TSTInfo.
  Owned<TS_TST_INFO, TS_TST_INFO_free> info(TS_TST_INFO_new());
  Owned<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free> imprint(TS_MSG_IMPRINT_new());
  Owned<X509_ALGOR, X509_ALGOR_free> algo(X509_ALGOR_new());
  Owned<ASN1_OBJECT, ASN1_OBJECT_free> policy(OBJ_txt2obj(shape.policyOid.c_str(), 1));
  Owned<ASN1_INTEGER, ASN1_INTEGER_free> serial(integerOf(shape.serial));
  Owned<ASN1_GENERALIZEDTIME, ASN1_GENERALIZEDTIME_free> genTime(
      ASN1_GENERALIZEDTIME_set(nullptr, shape.genTime != 0 ? shape.genTime : time(nullptr)));
  if (!info || !imprint || !algo || !policy || !serial || !genTime ||
      TS_TST_INFO_set_version(info.get(), 1) != 1 ||
      TS_TST_INFO_set_policy_id(info.get(), policy.get()) != 1 ||
      X509_ALGOR_set0(algo.get(), OBJ_nid2obj(shape.imprintNid), V_ASN1_NULL, nullptr) != 1 ||
      TS_MSG_IMPRINT_set_algo(imprint.get(), algo.get()) != 1 ||
      TS_MSG_IMPRINT_set_msg(imprint.get(), digest.data(), static_cast<int>(digest.size())) != 1 ||
      TS_TST_INFO_set_msg_imprint(info.get(), imprint.get()) != 1 ||
      TS_TST_INFO_set_serial(info.get(), serial.get()) != 1 ||
      TS_TST_INFO_set_time(info.get(), genTime.get()) != 1) {
    fail("TSTInfo set-up failed");
    return {};
  }
  if (!shape.nonce.empty()) {
    Owned<ASN1_INTEGER, ASN1_INTEGER_free> nonce(integerOf(shape.nonce));
    if (!nonce || TS_TST_INFO_set_nonce(info.get(), nonce.get()) != 1) {
      fail("nonce failed");
      return {};
    }
  }
  if (shape.tsaName) {
    Owned<GENERAL_NAME, GENERAL_NAME_free> name(GENERAL_NAME_new());
    X509_NAME* subject = X509_NAME_dup(X509_get_subject_name(s->cert.get()));
    if (!name || subject == nullptr) {
      fail("tsa name failed");
      return {};
    }
    GENERAL_NAME_set0_value(name.get(), GEN_DIRNAME, subject);
    if (TS_TST_INFO_set_tsa(info.get(), name.get()) != 1) {
      fail("tsa name failed");
      return {};
    }
  }
  const std::vector<uint8_t> tstDer = derOf<TS_TST_INFO>(info.get(), i2d_TS_TST_INFO);

  // The SignedData over it.
  const unsigned int flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_KEY_PARAM |
                             (shape.includeSigner ? 0 : CMS_NOCERTS);
  Owned<CMS_ContentInfo, CMS_ContentInfo_free> cms(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
  if (!cms || CMS_set1_eContentType(cms.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)) != 1) {
    fail("CMS set-up failed");
    return {};
  }
  CMS_SignerInfo* si = CMS_add1_signer(cms.get(), s->cert.get(), s->key.get(), signerMd, flags);
  if (si == nullptr) {
    fail("CMS_add1_signer failed");
    return {};
  }
  if (shape.key == SignerKey::kRsaPss) {
    EVP_PKEY_CTX* pctx = CMS_SignerInfo_get0_pkey_ctx(si);
    if (pctx == nullptr || EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) <= 0) {
      fail("PSS set-up failed");
      return {};
    }
  }
  std::vector<uint8_t> ess;
  X509* named = shape.essNamesCa ? ca_.caCert() : s->cert.get();
  if (shape.essV1) {
    Owned<ESS_SIGNING_CERT, ESS_SIGNING_CERT_free> sc(
        OSSL_ESS_signing_cert_new_init(named, nullptr, 1));
    if (sc) ess = derOf<ESS_SIGNING_CERT>(sc.get(), i2d_ESS_SIGNING_CERT);
  } else {
    Owned<ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free> sc(
        OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), named, nullptr, 1));
    if (sc) ess = derOf<ESS_SIGNING_CERT_V2>(sc.get(), i2d_ESS_SIGNING_CERT_V2);
  }
  const int essNid =
      shape.essV1 ? NID_id_smime_aa_signingCertificate : NID_id_smime_aa_signingCertificateV2;
  if (ess.empty() || CMS_signed_add1_attr_by_NID(si, essNid, V_ASN1_SEQUENCE, ess.data(),
                                                 static_cast<int>(ess.size())) != 1) {
    fail("ESS attribute failed");
    return {};
  }
  Owned<BIO, BIO_free_all> data(BIO_new_mem_buf(tstDer.data(), static_cast<int>(tstDer.size())));
  if (!data || CMS_final(cms.get(), data.get(), nullptr, CMS_BINARY) != 1) {
    fail("CMS_final failed");
    return {};
  }
  if (shape.flipSignature) {
    ASN1_OCTET_STRING* sig = CMS_SignerInfo_get0_signature(si);
    const int n = ASN1_STRING_length(sig);
    std::vector<unsigned char> bytes(ASN1_STRING_get0_data(sig), ASN1_STRING_get0_data(sig) + n);
    bytes[static_cast<size_t>(n) / 2] ^= 0x01;
    ASN1_STRING_set(sig, bytes.data(), n);
  }
  std::vector<uint8_t> token = derOf<CMS_ContentInfo>(cms.get(), i2d_CMS_ContentInfo);
  if (token.empty()) {
    fail("token encoding failed");
    return {};
  }
  return grantedResponse(token);
}

}  // namespace testing_support
