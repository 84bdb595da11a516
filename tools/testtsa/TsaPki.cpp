#include "tools/testtsa/TsaPki.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdio>
#include <vector>

namespace testtsa {
namespace {

using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, BIO_free_all>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION, X509_EXTENSION_free>>;

constexpr int kKeyBits = 2048;
constexpr long kValidDays = 3650;

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string keyFileOf(const std::string& certFile) {
  return certFile.substr(0, certFile.size() - 4) + "-key.pem";
}

X509Ptr readCert(const std::string& path) {
  BioPtr bio(BIO_new_file(path.c_str(), "r"));
  if (!bio) return nullptr;
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

EvpPkeyPtr readKey(const std::string& path) {
  BioPtr bio(BIO_new_file(path.c_str(), "r"));
  if (!bio) return nullptr;
  return EvpPkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// Serial number of serialBytes octets, the first one 0x01..0x7F so that it is
// positive and its DER content has exactly that many octets; a small number
// when serialBytes is 0.
bool setSerial(X509* cert, long small, int serialBytes) {
  if (serialBytes <= 0) return ASN1_INTEGER_set(X509_get_serialNumber(cert), small) == 1;
  std::vector<unsigned char> bytes(static_cast<size_t>(serialBytes));
  if (RAND_bytes(bytes.data(), serialBytes) != 1) return false;
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x01);
  BIGNUM* bn = BN_bin2bn(bytes.data(), serialBytes, nullptr);
  bool ok = bn && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert)) != nullptr;
  BN_free(bn);
  return ok;
}

struct CertParams {
  const char* commonName;
  long serial = 1;
  int serialBytes = 0;
  long notBeforeDays = -1;  // relative to now
  long notAfterDays = kValidDays;
};

// A certificate for subject CN=commonName with key, signed by issuer/issuerKey
// (self-signed when issuer is null). extensions: pairs of NID and config value.
X509Ptr makeCert(const CertParams& params, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
                 std::initializer_list<std::pair<int, const char*>> extensions) {
  X509Ptr cert(X509_new());
  if (!cert) return nullptr;
  X509_set_version(cert.get(), 2);
  if (!setSerial(cert.get(), params.serial, params.serialBytes)) return nullptr;
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("clockette test"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(params.commonName), -1, -1, 0);
  X509* signer = issuer ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), params.notBeforeDays * 24 * 3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), params.notAfterDays * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  for (const auto& ext : extensions) {
    if (!addExtension(cert.get(), signer, ext.first, ext.second)) return nullptr;
  }
  if (X509_sign(cert.get(), issuer ? issuerKey : key, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

X509Ptr makeCert(const char* commonName, long serial, EVP_PKEY* key, X509* issuer,
                 EVP_PKEY* issuerKey,
                 std::initializer_list<std::pair<int, const char*>> extensions) {
  CertParams params;
  params.commonName = commonName;
  params.serial = serial;
  return makeCert(params, key, issuer, issuerKey, extensions);
}

EVP_PKEY* generateKey(KeyKind kind) {
  switch (kind) {
    case KeyKind::kRsa:
      return EVP_RSA_gen(kKeyBits);
    case KeyKind::kRsaPss: {
      EVP_PKEY* key = nullptr;
      EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr);
      if (ctx && EVP_PKEY_keygen_init(ctx) == 1 &&
          EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, kKeyBits) == 1) {
        EVP_PKEY_generate(ctx, &key);
      }
      EVP_PKEY_CTX_free(ctx);
      return key;
    }
    case KeyKind::kEc256:
      return EVP_EC_gen("P-256");
    case KeyKind::kEc384:
      return EVP_EC_gen("P-384");
  }
  return nullptr;
}

const char* keyKindName(KeyKind kind) {
  switch (kind) {
    case KeyKind::kRsa:
      return "rsa";
    case KeyKind::kRsaPss:
      return "rsa-pss";
    case KeyKind::kEc256:
      return "ec256";
    case KeyKind::kEc384:
      return "ec384";
  }
  return "?";
}

std::string dirOf(const std::string& file) { return file.substr(0, file.rfind('/')); }

// Writes to temporary names first, so that a server starting in parallel on
// the same directory never loads half a file.
bool writeCertsAndKey(const std::string& certFile, std::initializer_list<X509*> certs,
                      EVP_PKEY* key) {
  std::string keyFile = keyFileOf(certFile);
  std::string tmpCert = certFile + ".tmp", tmpKey = keyFile + ".tmp";
  {
    BioPtr bio(BIO_new_file(tmpKey.c_str(), "w"));
    if (!bio) return false;
    chmod(tmpKey.c_str(), 0600);
    if (PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
      return false;
    }
  }
  {
    BioPtr bio(BIO_new_file(tmpCert.c_str(), "w"));
    if (!bio) return false;
    for (X509* cert : certs) {
      if (cert && PEM_write_bio_X509(bio.get(), cert) != 1) return false;
    }
  }
  return rename(tmpKey.c_str(), keyFile.c_str()) == 0 &&
         rename(tmpCert.c_str(), certFile.c_str()) == 0;
}

// The intermediate CA (P-384) under pki's CA, for certificates serials of serialBytes.
bool loadOrCreateIntermediate(const TsaPki& pki, int serialBytes, X509Ptr* cert, EvpPkeyPtr* key) {
  std::string file = dirOf(pki.caFile) + "/inter" +
                     (serialBytes > 0 ? "-s" + std::to_string(serialBytes) : "") + ".pem";
  if (fileExists(file) && fileExists(keyFileOf(file))) {
    *cert = readCert(file);
    *key = readKey(keyFileOf(file));
    return *cert && *key;
  }
  key->reset(generateKey(KeyKind::kEc384));
  if (!*key) return false;
  CertParams params;
  params.commonName = "clockette test intermediate CA";
  params.serial = 4;
  params.serialBytes = serialBytes;
  *cert = makeCert(params, key->get(), pki.caCert.get(), pki.caKey.get(),
                   {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                    {NID_key_usage, "critical,keyCertSign,cRLSign"},
                    {NID_subject_key_identifier, "hash"},
                    {NID_authority_key_identifier, "keyid"}});
  return *cert && writeCertsAndKey(file, {cert->get()}, key->get());
}

bool createPki(TsaPki* pki) {
  pki->caKey.reset(EVP_RSA_gen(kKeyBits));
  pki->tsaKey.reset(EVP_RSA_gen(kKeyBits));
  pki->tlsKey.reset(EVP_RSA_gen(kKeyBits));
  if (!pki->caKey || !pki->tsaKey || !pki->tlsKey) return false;
  pki->caCert = makeCert("clockette test CA", 1, pki->caKey.get(), nullptr, nullptr,
                         {{NID_basic_constraints, "critical,CA:TRUE"},
                          {NID_key_usage, "critical,keyCertSign,cRLSign"},
                          {NID_subject_key_identifier, "hash"}});
  if (!pki->caCert) return false;
  pki->tsaCert =
      makeCert("clockette test TSA", 2, pki->tsaKey.get(), pki->caCert.get(), pki->caKey.get(),
               {{NID_basic_constraints, "CA:FALSE"},
                {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                {NID_ext_key_usage, "critical,timeStamping"},
                {NID_subject_key_identifier, "hash"},
                {NID_authority_key_identifier, "keyid"}});
  pki->tlsCert = makeCert("localhost", 3, pki->tlsKey.get(), pki->caCert.get(), pki->caKey.get(),
                          {{NID_basic_constraints, "CA:FALSE"},
                           {NID_ext_key_usage, "serverAuth"},
                           {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1"},
                           {NID_subject_key_identifier, "hash"},
                           {NID_authority_key_identifier, "keyid"}});
  if (!pki->tsaCert || !pki->tlsCert) return false;
  return writeCertsAndKey(pki->caFile, {pki->caCert.get()}, pki->caKey.get()) &&
         writeCertsAndKey(pki->tsaCertFile, {pki->tsaCert.get()}, pki->tsaKey.get()) &&
         writeCertsAndKey(pki->tlsCertFile, {pki->tlsCert.get()}, pki->tlsKey.get());
}

}  // namespace

bool parseKeyKind(const std::string& name, KeyKind* kind) {
  for (KeyKind k : {KeyKind::kRsa, KeyKind::kRsaPss, KeyKind::kEc256, KeyKind::kEc384}) {
    if (name == keyKindName(k)) {
      *kind = k;
      return true;
    }
  }
  return false;
}

bool loadOrCreateSigner(const TsaPki& pki, const SignerProfile& profile, Signer* signer,
                        std::string* error) {
  X509Ptr inter;
  EvpPkeyPtr interKey;
  if (profile.intermediate && !loadOrCreateIntermediate(pki, profile.serialBytes, &inter, &interKey)) {
    *error = "cannot make the intermediate CA: " + openSslErrorText();
    return false;
  }
  std::string name = std::string("tsa-") + keyKindName(profile.key);
  if (profile.intermediate) name += "-inter";
  if (profile.serialBytes > 0) name += "-s" + std::to_string(profile.serialBytes);
  if (!profile.timeStamping) name += "-noeku";
  if (profile.expired) name += "-expired";
  bool byDefault = name == "tsa-rsa";
  signer->certFile = byDefault ? pki.tsaCertFile : dirOf(pki.caFile) + "/" + name + ".pem";
  if (byDefault) {
    signer->cert.reset(X509_dup(pki.tsaCert.get()));
    signer->key.reset(EVP_PKEY_dup(pki.tsaKey.get()));
  } else if (fileExists(signer->certFile) && fileExists(keyFileOf(signer->certFile))) {
    signer->cert = readCert(signer->certFile);
    signer->key = readKey(keyFileOf(signer->certFile));
  } else {
    signer->key.reset(generateKey(profile.key));
    CertParams params;
    params.commonName = "clockette test TSA";
    params.serial = 5;
    params.serialBytes = profile.serialBytes;
    if (profile.expired) {
      params.notBeforeDays = -30;
      params.notAfterDays = -1;
    }
    X509* issuer = inter ? inter.get() : pki.caCert.get();
    EVP_PKEY* issuerKey = inter ? interKey.get() : pki.caKey.get();
    if (signer->key) {
      signer->cert = profile.timeStamping
                         ? makeCert(params, signer->key.get(), issuer, issuerKey,
                                    {{NID_basic_constraints, "CA:FALSE"},
                                     {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                                     {NID_ext_key_usage, "critical,timeStamping"},
                                     {NID_subject_key_identifier, "hash"},
                                     {NID_authority_key_identifier, "keyid"}})
                         : makeCert(params, signer->key.get(), issuer, issuerKey,
                                    {{NID_basic_constraints, "CA:FALSE"},
                                     {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                                     {NID_subject_key_identifier, "hash"},
                                     {NID_authority_key_identifier, "keyid"}});
    }
    if (signer->cert &&
        !writeCertsAndKey(signer->certFile, {signer->cert.get(), inter.get()}, signer->key.get())) {
      signer->cert.reset();
    }
  }
  if (!signer->cert || !signer->key) {
    *error = "cannot load or make the signer " + signer->certFile + ": " + openSslErrorText();
    return false;
  }
  signer->issuers.clear();
  if (inter) signer->issuers.push_back(std::move(inter));
  signer->issuers.emplace_back(X509_dup(pki.caCert.get()));
  return true;
}

std::string openSslErrorText() {
  std::string text;
  unsigned long code;
  while ((code = ERR_get_error()) != 0) {
    char buf[256];
    ERR_error_string_n(code, buf, sizeof buf);
    if (!text.empty()) text += "; ";
    text += buf;
  }
  return text;
}

bool loadOrCreatePki(const std::string& dir, TsaPki* pki, std::string* error) {
  pki->caFile = dir + "/ca.pem";
  pki->tsaCertFile = dir + "/tsa.pem";
  pki->tlsCertFile = dir + "/tls.pem";
  bool complete = true;
  for (const std::string* f : {&pki->caFile, &pki->tsaCertFile, &pki->tlsCertFile}) {
    complete = complete && fileExists(*f) && fileExists(keyFileOf(*f));
  }
  if (!complete) {
    if (!createPki(pki)) {
      *error = "cannot create the certificates in " + dir + ": " + openSslErrorText();
      return false;
    }
    return true;
  }
  pki->caCert = readCert(pki->caFile);
  pki->caKey = readKey(keyFileOf(pki->caFile));
  pki->tsaCert = readCert(pki->tsaCertFile);
  pki->tsaKey = readKey(keyFileOf(pki->tsaCertFile));
  pki->tlsCert = readCert(pki->tlsCertFile);
  pki->tlsKey = readKey(keyFileOf(pki->tlsCertFile));
  if (!pki->caCert || !pki->caKey || !pki->tsaCert || !pki->tsaKey || !pki->tlsCert ||
      !pki->tlsKey) {
    *error = "cannot load the certificates from " + dir + ": " + openSslErrorText();
    return false;
  }
  return true;
}

}  // namespace testtsa
