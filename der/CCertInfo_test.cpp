#include "der/CCertInfo.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "der/CAsn1issuerSerial.h"
#include "der/CAsn1time.h"
#include "der/Der.h"
#include "ossl/KeyType.h"
#include "testing/TempDir.h"
#include "testing/TokenMaker.h"
#include "tools/testtsa/CertMaker.h"

namespace {

using Bytes = std::vector<unsigned char>;

template <class T>
Bytes i2dOf(const T* object, int (*i2d)(const T*, unsigned char**)) {
  unsigned char* out = nullptr;
  const int n = i2d(object, &out);
  Bytes der(out, out + (n > 0 ? n : 0));
  OPENSSL_free(out);
  return der;
}

CCertInfo infoOf(const Bytes& der) {
  return CCertInfo(der.data(), static_cast<unsigned>(der.size()));
}

// One CA, an RSA and a DSA certificate for all tests of this file: key
// generation is the slow part.
struct Pki {
  testtsa::CertAuthority ca;
  EvpPkeyPtr rsaKey = testtsa::generateKey(testtsa::KeyKind::kRsa);
  EvpPkeyPtr dsaKey = testtsa::generateKey(testtsa::KeyKind::kDsa);
  X509Ptr rsaCert = ca.issue(rsaKey.get(), "rsa signer", -3600, 86400);
  X509Ptr dsaCert = ca.issue(dsaKey.get(), "dsa signer", -3600, 86400);
  Bytes rsaDer = i2dOf(rsaCert.get(), i2d_X509), dsaDer = i2dOf(dsaCert.get(), i2d_X509);
};

const Pki& pki() {
  static const Pki* made = new Pki;
  return *made;
}

TEST(CCertInfo, DecodesDerAndTakesOutTheFields) {
  const Bytes& der = pki().rsaDer;
  CCertInfo cert = infoOf(der);
  EXPECT_EQ(cert.der(), der);
  EXPECT_EQ(cert.getSize(), der.size());
  EXPECT_EQ(cert.GetSubjectName(), "/O=clockette test/CN=rsa signer");
  EXPECT_EQ(cert.GetIssuerName(), "/O=clockette test/CN=clockette test CA");
  EXPECT_EQ(cert.GetSerialNumber(), Bytes({0x03, 0xE8}));  // 1000
  time_t now = time(nullptr);
  EXPECT_NEAR(static_cast<double>(cert.GetNotBefore()), static_cast<double>(now - 3600), 60);
  EXPECT_NEAR(static_cast<double>(cert.GetNotAfter()), static_cast<double>(now + 86400), 60);
  CAsn1time notAfter, notBefore;
  ASSERT_EQ(cert.GetTimeNotAfter(&notAfter), 0);
  struct tm tm = {};
  time_t expected = cert.GetNotAfter();
  char utcTime[16];  // UTCTime before 2050
  strftime(utcTime, sizeof utcTime, "%y%m%d%H%M%SZ", gmtime_r(&expected, &tm));
  EXPECT_EQ(notAfter.derText(), utcTime);
  EXPECT_EQ(cert.GetTimeNotAfterText(), notAfter.displayText());
  ASSERT_EQ(cert.GetTimeNotBefore(&notBefore), 0);
  EXPECT_EQ(cert.GetTimeNotBeforeText(), notBefore.displayText());
  EXPECT_EQ(cert.GetSignatureType(), NID_sha256WithRSAEncryption);

  // getDER appends the bytes as they came.
  DerWriter out;
  out.octet(0xEE);
  ASSERT_EQ(cert.getDER(out), 0);
  ASSERT_EQ(out.size(), der.size() + 1);
  EXPECT_TRUE(std::equal(der.begin(), der.end(), out.data().begin() + 1));
  // The fingerprint is the digest of the DER.
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  for (int nid : {NID_sha1, NID_sha256, NID_sha512}) {
    ASSERT_EQ(cert.GetFingerprint(nid, md, &len), 0);
    EXPECT_EQ(Bytes(md, md + len),
              testing_support::digestOf(nid, std::string(der.begin(), der.end())));
  }
  std::string text = cert.GetFingerprint(NID_sha1);
  EXPECT_EQ(text.size(), 20u * 3 - 1);
  EXPECT_EQ(text[2], ':');
  EXPECT_EQ(cert.GetFingerprint(NID_undef, md, &len), -1);
}

// SEQUENCE { issuer Name, serialNumber INTEGER } of OpenSSL's own encodings.
TEST(CCertInfo, IssuerAndSerialEncodeAsInTheCertificateAndTheSignatureVerifies) {
  CCertInfo cert = infoOf(pki().dsaDer), empty;
  CAsn1issuerSerial ref;
  ASSERT_EQ(cert.GetIssuerAndSerial(&ref), 0);
  EXPECT_EQ(ref.issuer.attributeCount(), 2);
  Bytes expected = i2dOf(X509_get_issuer_name(pki().dsaCert.get()), i2d_X509_NAME);
  const Bytes serial = i2dOf(X509_get0_serialNumber(pki().dsaCert.get()), i2d_ASN1_INTEGER);
  expected.insert(expected.end(), serial.begin(), serial.end());
  ASSERT_LT(expected.size(), 256u);
  expected.insert(expected.begin(), {0x30, 0x81, static_cast<unsigned char>(expected.size())});
  if (expected[2] < 128) expected.erase(expected.begin() + 1);
  EXPECT_EQ(encodeDER(ref), expected);
  EXPECT_EQ(empty.GetIssuerAndSerial(&ref), -1);
  // The signature verifies only with the issuer's key.
  CCertInfo ca = infoOf(i2dOf(pki().ca.caCert(), i2d_X509));
  EXPECT_EQ(cert.VerifyCertSignature(ca), 0);
  EXPECT_EQ(ca.VerifyCertSignature(ca), 0);  // self-signed
  EXPECT_EQ(cert.VerifyCertSignature(pki().rsaKey.get()), -1);
  EXPECT_EQ(empty.VerifyCertSignature(ca), -2);
  EXPECT_EQ(cert.VerifyCertSignature(empty), -2);
}

TEST(CCertInfo, ReportsTheKeyOfEitherType) {
  const struct {
    const Bytes& der;
    EVP_PKEY* key;
    int type;
  } cases[] = {{pki().rsaDer, pki().rsaKey.get(), kKeyTypeRsa},
               {pki().dsaDer, pki().dsaKey.get(), kKeyTypeDsa}};
  for (const auto& c : cases) {
    CCertInfo cert = infoOf(c.der);
    EXPECT_EQ(cert.GetKeyType(), c.type);
    EXPECT_EQ(cert.GetKeyLength(), 256);
    EXPECT_EQ(cert.GetRSAPublicKey() != nullptr, c.type == kKeyTypeRsa);
    EXPECT_EQ(cert.GetDSApublicKey() != nullptr, c.type == kKeyTypeDsa);
    EXPECT_EQ(EVP_PKEY_eq(cert.GetPublicKey(), c.key), 1);
  }
}

TEST(CCertInfo, RefusesBrokenDer) {
  const Bytes& der = pki().rsaDer;
  Bytes flipped = der;
  flipped[1] ^= 0x01;  // a length that no longer fits
  for (const Bytes& bytes : {Bytes{}, Bytes{0x30, 0x00}, Bytes{0x02, 0x01, 0x05},
                             Bytes(der.begin(), der.end() - 10), flipped}) {
    CCertInfo cert = infoOf(bytes);
    EXPECT_FALSE(cert.ok()) << bytes.size();
    EXPECT_EQ(cert.GetKeyType(), -1);
    EXPECT_EQ(cert.GetRSAPublicKey(), nullptr);
    CAsn1time t;
    EXPECT_EQ(cert.GetTimeNotAfter(&t), -1);
    DerWriter out;
    EXPECT_EQ(cert.getDER(out), -1);
    EXPECT_EQ(out.size(), 0u);
  }
}

// A failed read keeps what was held before.
TEST(CCertInfo, PemRoundTripAndReadFailures) {
  testing_support::TempDir dir;
  CCertInfo cert = infoOf(pki().rsaDer), back, empty;
  ASSERT_EQ(cert.writePEM(dir.file("cert.pem").c_str()), 0);
  EXPECT_FALSE(back.ok());
  ASSERT_EQ(back.readPEM(dir.file("cert.pem").c_str()), 0);
  EXPECT_EQ(back.der(), pki().rsaDer);
  EXPECT_EQ(back.GetSubjectName(), cert.GetSubjectName());

  testing_support::writeFile(dir.file("junk.pem"), "not a certificate\n");
  EXPECT_EQ(back.readPEM(dir.file("missing.pem").c_str()), -1);
  EXPECT_EQ(back.readPEM(dir.file("junk.pem").c_str()), -2);
  EXPECT_EQ(back.readPEM(nullptr), -1);
  EXPECT_TRUE(back.ok());
  EXPECT_EQ(cert.writePEM(dir.file("no/such/dir/cert.pem").c_str()), -1);
  EXPECT_EQ(empty.writePEM(dir.file("empty.pem").c_str()), -1);
}

}  // namespace
