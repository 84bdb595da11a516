#include "tools/testtsa/TsaPki.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdio>

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

bool writeCertAndKey(const std::string& certFile, X509* cert, EVP_PKEY* key) {
  BioPtr certBio(BIO_new_file(certFile.c_str(), "w"));
  if (!certBio || !PEM_write_bio_X509(certBio.get(), cert)) return false;
  std::string keyFile = keyFileOf(certFile);
  BioPtr keyBio(BIO_new_file(keyFile.c_str(), "w"));
  if (!keyBio) return false;
  chmod(keyFile.c_str(), 0600);
  return PEM_write_bio_PrivateKey(keyBio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// A certificate for subject CN=commonName with key, signed by issuer/issuerKey
// (self-signed when issuer is null). extensions: pairs of NID and config value.
X509Ptr makeCert(const char* commonName, long serial, EVP_PKEY* key, X509* issuer,
                 EVP_PKEY* issuerKey,
                 std::initializer_list<std::pair<int, const char*>> extensions) {
  X509Ptr cert(X509_new());
  if (!cert) return nullptr;
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("clockette test"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509* signer = issuer ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -24L * 3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidDays * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  for (const auto& ext : extensions) {
    if (!addExtension(cert.get(), signer, ext.first, ext.second)) return nullptr;
  }
  if (X509_sign(cert.get(), issuer ? issuerKey : key, EVP_sha256()) <= 0) return nullptr;
  return cert;
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
  return writeCertAndKey(pki->caFile, pki->caCert.get(), pki->caKey.get()) &&
         writeCertAndKey(pki->tsaCertFile, pki->tsaCert.get(), pki->tsaKey.get()) &&
         writeCertAndKey(pki->tlsCertFile, pki->tlsCert.get(), pki->tlsKey.get());
}

}  // namespace

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
