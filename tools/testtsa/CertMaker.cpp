#include "tools/testtsa/CertMaker.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <utility>
#include <vector>

namespace testtsa {
namespace {

constexpr int kKeyBits = 2048;

const struct {
  KeyKind kind;
  const char* name;
} kServerKeys[] = {{KeyKind::kRsa, "rsa"},
                   {KeyKind::kRsaPss, "rsa-pss"},
                   {KeyKind::kEc256, "ec256"},
                   {KeyKind::kEc384, "ec384"}};

EvpPkeyPtr generateFromContext(EVP_PKEY_CTX* ctx, bool rsaBits) {
  EvpPkeyCtxPtr owner(ctx);
  EVP_PKEY* key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx) <= 0 ||
      (rsaBits && EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, kKeyBits) <= 0) ||
      EVP_PKEY_keygen(ctx, &key) <= 0) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

EvpPkeyPtr generateDsaKey() {
  EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr));
  EVP_PKEY* params = nullptr;
  if (!pctx || EVP_PKEY_paramgen_init(pctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), kKeyBits) <= 0 ||
      EVP_PKEY_paramgen(pctx.get(), &params) <= 0) {
    return nullptr;
  }
  EvpPkeyPtr paramsOwner(params);
  return generateFromContext(EVP_PKEY_CTX_new(params, nullptr), false);
}

// The extensions of each role: pairs of NID and configuration value.
std::vector<std::pair<int, const char*>> extensionsOf(CertRole role) {
  switch (role) {
    case CertRole::kRootCa:
      return {{NID_basic_constraints, "critical,CA:TRUE"},
              {NID_key_usage, "critical,keyCertSign,cRLSign"},
              {NID_subject_key_identifier, "hash"}};
    case CertRole::kIntermediateCa:
      return {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
              {NID_key_usage, "critical,keyCertSign,cRLSign"},
              {NID_subject_key_identifier, "hash"},
              {NID_authority_key_identifier, "keyid"}};
    case CertRole::kTimestamping:
    case CertRole::kSigner: {
      std::vector<std::pair<int, const char*>> extensions = {
          {NID_basic_constraints, "CA:FALSE"},
          {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
          {NID_subject_key_identifier, "hash"},
          {NID_authority_key_identifier, "keyid"}};
      if (role == CertRole::kTimestamping) {
        extensions.insert(extensions.begin() + 2, {NID_ext_key_usage, "critical,timeStamping"});
      }
      return extensions;
    }
    case CertRole::kTls:
      return {{NID_basic_constraints, "CA:FALSE"},
              {NID_ext_key_usage, "serverAuth"},
              {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1"},
              {NID_subject_key_identifier, "hash"},
              {NID_authority_key_identifier, "keyid"}};
  }
  return {};
}

// A serial of serialBytes octets whose first one is 0x01..0x7F, so that it is
// positive and its DER content has exactly that many octets; else the small one.
bool setSerial(X509* cert, long small, int serialBytes) {
  if (serialBytes <= 0) return ASN1_INTEGER_set(X509_get_serialNumber(cert), small) == 1;
  std::vector<unsigned char> bytes(static_cast<size_t>(serialBytes));
  if (RAND_bytes(bytes.data(), serialBytes) != 1) return false;
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x01);
  BignumPtr bn(BN_bin2bn(bytes.data(), serialBytes, nullptr));
  return bn && BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert)) != nullptr;
}

bool addName(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                    0) == 1;
}

}  // namespace

bool parseKeyKind(const std::string& name, KeyKind* kind) {
  for (const auto& key : kServerKeys) {
    if (name == key.name) {
      *kind = key.kind;
      return true;
    }
  }
  return false;
}

const char* keyKindName(KeyKind kind) {
  for (const auto& key : kServerKeys) {
    if (kind == key.kind) return key.name;
  }
  return kind == KeyKind::kEc521 ? "ec521" : "dsa";
}

EvpPkeyPtr generateKey(KeyKind kind) {
  switch (kind) {
    case KeyKind::kRsa:
      return generateFromContext(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr), true);
    case KeyKind::kRsaPss:
      return generateFromContext(EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr), true);
    case KeyKind::kEc256:
      return EvpPkeyPtr(EVP_EC_gen("P-256"));
    case KeyKind::kEc384:
      return EvpPkeyPtr(EVP_EC_gen("P-384"));
    case KeyKind::kEc521:
      return EvpPkeyPtr(EVP_EC_gen("P-521"));
    case KeyKind::kDsa:
      return generateDsaKey();
  }
  return nullptr;
}

X509Ptr makeCertificate(const CertOrder& order, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey) {
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), 2) != 1 ||
      !setSerial(cert.get(), order.serial, order.serialBytes) ||
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), order.notBefore) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), order.notAfter) == nullptr ||
      X509_set_pubkey(cert.get(), key) != 1) {
    return nullptr;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (!addName(name, "O", "clockette test") || !addName(name, "CN", order.commonName)) {
    return nullptr;
  }
  X509* signer = issuer != nullptr ? issuer : cert.get();
  if (X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)) != 1) return nullptr;
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, signer, cert.get(), nullptr, nullptr, 0);
  for (const auto& ext : extensionsOf(order.role)) {
    X509ExtensionPtr made(X509V3_EXT_conf_nid(nullptr, &ctx, ext.first, ext.second));
    if (!made || X509_add_ext(cert.get(), made.get(), -1) != 1) return nullptr;
  }
  if (X509_sign(cert.get(), issuer != nullptr ? issuerKey : key, EVP_sha256()) <= 0) {
    return nullptr;
  }
  return cert;
}

X509Ptr readCertificate(const std::string& path) {
  BioPtr bio(BIO_new_file(path.c_str(), "r"));
  return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

EvpPkeyPtr readKey(const std::string& path) {
  BioPtr bio(BIO_new_file(path.c_str(), "r"));
  return EvpPkeyPtr(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

bool writeCertificates(const std::string& path, std::initializer_list<X509*> certs) {
  BioPtr bio(BIO_new_file(path.c_str(), "w"));
  if (!bio) return false;
  for (X509* cert : certs) {
    if (cert != nullptr && PEM_write_bio_X509(bio.get(), cert) != 1) return false;
  }
  return BIO_flush(bio.get()) == 1;
}

bool writeKey(const std::string& path, EVP_PKEY* key) {
  BioPtr bio(BIO_new_file(path.c_str(), "w"));
  if (!bio) return false;
  chmod(path.c_str(), 0600);
  return PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
         BIO_flush(bio.get()) == 1;
}

CertAuthority::CertAuthority() : key_(generateKey(KeyKind::kRsa)) {
  CertOrder order;
  order.commonName = "clockette test CA";
  order.role = CertRole::kRootCa;
  if (key_) cert_ = makeCertificate(order, key_.get());
}

X509Ptr CertAuthority::issue(EVP_PKEY* subjectKey, const std::string& commonName, long from,
                             long to, bool timestamping) {
  if (!ok()) return nullptr;
  CertOrder order;
  order.commonName = commonName;
  order.role = timestamping ? CertRole::kTimestamping : CertRole::kSigner;
  order.serial = nextSerial_++;
  order.notBefore = from;
  order.notAfter = to;
  return makeCertificate(order, subjectKey, caCert(), caKey());
}

}  // namespace testtsa
