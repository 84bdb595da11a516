#include "testing/TestCa.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace testing_support {

namespace {

X509Ptr makeCert(EVP_PKEY* subjectKey, const std::string& commonName, long serial, long from,
                 long to, X509* issuer, EVP_PKEY* issuerKey, bool ca, bool timestamping) {
  X509Ptr cert(X509_new());
  if (!cert) return nullptr;
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), from);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), to);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "C", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("DE"),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("clockette tests"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
  if (X509_set_pubkey(cert.get(), subjectKey) != 1) return nullptr;

  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer != nullptr ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  auto add = [&](int nid, const char* value) {
    X509ExtensionPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    return ext && X509_add_ext(cert.get(), ext.get(), -1) == 1;
  };
  bool extOk = ca ? add(NID_basic_constraints, "critical,CA:TRUE") &&
                        add(NID_key_usage, "critical,keyCertSign,cRLSign") &&
                        add(NID_subject_key_identifier, "hash")
                  : add(NID_basic_constraints, "CA:FALSE") &&
                        add(NID_key_usage, "critical,digitalSignature,nonRepudiation") &&
                        add(NID_subject_key_identifier, "hash") &&
                        add(NID_authority_key_identifier, "keyid:always");
  if (extOk && timestamping) extOk = add(NID_ext_key_usage, "critical,timeStamping");
  if (!extOk) return nullptr;
  if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

std::string errors() {
  std::string text;
  unsigned long e;
  char buf[256];
  while ((e = ERR_get_error()) != 0) {
    ERR_error_string_n(e, buf, sizeof(buf));
    if (!text.empty()) text += "; ";
    text += buf;
  }
  return text;
}

}  // namespace

EvpPkeyPtr makeRsaKey(int bits) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
  EVP_PKEY* key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0 ||
      EVP_PKEY_keygen(ctx.get(), &key) <= 0) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

EvpPkeyPtr makeDsaKey(int bits) {
  EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr));
  EVP_PKEY* params = nullptr;
  if (!pctx || EVP_PKEY_paramgen_init(pctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), bits) <= 0 ||
      EVP_PKEY_paramgen(pctx.get(), &params) <= 0) {
    return nullptr;
  }
  EvpPkeyPtr paramsOwner(params);
  EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new(params, nullptr));
  EVP_PKEY* key = nullptr;
  if (!kctx || EVP_PKEY_keygen_init(kctx.get()) <= 0 || EVP_PKEY_keygen(kctx.get(), &key) <= 0) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

TestCa::TestCa() {
  caKey_ = makeRsaKey(2048);
  if (caKey_) {
    ca_ = makeCert(caKey_.get(), "clockette test CA", 1, -86400L, 10L * 365 * 86400, nullptr,
                   caKey_.get(), true, false);
  }
  if (!ca_) error_ = "CA set-up failed: " + errors();
}

X509Ptr TestCa::issue(EVP_PKEY* subjectKey, const std::string& commonName, long from, long to,
                      bool timestamping) {
  if (!ok()) return nullptr;
  X509Ptr cert = makeCert(subjectKey, commonName, nextSerial_++, from, to, ca_.get(), caKey_.get(),
                          false, timestamping);
  if (!cert) error_ = "issuing failed: " + errors();
  return cert;
}

bool TestCa::writeCertPem(X509* cert, const std::string& path) {
  BioPtr out(BIO_new_file(path.c_str(), "w"));
  return out && PEM_write_bio_X509(out.get(), cert) == 1 && BIO_flush(out.get()) == 1;
}

bool TestCa::writeKeyPem(EVP_PKEY* key, const std::string& path) {
  BioPtr out(BIO_new_file(path.c_str(), "w"));
  return out &&
         PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
         BIO_flush(out.get()) == 1;
}

}  // namespace testing_support
