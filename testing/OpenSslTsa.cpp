#include "testing/OpenSslTsa.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstring>

namespace testing_support {
namespace {

struct Free {
  void operator()(BIO* p) const { BIO_free(p); }
  void operator()(TS_REQ* p) const { TS_REQ_free(p); }
  void operator()(TS_RESP* p) const { TS_RESP_free(p); }
  void operator()(TS_RESP_CTX* p) const { TS_RESP_CTX_free(p); }
  void operator()(TS_VERIFY_CTX* p) const { TS_VERIFY_CTX_free(p); }
  void operator()(TS_MSG_IMPRINT* p) const { TS_MSG_IMPRINT_free(p); }
  void operator()(X509_ALGOR* p) const { X509_ALGOR_free(p); }
  void operator()(ASN1_STRING* p) const { ASN1_STRING_free(p); }
  void operator()(ASN1_OBJECT* p) const { ASN1_OBJECT_free(p); }
  void operator()(BIGNUM* p) const { BN_free(p); }
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
  void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
  void operator()(X509_STORE* p) const { X509_STORE_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

std::string bioText(BIO* bio) {
  char* data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  return n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX v3;
  X509V3_set_ctx_nodb(&v3);
  X509V3_set_ctx(&v3, issuer, cert, nullptr, nullptr, 0);
  Owned<X509_EXTENSION> ext(X509V3_EXT_conf_nid(nullptr, &v3, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

bool setValidity(X509* cert, time_t notBefore, time_t notAfter) {
  const time_t now = time(nullptr);
  if (notBefore == 0) notBefore = now - 24 * 3600;
  if (notAfter == 0) notAfter = now + 365 * 24 * 3600;
  return ASN1_TIME_set(X509_getm_notBefore(cert), notBefore) != nullptr &&
         ASN1_TIME_set(X509_getm_notAfter(cert), notAfter) != nullptr;
}

TsaX509Ptr makeCert(EVP_PKEY* key, const char* commonName, long serial, X509* issuer,
                    EVP_PKEY* issuerKey, time_t notBefore, time_t notAfter) {
  TsaX509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), 2) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) != 1 ||
      !setValidity(cert.get(), notBefore, notAfter) || X509_set_pubkey(cert.get(), key) != 1) {
    return nullptr;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  const auto text = [](const char* s) { return reinterpret_cast<const unsigned char*>(s); };
  if (X509_NAME_add_entry_by_txt(name, "C", MBSTRING_ASC, text("DE"), -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, text("Clockette Test"), -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text(commonName), -1, -1, 0) != 1) {
    return nullptr;
  }
  X509* signer = issuer != nullptr ? issuer : cert.get();
  if (X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)) != 1) return nullptr;
  bool extOk = addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (issuer == nullptr) {
    extOk = extOk && addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE") &&
            addExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    extOk = extOk &&
            addExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always") &&
            addExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature") &&
            addExtension(cert.get(), signer, NID_ext_key_usage, "critical,timeStamping");
  }
  if (!extOk || X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

template <typename T, typename Writer>
std::string pemOf(T* object, Writer write) {
  Owned<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio || write(bio.get(), object) != 1) return std::string();
  return bioText(bio.get());
}

bool writeText(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  const bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
  return fclose(f) == 0 && ok;
}

// Data handed to the TS_RESP_CTX callbacks.
struct CallbackData {
  const TsResponseOptions* options;
};

ASN1_INTEGER* serialCallback(TS_RESP_CTX* ctx, void* data) {
  const TsResponseOptions& o = *static_cast<CallbackData*>(data)->options;
  if (o.status != TS_STATUS_GRANTED) {
    TS_RESP_CTX_set_status_info(ctx, o.status,
                                o.statusTexts.empty() ? nullptr : o.statusTexts[0].c_str());
    for (int bit : o.failureBits) TS_RESP_CTX_add_failure_info(ctx, bit);
    // Any status but grantedWithMods stops the TSA here: no token.
    if (o.status != TS_STATUS_GRANTED_WITH_MODS) return nullptr;
  }
  ASN1_INTEGER* serial = ASN1_INTEGER_new();
  if (serial != nullptr && ASN1_INTEGER_set_uint64(serial, o.serial) != 1) {
    ASN1_INTEGER_free(serial);
    return nullptr;
  }
  return serial;
}

int timeCallback(TS_RESP_CTX*, void* data, long* sec, long* usec) {
  const TsResponseOptions& o = *static_cast<CallbackData*>(data)->options;
  if (o.genTime != 0) {
    *sec = static_cast<long>(o.genTime);
    *usec = o.genTimeMicros;
    return 1;
  }
  *sec = static_cast<long>(time(nullptr));
  *usec = o.genTimeMicros;
  return 1;
}

}  // namespace

std::string openSslErrors() {
  Owned<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio) return "out of memory";
  ERR_print_errors(bio.get());
  return bioText(bio.get());
}

std::vector<uint8_t> digestOf(int nid, const std::string& data) {
  const EVP_MD* md = EVP_get_digestbynid(nid);
  if (md == nullptr) return {};
  std::vector<uint8_t> out(EVP_MAX_MD_SIZE);
  unsigned int n = 0;
  if (EVP_Digest(data.data(), data.size(), out.data(), &n, md, nullptr) != 1) return {};
  out.resize(n);
  return out;
}

OpenSslTsa::OpenSslTsa(KeyType keyType, time_t notBefore, time_t notAfter) {
  ok_ = setUp(keyType, notBefore, notAfter);
}

OpenSslTsa::~OpenSslTsa() = default;

bool OpenSslTsa::fail(const std::string& what) {
  error_ = what + ": " + openSslErrors();
  return false;
}

bool OpenSslTsa::setUp(KeyType keyType, time_t notBefore, time_t notAfter) {
  // The CA key type does not matter to the token; P-256 is quick to make.
  caKey_.reset(EVP_EC_gen("P-256"));
  if (!caKey_) return fail("CA key generation failed");
  ca_ = makeCert(caKey_.get(), "Clockette Test CA", 1, nullptr, caKey_.get(), 0, 0);
  if (!ca_) return fail("CA certificate creation failed");
  tsaKey_.reset(keyType == KeyType::kRsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256"));
  if (!tsaKey_) return fail("TSA key generation failed");
  tsa_ = makeCert(tsaKey_.get(), "Clockette Test TSA", 2, ca_.get(), caKey_.get(), notBefore,
                  notAfter);
  if (!tsa_) return fail("TSA certificate creation failed");
  return true;
}

std::vector<uint8_t> OpenSslTsa::tsaCertDer() const {
  unsigned char* der = nullptr;
  const int n = i2d_X509(tsa_.get(), &der);
  if (n <= 0) return {};
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return out;
}

std::string OpenSslTsa::caCertPem() const { return pemOf(ca_.get(), PEM_write_bio_X509); }
std::string OpenSslTsa::tsaCertPem() const { return pemOf(tsa_.get(), PEM_write_bio_X509); }
std::string OpenSslTsa::tsaKeyPem() const {
  return pemOf(tsaKey_.get(), [](BIO* bio, EVP_PKEY* key) {
    return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

bool OpenSslTsa::writeFiles(const std::string& dir) const {
  return writeText(dir + "/ca.pem", caCertPem()) && writeText(dir + "/tsa.pem", tsaCertPem()) &&
         writeText(dir + "/tsa.key", tsaKeyPem());
}

std::vector<uint8_t> OpenSslTsa::makeRequest(const TsRequestOptions& r) {
  std::vector<uint8_t> digest = r.digest.empty() ? digestOf(r.hashNid, "clockette") : r.digest;
  Owned<TS_REQ> req(TS_REQ_new());
  Owned<TS_MSG_IMPRINT> imprint(TS_MSG_IMPRINT_new());
  Owned<X509_ALGOR> algo(X509_ALGOR_new());
  if (!req || !imprint || !algo || TS_REQ_set_version(req.get(), 1) != 1 ||
      X509_ALGOR_set0(algo.get(), OBJ_nid2obj(r.hashNid), V_ASN1_NULL, nullptr) != 1 ||
      TS_MSG_IMPRINT_set_algo(imprint.get(), algo.get()) != 1 ||
      TS_MSG_IMPRINT_set_msg(imprint.get(), digest.data(), static_cast<int>(digest.size())) != 1 ||
      TS_REQ_set_msg_imprint(req.get(), imprint.get()) != 1 ||
      TS_REQ_set_cert_req(req.get(), r.certReq ? 1 : 0) != 1) {
    return {};
  }
  if (r.withNonce) {
    Owned<BIGNUM> bn(BN_bin2bn(r.nonce.data(), static_cast<int>(r.nonce.size()), nullptr));
    Owned<ASN1_INTEGER> nonce(bn ? BN_to_ASN1_INTEGER(bn.get(), nullptr) : nullptr);
    if (!nonce || TS_REQ_set_nonce(req.get(), nonce.get()) != 1) return {};
  }
  if (!r.policyOid.empty()) {
    Owned<ASN1_OBJECT> policy(OBJ_txt2obj(r.policyOid.c_str(), 1));
    if (!policy || TS_REQ_set_policy_id(req.get(), policy.get()) != 1) return {};
  }
  unsigned char* der = nullptr;
  const int n = i2d_TS_REQ(req.get(), &der);
  if (n <= 0) return {};
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return out;
}

std::vector<uint8_t> OpenSslTsa::respond(const std::vector<uint8_t>& requestDer,
                                         const TsResponseOptions& o) {
  if (!ok_) return {};
  Owned<TS_RESP_CTX> ctx(TS_RESP_CTX_new());
  Owned<ASN1_OBJECT> policy(OBJ_txt2obj(o.policyOid.c_str(), 1));
  const EVP_MD* signerMd = EVP_get_digestbynid(o.signerDigestNid);
  const EVP_MD* essMd = EVP_get_digestbynid(o.essCertIdDigestNid);
  if (!ctx || !policy || signerMd == nullptr || essMd == nullptr ||
      TS_RESP_CTX_set_signer_cert(ctx.get(), tsa_.get()) != 1 ||
      TS_RESP_CTX_set_signer_key(ctx.get(), tsaKey_.get()) != 1 ||
      TS_RESP_CTX_set_def_policy(ctx.get(), policy.get()) != 1 ||
      TS_RESP_CTX_set_signer_digest(ctx.get(), signerMd) != 1 ||
      TS_RESP_CTX_set_ess_cert_id_digest(ctx.get(), essMd) != 1) {
    fail("TSA context set-up failed");
    return {};
  }
  for (const EVP_MD* md : {EVP_sha1(), EVP_sha224(), EVP_sha256(), EVP_sha384(), EVP_sha512()}) {
    TS_RESP_CTX_add_md(ctx.get(), md);
  }
  if (const EVP_MD* ripemd = EVP_get_digestbyname("RIPEMD160")) {
    TS_RESP_CTX_add_md(ctx.get(), ripemd);
  }
  if (o.includeCaCert) {
    Owned<STACK_OF(X509)> certs(sk_X509_new_null());
    if (!certs || sk_X509_push(certs.get(), ca_.get()) == 0 ||
        TS_RESP_CTX_set_certs(ctx.get(), certs.get()) != 1) {
      fail("adding the CA certificate failed");
      return {};
    }
  }
  if (o.accuracySeconds >= 0 && TS_RESP_CTX_set_accuracy(ctx.get(), o.accuracySeconds,
                                                         o.accuracyMillis, o.accuracyMicros) != 1) {
    fail("setting the accuracy failed");
    return {};
  }
  if (TS_RESP_CTX_set_clock_precision_digits(ctx.get(), o.clockPrecisionDigits) != 1) {
    fail("setting the clock precision failed");
    return {};
  }
  TS_RESP_CTX_add_flags(ctx.get(), (o.ordering ? TS_ORDERING : 0) | (o.tsaName ? TS_TSA_NAME : 0));
  CallbackData data{&o};
  TS_RESP_CTX_set_serial_cb(ctx.get(), serialCallback, &data);
  TS_RESP_CTX_set_time_cb(ctx.get(), timeCallback, &data);

  Owned<BIO> in(BIO_new_mem_buf(requestDer.data(), static_cast<int>(requestDer.size())));
  Owned<TS_RESP> resp(in ? TS_RESP_create_response(ctx.get(), in.get()) : nullptr);
  if (!resp) {
    fail("TS_RESP_create_response failed");
    return {};
  }
  // OpenSSL's TSA writes one status text; further ones are added to its answer.
  if (o.status != TS_STATUS_GRANTED && o.statusTexts.size() > 1) {
    auto* texts = const_cast<STACK_OF(ASN1_UTF8STRING)*>(
        TS_STATUS_INFO_get0_text(TS_RESP_get_status_info(resp.get())));
    for (size_t i = 1; texts != nullptr && i < o.statusTexts.size(); ++i) {
      Owned<ASN1_UTF8STRING> text(ASN1_UTF8STRING_new());
      if (!text ||
          ASN1_STRING_set(text.get(), o.statusTexts[i].data(),
                          static_cast<int>(o.statusTexts[i].size())) != 1 ||
          sk_ASN1_UTF8STRING_push(texts, text.get()) == 0) {
        fail("adding a status text failed");
        return {};
      }
      text.release();
    }
  }
  // A refused request leaves OpenSSL's reasons in its queue; they are not errors here.
  ERR_clear_error();
  unsigned char* der = nullptr;
  const int n = i2d_TS_RESP(resp.get(), &der);
  if (n <= 0) {
    fail("i2d_TS_RESP failed");
    return {};
  }
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return out;
}

bool OpenSslTsa::verifyResponse(const std::vector<uint8_t>& responseDer, const TsRequestOptions& r,
                                std::string* why) const {
  const auto failed = [why](const std::string& what) {
    if (why != nullptr) *why = what + ": " + openSslErrors();
    return false;
  };
  const unsigned char* p = responseDer.data();
  Owned<TS_RESP> resp(d2i_TS_RESP(nullptr, &p, static_cast<long>(responseDer.size())));
  if (!resp) return failed("d2i_TS_RESP failed");
  // The request gives the imprint, the nonce and the policy to check.
  const std::vector<uint8_t> requestDer = makeRequest(r);
  p = requestDer.data();
  Owned<TS_REQ> req(d2i_TS_REQ(nullptr, &p, static_cast<long>(requestDer.size())));
  Owned<TS_VERIFY_CTX> v(req ? TS_REQ_to_TS_VERIFY_CTX(req.get(), nullptr) : nullptr);
  Owned<X509_STORE> store(X509_STORE_new());
  Owned<STACK_OF(X509)> certs(sk_X509_new_null());
  if (!v || !store || !certs || X509_STORE_add_cert(store.get(), ca_.get()) != 1 ||
      sk_X509_push(certs.get(), tsa_.get()) == 0) {
    return failed("verification set-up failed");
  }
  X509_up_ref(tsa_.get());
  TS_VERIFY_CTX_add_flags(v.get(), TS_VFY_SIGNATURE);
  TS_VERIFY_CTX_set_store(v.get(), store.release());
  // The signer certificate is offered even when the token does not carry it.
  TS_VERIFY_CTX_set_certs(v.get(), certs.release());
  if (TS_RESP_verify_response(v.get(), resp.get()) != 1) return failed("verification failed");
  return true;
}

bool inspectResponse(const std::vector<uint8_t>& responseDer, TsResponseFacts* f,
                     std::string* why) {
  const unsigned char* p = responseDer.data();
  Owned<TS_RESP> resp(d2i_TS_RESP(nullptr, &p, static_cast<long>(responseDer.size())));
  if (!resp) {
    if (why != nullptr) *why = "d2i_TS_RESP failed: " + openSslErrors();
    return false;
  }
  *f = TsResponseFacts();
  const TS_STATUS_INFO* si = TS_RESP_get_status_info(resp.get());
  f->status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(si));
  if (const auto* texts = TS_STATUS_INFO_get0_text(si)) {
    for (int i = 0; i < sk_ASN1_UTF8STRING_num(texts); ++i) {
      const ASN1_UTF8STRING* s = sk_ASN1_UTF8STRING_value(texts, i);
      f->statusTexts.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                                  static_cast<size_t>(ASN1_STRING_length(s)));
    }
  }
  if (const ASN1_BIT_STRING* bits = TS_STATUS_INFO_get0_failure_info(si)) {
    for (int i = 0; i < 8 * ASN1_STRING_length(bits); ++i) {
      if (ASN1_BIT_STRING_get_bit(bits, i)) f->failureBits.push_back(i);
    }
  }
  PKCS7* token = TS_RESP_get_token(resp.get());
  TS_TST_INFO* tst = TS_RESP_get_tst_info(resp.get());
  f->hasToken = token != nullptr && tst != nullptr;
  if (!f->hasToken) return true;

  char oid[128];
  OBJ_obj2txt(oid, sizeof oid, TS_TST_INFO_get_policy_id(tst), 1);
  f->policyOid = oid;
  f->serial = ASN1_INTEGER_get(TS_TST_INFO_get_serial(tst));
  const ASN1_GENERALIZEDTIME* t = TS_TST_INFO_get_time(tst);
  f->genTime.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(t)),
                    static_cast<size_t>(ASN1_STRING_length(t)));
  TS_MSG_IMPRINT* imprint = TS_TST_INFO_get_msg_imprint(tst);
  const ASN1_OBJECT* algo = nullptr;
  X509_ALGOR_get0(&algo, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
  f->imprintNid = OBJ_obj2nid(algo);
  const ASN1_OCTET_STRING* msg = TS_MSG_IMPRINT_get_msg(imprint);
  const unsigned char* md = ASN1_STRING_get0_data(msg);
  f->imprint.assign(md, md + ASN1_STRING_length(msg));
  if (const ASN1_INTEGER* nonce = TS_TST_INFO_get_nonce(tst)) {
    f->hasNonce = true;
    f->nonce = ASN1_INTEGER_get(nonce);
  }
  f->hasAccuracy = TS_TST_INFO_get_accuracy(tst) != nullptr;
  f->ordering = TS_TST_INFO_get_ordering(tst) != 0;
  f->hasTsaName = TS_TST_INFO_get_tsa(tst) != nullptr;
  if (PKCS7_type_is_signed(token)) {
    f->certificateCount = token->d.sign->cert != nullptr ? sk_X509_num(token->d.sign->cert) : 0;
    f->signerCount = sk_PKCS7_SIGNER_INFO_num(PKCS7_get_signer_info(token));
  }
  return true;
}

}  // namespace testing_support
