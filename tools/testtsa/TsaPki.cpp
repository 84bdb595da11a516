#include "tools/testtsa/TsaPki.h"

#include <sys/stat.h>

#include <cstdio>

#include "ossl/OpenSslErrors.h"

namespace testtsa {
namespace {

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string keyFileOf(const std::string& certFile) {
  return certFile.substr(0, certFile.size() - 4) + "-key.pem";
}

std::string dirOf(const std::string& file) { return file.substr(0, file.rfind('/')); }

// Writes to temporary names first, so that a server starting in parallel on
// the same directory never loads half a file.
bool writeCertsAndKey(const std::string& certFile, std::initializer_list<X509*> certs,
                      EVP_PKEY* key) {
  std::string keyFile = keyFileOf(certFile);
  std::string tmpCert = certFile + ".tmp", tmpKey = keyFile + ".tmp";
  return writeKey(tmpKey, key) && writeCertificates(tmpCert, certs) &&
         rename(tmpKey.c_str(), keyFile.c_str()) == 0 &&
         rename(tmpCert.c_str(), certFile.c_str()) == 0;
}

// Loads a certificate and its key written by an earlier run; false when either is missing.
bool loadPair(const std::string& certFile, X509Ptr* cert, EvpPkeyPtr* key) {
  if (!fileExists(certFile) || !fileExists(keyFileOf(certFile))) return false;
  *cert = readCertificate(certFile);
  *key = readKey(keyFileOf(certFile));
  return true;
}

// The intermediate CA (P-384) under pki's CA, for certificates serials of serialBytes.
bool loadOrCreateIntermediate(const TsaPki& pki, int serialBytes, X509Ptr* cert, EvpPkeyPtr* key) {
  std::string file = dirOf(pki.caFile) + "/inter" +
                     (serialBytes > 0 ? "-s" + std::to_string(serialBytes) : "") + ".pem";
  if (loadPair(file, cert, key)) return *cert && *key;
  *key = generateKey(KeyKind::kEc384);
  if (!*key) return false;
  CertOrder order;
  order.commonName = "clockette test intermediate CA";
  order.role = CertRole::kIntermediateCa;
  order.serial = 4;
  order.serialBytes = serialBytes;
  *cert = makeCertificate(order, key->get(), pki.caCert.get(), pki.caKey.get());
  return *cert && writeCertsAndKey(file, {cert->get()}, key->get());
}

bool createPki(TsaPki* pki) {
  pki->caKey = generateKey(KeyKind::kRsa);
  pki->tsaKey = generateKey(KeyKind::kRsa);
  pki->tlsKey = generateKey(KeyKind::kRsa);
  if (!pki->caKey || !pki->tsaKey || !pki->tlsKey) return false;
  CertOrder ca{"clockette test CA", CertRole::kRootCa, 1};
  CertOrder tsa{"clockette test TSA", CertRole::kTimestamping, 2};
  CertOrder tls{"localhost", CertRole::kTls, 3};
  pki->caCert = makeCertificate(ca, pki->caKey.get());
  if (!pki->caCert) return false;
  pki->tsaCert = makeCertificate(tsa, pki->tsaKey.get(), pki->caCert.get(), pki->caKey.get());
  pki->tlsCert = makeCertificate(tls, pki->tlsKey.get(), pki->caCert.get(), pki->caKey.get());
  if (!pki->tsaCert || !pki->tlsCert) return false;
  return writeCertsAndKey(pki->caFile, {pki->caCert.get()}, pki->caKey.get()) &&
         writeCertsAndKey(pki->tsaCertFile, {pki->tsaCert.get()}, pki->tsaKey.get()) &&
         writeCertsAndKey(pki->tlsCertFile, {pki->tlsCert.get()}, pki->tlsKey.get());
}

}  // namespace

bool loadOrCreateSigner(const TsaPki& pki, const SignerProfile& profile, Signer* signer,
                        std::string* error) {
  X509Ptr inter;
  EvpPkeyPtr interKey;
  if (profile.intermediate &&
      !loadOrCreateIntermediate(pki, profile.serialBytes, &inter, &interKey)) {
    *error = "cannot make the intermediate CA: " + takeOpenSslErrors();
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
  } else if (!loadPair(signer->certFile, &signer->cert, &signer->key)) {
    signer->key = generateKey(profile.key);
    CertOrder order;
    order.commonName = "clockette test TSA";
    order.role = profile.timeStamping ? CertRole::kTimestamping : CertRole::kSigner;
    order.serial = 5;
    order.serialBytes = profile.serialBytes;
    if (profile.expired) {
      order.notBefore = -30L * 86400;
      order.notAfter = -86400;
    }
    X509* issuer = inter ? inter.get() : pki.caCert.get();
    EVP_PKEY* issuerKey = inter ? interKey.get() : pki.caKey.get();
    if (signer->key) signer->cert = makeCertificate(order, signer->key.get(), issuer, issuerKey);
    if (signer->cert &&
        !writeCertsAndKey(signer->certFile, {signer->cert.get(), inter.get()}, signer->key.get())) {
      signer->cert.reset();
    }
  }
  if (!signer->cert || !signer->key) {
    *error = "cannot load or make the signer " + signer->certFile + ": " + takeOpenSslErrors();
    return false;
  }
  signer->issuers.clear();
  if (inter) signer->issuers.push_back(std::move(inter));
  signer->issuers.emplace_back(X509_dup(pki.caCert.get()));
  return true;
}

bool loadOrCreatePki(const std::string& dir, TsaPki* pki, std::string* error) {
  pki->caFile = dir + "/ca.pem";
  pki->tsaCertFile = dir + "/tsa.pem";
  pki->tlsCertFile = dir + "/tls.pem";
  bool complete = loadPair(pki->caFile, &pki->caCert, &pki->caKey) &&
                  loadPair(pki->tsaCertFile, &pki->tsaCert, &pki->tsaKey) &&
                  loadPair(pki->tlsCertFile, &pki->tlsCert, &pki->tlsKey);
  if (!complete) {
    if (!createPki(pki)) {
      *error = "cannot create the certificates in " + dir + ": " + takeOpenSslErrors();
      return false;
    }
    return true;
  }
  if (!pki->caCert || !pki->caKey || !pki->tsaCert || !pki->tsaKey || !pki->tlsCert ||
      !pki->tlsKey) {
    *error = "cannot load the certificates from " + dir + ": " + takeOpenSslErrors();
    return false;
  }
  return true;
}

}  // namespace testtsa
