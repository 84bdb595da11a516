#include "tstl/CCertInfo.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "testing/TempDir.h"
#include "tools/testtsa/CertMaker.h"
#include "tstl/CAsn1issuerSerial.h"
#include "tstl/CAsn1time.h"
#include "tstl/Der.h"
#include "tstl/KeyType.h"

namespace {

using testing_support::TempDir;

std::vector<unsigned char> derOf(X509* cert) {
  unsigned char* out = nullptr;
  int n = i2d_X509(cert, &out);
  std::vector<unsigned char> der(out, out + (n > 0 ? n : 0));
  OPENSSL_free(out);
  return der;
}

// One CA and an RSA and a DSA certificate shared by all tests of this file:
// key generation is the slow part.
class CCertInfoTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ca_ = new testtsa::CertAuthority();
    rsaKey_ = testtsa::generateKey(testtsa::KeyKind::kRsa).release();
    dsaKey_ = testtsa::generateKey(testtsa::KeyKind::kDsa).release();
    rsaCert_ = ca_->issue(rsaKey_, "rsa signer", -3600, 86400).release();
    dsaCert_ = ca_->issue(dsaKey_, "dsa signer", -3600, 86400).release();
  }
  static void TearDownTestSuite() {
    X509_free(rsaCert_);
    X509_free(dsaCert_);
    EVP_PKEY_free(rsaKey_);
    EVP_PKEY_free(dsaKey_);
    delete ca_;
  }
  void SetUp() override {
    ASSERT_TRUE(ca_->ok());
    ASSERT_NE(rsaCert_, nullptr);
    ASSERT_NE(dsaCert_, nullptr);
  }

  static testtsa::CertAuthority* ca_;
  static EVP_PKEY* rsaKey_;
  static EVP_PKEY* dsaKey_;
  static X509* rsaCert_;
  static X509* dsaCert_;
};

testtsa::CertAuthority* CCertInfoTest::ca_ = nullptr;
EVP_PKEY* CCertInfoTest::rsaKey_ = nullptr;
EVP_PKEY* CCertInfoTest::dsaKey_ = nullptr;
X509* CCertInfoTest::rsaCert_ = nullptr;
X509* CCertInfoTest::dsaCert_ = nullptr;

TEST_F(CCertInfoTest, DecodesDerAndTakesOutTheFields) {
  std::vector<unsigned char> der = derOf(rsaCert_);
  CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
  ASSERT_TRUE(cert.ok());
  EXPECT_EQ(cert.der(), der);
  EXPECT_EQ(cert.getSize(), der.size());
  EXPECT_EQ(cert.GetSubjectName(), "/O=clockette test/CN=rsa signer");
  EXPECT_EQ(cert.GetIssuerName(), "/O=clockette test/CN=clockette test CA");
  EXPECT_EQ(cert.GetSerialNumber(), std::vector<unsigned char>({0x03, 0xE8}));  // 1000
  time_t now = time(nullptr);
  EXPECT_NEAR(static_cast<double>(cert.GetNotBefore()), static_cast<double>(now - 3600), 60);
  EXPECT_NEAR(static_cast<double>(cert.GetNotAfter()), static_cast<double>(now + 86400), 60);
  CAsn1time notAfter;
  ASSERT_EQ(cert.GetTimeNotAfter(&notAfter), 0);
  struct tm tm = {};
  time_t expected = cert.GetNotAfter();
  char utcTime[16];  // UTCTime before 2050
  strftime(utcTime, sizeof utcTime, "%y%m%d%H%M%SZ", gmtime_r(&expected, &tm));
  EXPECT_EQ(notAfter.derText(), utcTime);
  EXPECT_EQ(cert.GetTimeNotAfterText(), notAfter.displayText());
  CAsn1time notBefore;
  ASSERT_EQ(cert.GetTimeNotBefore(&notBefore), 0);
  EXPECT_EQ(cert.GetTimeNotBeforeText(), notBefore.displayText());
  EXPECT_EQ(cert.GetSignatureType(), NID_sha256WithRSAEncryption);

  // getDER writes the bytes as they came, at the position given.
  std::vector<unsigned char> out(der.size() + 3, 0xEE);
  unsigned int pos = 3;
  ASSERT_EQ(cert.getDER(out.data(), &pos), 0);
  EXPECT_EQ(pos, out.size());
  EXPECT_TRUE(std::equal(der.begin(), der.end(), out.begin() + 3));
}

TEST_F(CCertInfoTest, IssuerAndSerialEncodeAsInTheCertificate) {
  std::vector<unsigned char> der = derOf(dsaCert_);
  CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
  CAsn1issuerSerial ref;
  ASSERT_EQ(cert.GetIssuerAndSerial(&ref), 0);
  EXPECT_EQ(ref.issuer.attributeCount(), 2);

  // SEQUENCE { issuer Name, serialNumber INTEGER } from OpenSSL's own encodings.
  unsigned char* name = nullptr;
  int nameLength = i2d_X509_NAME(X509_get_issuer_name(dsaCert_), &name);
  unsigned char* serial = nullptr;
  int serialLength = i2d_ASN1_INTEGER(X509_get0_serialNumber(dsaCert_), &serial);
  ASSERT_GT(nameLength, 0);
  ASSERT_GT(serialLength, 0);
  int total = nameLength + serialLength;
  ASSERT_LT(total, 256);
  std::vector<unsigned char> expected = {0x30};
  if (total >= 128) expected.push_back(0x81);
  expected.push_back(static_cast<unsigned char>(total));
  expected.insert(expected.end(), name, name + nameLength);
  expected.insert(expected.end(), serial, serial + serialLength);
  OPENSSL_free(name);
  OPENSSL_free(serial);
  EXPECT_EQ(encodeDER(ref), expected);

  CCertInfo empty;
  EXPECT_EQ(empty.GetIssuerAndSerial(&ref), -1);
}

TEST_F(CCertInfoTest, ReportsTheKeyOfEitherType) {
  struct Case {
    X509* cert;
    EVP_PKEY* key;
    int type;
  } cases[] = {{rsaCert_, rsaKey_, kKeyTypeRsa}, {dsaCert_, dsaKey_, kKeyTypeDsa}};
  for (const Case& c : cases) {
    std::vector<unsigned char> der = derOf(c.cert);
    CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
    EXPECT_EQ(cert.GetKeyType(), c.type);
    EXPECT_EQ(cert.GetKeyLength(), 256);
    EXPECT_EQ(cert.GetRSAPublicKey() != nullptr, c.type == kKeyTypeRsa);
    EXPECT_EQ(cert.GetDSApublicKey() != nullptr, c.type == kKeyTypeDsa);
    EXPECT_EQ(EVP_PKEY_eq(cert.GetPublicKey(), c.key), 1);
  }
}

TEST_F(CCertInfoTest, RefusesBrokenDer) {
  std::vector<unsigned char> der = derOf(rsaCert_);
  std::vector<unsigned char> truncated(der.begin(), der.end() - 10);
  std::vector<unsigned char> flipped = der;
  flipped[1] ^= 0x01;  // a length that no longer fits
  const std::vector<std::vector<unsigned char>> cases = {
      {}, {0x30, 0x00}, {0x02, 0x01, 0x05}, truncated, flipped};
  for (const auto& bytes : cases) {
    CCertInfo cert(bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_FALSE(cert.ok()) << bytes.size();
    EXPECT_EQ(cert.GetKeyType(), -1);
    EXPECT_EQ(cert.GetRSAPublicKey(), nullptr);
    CAsn1time t;
    EXPECT_EQ(cert.GetTimeNotAfter(&t), -1);
    unsigned int pos = 0;
    unsigned char out[4];
    EXPECT_EQ(cert.getDER(out, &pos), -1);
    EXPECT_EQ(pos, 0u);
  }
}

TEST_F(CCertInfoTest, FingerprintIsTheDigestOfTheDer) {
  std::vector<unsigned char> der = derOf(rsaCert_);
  CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
  for (int nid : {NID_sha1, NID_sha256, NID_sha512}) {
    unsigned char expected[EVP_MAX_MD_SIZE];
    unsigned int expectedLen = 0;
    ASSERT_EQ(EVP_Digest(der.data(), der.size(), expected, &expectedLen, EVP_get_digestbynid(nid),
                         nullptr),
              1);
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    ASSERT_EQ(cert.GetFingerprint(nid, md, &len), 0);
    EXPECT_EQ(std::vector<unsigned char>(md, md + len),
              std::vector<unsigned char>(expected, expected + expectedLen));
  }
  std::string text = cert.GetFingerprint(NID_sha1);
  EXPECT_EQ(text.size(), 20u * 3 - 1);
  EXPECT_EQ(text[2], ':');
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(cert.GetFingerprint(NID_undef, md, &len), -1);
}

TEST_F(CCertInfoTest, SignatureVerifiesOnlyWithTheIssuersKey) {
  std::vector<unsigned char> der = derOf(dsaCert_);
  CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
  std::vector<unsigned char> caDer = derOf(ca_->caCert());
  CCertInfo ca(caDer.data(), static_cast<unsigned int>(caDer.size()));
  EXPECT_EQ(cert.VerifyCertSignature(ca), 0);
  EXPECT_EQ(ca.VerifyCertSignature(ca), 0);  // self-signed
  EXPECT_EQ(cert.VerifyCertSignature(rsaKey_), -1);
  CCertInfo empty;
  EXPECT_EQ(empty.VerifyCertSignature(ca), -2);
  EXPECT_EQ(cert.VerifyCertSignature(empty), -2);
}

TEST_F(CCertInfoTest, PemRoundTripAndReadFailures) {
  TempDir dir;
  std::vector<unsigned char> der = derOf(rsaCert_);
  CCertInfo cert(der.data(), static_cast<unsigned int>(der.size()));
  ASSERT_EQ(cert.writePEM(dir.file("cert.pem").c_str()), 0);

  CCertInfo back;
  EXPECT_FALSE(back.ok());
  ASSERT_EQ(back.readPEM(dir.file("cert.pem").c_str()), 0);
  EXPECT_TRUE(back.ok());
  EXPECT_EQ(back.der(), der);
  EXPECT_EQ(back.GetSubjectName(), cert.GetSubjectName());

  testing_support::writeFile(dir.file("junk.pem"), "not a certificate\n");
  EXPECT_EQ(back.readPEM(dir.file("missing.pem").c_str()), -1);
  EXPECT_EQ(back.readPEM(dir.file("junk.pem").c_str()), -2);
  EXPECT_EQ(back.readPEM(nullptr), -1);
  // A failed read keeps what was held before.
  EXPECT_TRUE(back.ok());

  EXPECT_EQ(cert.writePEM(dir.file("no/such/dir/cert.pem").c_str()), -1);
  CCertInfo empty;
  EXPECT_EQ(empty.writePEM(dir.file("empty.pem").c_str()), -1);
}

}  // namespace
