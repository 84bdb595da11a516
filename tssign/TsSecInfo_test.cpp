#include "tssign/TsSecInfo.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "testing/TempDir.h"
#include "testing/TokenMaker.h"
#include "tools/testtsa/CertMaker.h"
#include "ossl/KeyType.h"

namespace {

using testing_support::TempDir;

std::vector<unsigned char> bytesOf(const std::string& s) {
  return std::vector<unsigned char>(s.begin(), s.end());
}

// An RSA and a DSA signer with certificates, written once into a directory.
class TsSecInfoTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    testtsa::CertAuthority ca;
    for (int type : {kKeyTypeRsa, kKeyTypeDsa}) {
      TsAsymKey key;
      ASSERT_EQ(key.generateKey(type, 2048), 0);
      std::string name = type == kKeyTypeRsa ? "rsa" : "dsa";
      ASSERT_EQ(key.saveKey(dir_->file(name + ".key").c_str(), "pw"), 0);
      X509Ptr cert = ca.issue(key.pkey(), name, -60, 3600);
      ASSERT_TRUE(testtsa::writeCertificates(dir_->file(name + ".pem"), {cert.get()}));
    }
  }
  static void TearDownTestSuite() { delete dir_; }
  static std::string file(const std::string& name) { return dir_->file(name); }

  static TempDir* dir_;
};

TempDir* TsSecInfoTest::dir_ = nullptr;

TEST_F(TsSecInfoTest, InitChecksKeyAndCertificate) {
  TsSecInfo sec;
  EXPECT_EQ(sec.init(nullptr, "pw", nullptr), -1);
  EXPECT_EQ(sec.init(file("rsa.key").c_str(), nullptr, nullptr), -1);
  EXPECT_EQ(sec.init(file("rsa.key").c_str(), "wrong", nullptr), -2);
  EXPECT_EQ(sec.init(file("rsa.key").c_str(), "pw", file("missing.pem").c_str()), -3);
  EXPECT_EQ(sec.init(file("rsa.key").c_str(), "pw", file("dsa.pem").c_str()), -4);
  EXPECT_FALSE(sec.initialized());
  std::vector<unsigned char> sig;
  EXPECT_EQ(sec.signData(sig.data(), 0, NID_sha256, &sig), -1);
  EXPECT_EQ(sec.encryptData(sig.data(), 0, &sig), -1);
  EXPECT_EQ(sec.init(file("rsa.key").c_str(), "pw", file("rsa.pem").c_str()), 0);
  EXPECT_TRUE(sec.initialized());
  EXPECT_EQ(sec.init(file("dsa.key").c_str(), "pw", nullptr), 0);
}

TEST_F(TsSecInfoTest, SignaturesOverDataAndOverHashesAgree) {
  const std::vector<unsigned char> data = bytesOf("document to be signed");
  for (const char* name : {"rsa", "dsa"}) {
    for (bool withCert : {true, false}) {
      for (int nid : {NID_sha256, NID_sha512}) {
        SCOPED_TRACE(std::string(name) + (withCert ? " cert " : " key ") + OBJ_nid2sn(nid));
        TsSecInfo sec;
        std::string cert = withCert ? file(std::string(name) + ".pem") : "";
        ASSERT_EQ(sec.init(file(std::string(name) + ".key").c_str(), "pw", cert.c_str()), 0);
        const auto hash = testing_support::digestOf(nid, std::string(data.begin(), data.end()));

        std::vector<unsigned char> overData, overHash;
        ASSERT_EQ(sec.signData(data.data(), data.size(), nid, &overData), 0);
        ASSERT_EQ(sec.signHash(hash.data(), hash.size(), nid, &overHash), 0);
        // Either signature verifies either way.
        for (const auto& sig : {overData, overHash}) {
          EXPECT_EQ(sec.verifyData(data.data(), data.size(), nid, sig.data(), sig.size()), 0);
          EXPECT_EQ(sec.verifyHash(hash.data(), hash.size(), nid, sig.data(), sig.size()), 0);
        }
        if (std::string(name) == "rsa") {
          EXPECT_EQ(overData, overHash);  // PKCS#1 v1.5 is deterministic
        }

        std::vector<unsigned char> other = data;
        other[0] ^= 1;
        EXPECT_EQ(sec.verifyData(other.data(), other.size(), nid, overData.data(), overData.size()),
                  -1);
        EXPECT_EQ(sec.signHash(hash.data(), hash.size() - 1, nid, &overHash), -2);
      }
    }
  }
}

TEST_F(TsSecInfoTest, EncryptionRoundTripsAndRefusesChangesAndOtherKeys) {
  TsSecInfo sec, other;
  ASSERT_EQ(sec.init(file("rsa.key").c_str(), "pw", nullptr), 0);
  ASSERT_EQ(other.init(file("dsa.key").c_str(), "pw", nullptr), 0);
  for (const std::string& text : {std::string(), std::string("x"), std::string(5000, 'z')}) {
    std::vector<unsigned char> plain = bytesOf(text), message, back;
    ASSERT_EQ(sec.encryptData(plain.data(), plain.size(), &message), 0);
    EXPECT_EQ(message.size(), plain.size() + 48);
    EXPECT_EQ(std::string(message.begin(), message.begin() + 4), "TSE1");
    ASSERT_EQ(sec.decryptData(message.data(), message.size(), &back), 0);
    EXPECT_EQ(back, plain);

    // Fresh salt and IV: the same text never encrypts the same way twice.
    std::vector<unsigned char> again;
    ASSERT_EQ(sec.encryptData(plain.data(), plain.size(), &again), 0);
    EXPECT_NE(again, message);

    EXPECT_EQ(other.decryptData(message.data(), message.size(), &back), -3);
    for (size_t i : {size_t{4}, size_t{20}, size_t{36}, message.size() - 1}) {
      std::vector<unsigned char> changed = message;
      changed[i] ^= 0x80;
      EXPECT_EQ(sec.decryptData(changed.data(), changed.size(), &back), -3) << i;
    }
  }
  std::vector<unsigned char> back;
  const unsigned char shortMessage[] = {'T', 'S', 'E', '1', 0};
  EXPECT_EQ(sec.decryptData(shortMessage, sizeof(shortMessage), &back), -2);
  std::vector<unsigned char> wrongMagic(100, 0);
  EXPECT_EQ(sec.decryptData(wrongMagic.data(), wrongMagic.size(), &back), -2);
}

}  // namespace
