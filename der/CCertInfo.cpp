#include "der/CCertInfo.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>

#include "base/Log.h"
#include "der/CAsn1issuerSerial.h"
#include "der/Der.h"
#include "ossl/OpenSslErrors.h"

namespace {

std::string nameText(const X509_NAME* name) {
  char buf[1024];
  if (X509_NAME_oneline(name, buf, sizeof(buf)) == nullptr) return std::string();
  return buf;
}

bool toEpoch(const ASN1_TIME* t, time_t* out) {
  struct tm tm = {};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) return false;
  *out = timegm(&tm);
  return true;
}

std::string epochText(time_t t) {
  struct tm tm = {};
  if (gmtime_r(&t, &tm) == nullptr) return std::string();
  char buf[64];
  snprintf(buf, sizeof(buf), "%04d-%02d-%02d %02d:%02d:%02d GMT", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buf;
}

}  // namespace

CCertInfo::CCertInfo() = default;

CCertInfo::CCertInfo(const unsigned char* der, unsigned int length) {
  Log log("CCertInfo", "CCertInfo", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "Initializing certificate object with %d bytes", static_cast<int>(length));
  if (der == nullptr || length == 0) {
    log.msg(__LINE__, 2, "Parsing certificate with d2i_X509() failed.");
    return;
  }
  const unsigned char* p = der;
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(length)));
  if (!cert) {
    log.msg(__LINE__, 2, "Parsing certificate with d2i_X509() failed.");
    logOpenSslErrorQueue("CCertInfo", "CCertInfo");
    return;
  }
  cert_ = std::move(cert);
  // Keep the bytes as they came: re-encoding a decoded certificate is not
  // guaranteed to reproduce them, and the signature covers the original.
  der_.assign(der, p);
  if (!analyze()) {
    log.msg(__LINE__, 2, "Analyzing certificate info-fields failed.");
    clear();
  }
}

CCertInfo::~CCertInfo() = default;

void CCertInfo::clear() {
  cert_.reset();
  der_.clear();
  issuerDer_.clear();
  serial_.clear();
  subjectText_.clear();
  notBefore_ = notAfter_ = 0;
  publicKey_.reset();
}

bool CCertInfo::analyze() {
  Log log("CCertInfo", "analyze", __FILE__, __LINE__, 13);
  X509* c = cert_.get();
  const X509_NAME* issuer = X509_get_issuer_name(c);
  const X509_NAME* subject = X509_get_subject_name(c);
  const ASN1_INTEGER* serial = X509_get0_serialNumber(c);
  if (issuer == nullptr || subject == nullptr || serial == nullptr) return false;

  unsigned char* out = nullptr;
  int n = i2d_X509_NAME(issuer, &out);
  if (n <= 0) return false;
  OpenSslBytesPtr issuerBytes(out);
  issuerDer_.assign(out, out + n);

  // The serial number's INTEGER contents: the DER without tag and length.
  out = nullptr;
  n = i2d_ASN1_INTEGER(serial, &out);
  if (n <= 0) return false;
  OpenSslBytesPtr serialBytes(out);
  const unsigned char* q = out;
  long len = 0;
  int tag = 0, cls = 0;
  if (ASN1_get_object(&q, &len, &tag, &cls, n) & 0x80) return false;
  serial_.assign(q, q + len);

  if (!toEpoch(X509_get0_notBefore(c), &notBefore_) ||
      !toEpoch(X509_get0_notAfter(c), &notAfter_)) {
    return false;
  }
  publicKey_.reset(X509_get_pubkey(c));
  if (!publicKey_) return false;
  subjectText_ = nameText(subject);
  log.msg(__LINE__, 9, "certificate of %s issued by %s", subjectText_.c_str(),
          nameText(issuer).c_str());
  return true;
}

int CCertInfo::readPEM(const char* file) {
  Log log("CCertInfo", "readPEM", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "Reading PEM-file \"%s\"", file != nullptr ? file : "");
  BioPtr in(file != nullptr ? BIO_new_file(file, "r") : nullptr);
  if (!in) {
    log.msg(__LINE__, 2, "Unable ot open certificate file %s", file != nullptr ? file : "(null)");
    logOpenSslErrorQueue("CCertInfo", "readPEM");
    return -1;
  }
  X509Ptr cert(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  if (!cert) {
    log.msg(__LINE__, 2, "DER-decoding failed. Input file was %s", file);
    logOpenSslErrorQueue("CCertInfo", "readPEM");
    return -2;
  }
  clear();
  unsigned char* out = nullptr;
  int n = i2d_X509(cert.get(), &out);
  if (n <= 0) {
    log.msg(__LINE__, 2, "DER-decoding failed. Input file was %s", file);
    logOpenSslErrorQueue("CCertInfo", "readPEM");
    return -2;
  }
  OpenSslBytesPtr bytes(out);
  der_.assign(out, out + n);
  cert_ = std::move(cert);
  if (!analyze()) {
    log.msg(__LINE__, 2, "Analyzing certificate info-fields failed.");
    clear();
    return -3;
  }
  return 0;
}

int CCertInfo::getDER(DerWriter& out) const {
  Log log("CCertInfo", "getDER", __FILE__, __LINE__, 13);
  if (der_.empty()) {
    log.msg(__LINE__, 2, "Object not initialized");
    return -1;
  }
  out.bytes(der_);
  return 0;
}

std::string CCertInfo::GetSubjectName() const { return subjectText_; }

int CCertInfo::GetIssuerAndSerial(CAsn1issuerSerial* out) const {
  Log log("CCertInfo", "GetIssuerAndSerial", __FILE__, __LINE__, 13);
  if (!ok()) return -1;
  unsigned int pos = 0;
  if (out->issuer.setDER(issuerDer_.data(), &pos, static_cast<unsigned int>(issuerDer_.size())) !=
      0) {
    log.msg(__LINE__, 2, "issuer name of %s can't be decoded", subjectText_.c_str());
    return -1;
  }
  out->serial.setVal(kTagInteger, serial_.data(), static_cast<unsigned int>(serial_.size()));
  return 0;
}

std::string CCertInfo::GetTimeNotBeforeText() const {
  return ok() ? epochText(notBefore_) : std::string();
}

std::string CCertInfo::GetTimeNotAfterText() const {
  return ok() ? epochText(notAfter_) : std::string();
}

EvpPkeyPtr CCertInfo::GetRSAPublicKey() const {
  if (!publicKey_ || EVP_PKEY_get_base_id(publicKey_.get()) != EVP_PKEY_RSA) return nullptr;
  EVP_PKEY_up_ref(publicKey_.get());
  return EvpPkeyPtr(publicKey_.get());
}

EvpPkeyPtr CCertInfo::GetDSApublicKey() const {
  if (!publicKey_ || EVP_PKEY_get_base_id(publicKey_.get()) != EVP_PKEY_DSA) return nullptr;
  EVP_PKEY_up_ref(publicKey_.get());
  return EvpPkeyPtr(publicKey_.get());
}
