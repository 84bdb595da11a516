#include "der/CCertInfo.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "der/CAsn1issuerSerial.h"
#include "der/Der.h"
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
  time_t now = time(nullptr);
  EXPECT_NEAR(static_cast<double>(cert.GetNotBefore()), static_cast<double>(now - 3600), 60);
  EXPECT_NEAR(static_cast<double>(cert.GetNotAfter()), static_cast<double>(now + 86400), 60);
  for (auto bound : {std::make_pair(cert.GetNotBefore(), cert.GetTimeNotBeforeText()),
                     std::make_pair(cert.GetNotAfter(), cert.GetTimeNotAfterText())}) {
    struct tm tm = {};
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S GMT", gmtime_r(&bound.first, &tm));
    EXPECT_EQ(bound.second, text);
  }

  // getDER appends the bytes as they came.
  DerWriter out;
  out.octet(0xEE);
  ASSERT_EQ(cert.getDER(out), 0);
  ASSERT_EQ(out.size(), der.size() + 1);
  EXPECT_TRUE(std::equal(der.begin(), der.end(), out.data().begin() + 1));
}

// SEQUENCE { issuer Name, serialNumber INTEGER } of OpenSSL's own encodings.
TEST(CCertInfo, IssuerAndSerialEncodeAsInTheCertificate) {
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
}

TEST(CCertInfo, ReportsTheKeyOfEitherType) {
  CCertInfo rsa = infoOf(pki().rsaDer), dsa = infoOf(pki().dsaDer);
  EXPECT_EQ(EVP_PKEY_eq(rsa.GetRSAPublicKey().get(), pki().rsaKey.get()), 1);
  EXPECT_EQ(EVP_PKEY_eq(dsa.GetDSApublicKey().get(), pki().dsaKey.get()), 1);
  EXPECT_EQ(rsa.GetDSApublicKey(), nullptr);
  EXPECT_EQ(dsa.GetRSAPublicKey(), nullptr);
}

TEST(CCertInfo, RefusesBrokenDer) {
  const Bytes& der = pki().rsaDer;
  Bytes flipped = der;
  flipped[1] ^= 0x01;  // a length that no longer fits
  for (const Bytes& bytes : {Bytes{}, Bytes{0x30, 0x00}, Bytes{0x02, 0x01, 0x05},
                             Bytes(der.begin(), der.end() - 10), flipped}) {
    CCertInfo cert = infoOf(bytes);
    EXPECT_FALSE(cert.ok()) << bytes.size();
    EXPECT_EQ(cert.GetRSAPublicKey(), nullptr);
    EXPECT_EQ(cert.GetTimeNotAfterText(), "");
    DerWriter out;
    EXPECT_EQ(cert.getDER(out), -1);
    EXPECT_EQ(out.size(), 0u);
  }
}

// A failed read keeps what was held before.
TEST(CCertInfo, PemRoundTripAndReadFailures) {
  testing_support::TempDir dir;
  CCertInfo cert = infoOf(pki().rsaDer), back;
  FILE* pem = fopen(dir.file("cert.pem").c_str(), "w");
  ASSERT_TRUE(pem != nullptr && PEM_write_X509(pem, pki().rsaCert.get()) == 1);
  fclose(pem);
  EXPECT_FALSE(back.ok());
  ASSERT_EQ(back.readPEM(dir.file("cert.pem").c_str()), 0);
  EXPECT_EQ(back.der(), pki().rsaDer);
  EXPECT_EQ(back.GetSubjectName(), cert.GetSubjectName());

  testing_support::writeFile(dir.file("junk.pem"), "not a certificate\n");
  EXPECT_EQ(back.readPEM(dir.file("missing.pem").c_str()), -1);
  EXPECT_EQ(back.readPEM(dir.file("junk.pem").c_str()), -2);
  EXPECT_EQ(back.readPEM(nullptr), -1);
  EXPECT_TRUE(back.ok());
}

}  // namespace
