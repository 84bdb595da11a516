#include "tssign/TsAsymKey.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "ossl/KeyType.h"

namespace {

using namespace testing_support;

// Keys are generated once: DSA parameters take a while.
class TsAsymKeyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    rsa_ = new TsAsymKey();
    dsa_ = new TsAsymKey();
    ASSERT_EQ(rsa_->generateKey(kKeyTypeRsa, 2048), 0);
    ASSERT_EQ(dsa_->generateKey(kKeyTypeDsa, 2048), 0);
  }
  static void TearDownTestSuite() {
    delete rsa_;
    delete dsa_;
  }
  void SetUp() override {
    log_.target().setLevel(7, 1);
    log_.target().setLevel(8, 1);
  }

  // The key as an unencrypted DER file written by the openssl command, then
  // encrypted the proprietary way by "openssl enc" (EVP_BytesToKey with MD5,
  // one round, salt "kbVquard"), without enc's "Salted__" header.
  std::string proprietaryFile(const TsAsymKey& key, const std::string& password, bool traditional) {
    std::string pem = dir_.file("plain.pem");
    std::string out = dir_.file(traditional ? "key.trad.bin" : "key.p8.bin");
    EXPECT_EQ(key.saveKey(pem.c_str(), ""), 0);
    std::string script = "/usr/bin/openssl pkey -in '" + pem + "' -outform DER" +
                         (traditional ? " -traditional" : "") +
                         " | /usr/bin/openssl enc -des-ede3-cbc -md md5 -S 6b62567175617264"
                         " -pass 'pass:" +
                         password + "' > '" + out + "'";
    auto result = runChild({"/bin/sh", "-c", script});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    std::string bytes = readFile(out);
    if (bytes.compare(0, 8, "Salted__") == 0) writeFile(out, bytes.substr(16));
    return out;
  }

  TempDir dir_;
  LogCapture log_;
  static TsAsymKey* rsa_;
  static TsAsymKey* dsa_;
};

TsAsymKey* TsAsymKeyTest::rsa_ = nullptr;
TsAsymKey* TsAsymKeyTest::dsa_ = nullptr;

TEST_F(TsAsymKeyTest, GeneratedKeysHaveTheirTypeSizeAndExponent) {
  EXPECT_EQ(rsa_->getKeyType(), kKeyTypeRsa);
  EXPECT_EQ(rsa_->getPKeyType(), EVP_PKEY_RSA);
  EXPECT_EQ(EVP_PKEY_get_bits(rsa_->pkey()), 2048);
  BIGNUM* e = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(rsa_->pkey(), OSSL_PKEY_PARAM_RSA_E, &e), 1);
  BignumPtr exponent(e);
  EXPECT_EQ(BN_get_word(exponent.get()), 65537u);

  EXPECT_EQ(dsa_->getKeyType(), kKeyTypeDsa);
  EXPECT_EQ(dsa_->getPKeyType(), EVP_PKEY_DSA);
  EXPECT_EQ(EVP_PKEY_get_bits(dsa_->pkey()), 2048);
}

TEST_F(TsAsymKeyTest, PemKeysRoundTripAndWrongPasswordFails) {
  for (TsAsymKey* key : {rsa_, dsa_}) {
    SCOPED_TRACE(key->getKeyType());
    std::string file = dir_.file("key.pem");
    ASSERT_EQ(key->saveKey(file.c_str(), "s3cret"), 0);
    std::string pem = readFile(file);
    EXPECT_TRUE(contains(pem, "BEGIN ENCRYPTED PRIVATE KEY"));
    EXPECT_FALSE(contains(pem, "s3cret"));
    // OpenSSL itself reads it back with the password, and names the cipher.
    auto parsed = runChild({"/usr/bin/openssl", "asn1parse", "-in", file});
    EXPECT_TRUE(contains(parsed.out, "des-ede3-cbc")) << parsed.out;

    TsAsymKey loaded;
    ASSERT_EQ(loaded.loadKey(file.c_str(), "s3cret"), 0);
    EXPECT_EQ(loaded.getKeyType(), key->getKeyType());
    EXPECT_EQ(loaded.comparePublicKey(key->pkey()), 0);
    EXPECT_TRUE(log_.contains("Loaded key from PEM-file \"" + file + "\""));

    TsAsymKey wrong;
    EXPECT_EQ(wrong.loadKey(file.c_str(), "other"), -4);
    EXPECT_FALSE(wrong.loaded());
    EXPECT_TRUE(log_.contains("appears to contain a key in proprietary format"));
    EXPECT_TRUE(log_.contains("failed to decode the key"));
  }
}

TEST_F(TsAsymKeyTest, EmptyPasswordWritesAPlainKey) {
  std::string file = dir_.file("plain.pem");
  writeFile(file, "an older, world-readable file");
  chmod(file.c_str(), 0644);
  ASSERT_EQ(rsa_->saveKey(file.c_str(), ""), 0);
  EXPECT_TRUE(contains(readFile(file), "BEGIN PRIVATE KEY"));
  struct stat st {};
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "a plain private key must not be readable by others";
  TsAsymKey loaded;
  ASSERT_EQ(loaded.loadKey(file.c_str(), ""), 0);
  EXPECT_EQ(loaded.comparePublicKey(rsa_->pkey()), 0);
}

TEST_F(TsAsymKeyTest, ProprietaryKeysLoadAndWrongPasswordFails) {
  for (const auto& [key, traditional] :
       {std::pair{rsa_, false}, std::pair{dsa_, true}, std::pair{dsa_, false}}) {
    SCOPED_TRACE(key->getKeyType() * 10 + traditional);
    std::string file = proprietaryFile(*key, "pw", traditional);
    TsAsymKey loaded;
    ASSERT_EQ(loaded.loadKey(file.c_str(), "pw"), 0);
    EXPECT_EQ(loaded.comparePublicKey(key->pkey()), 0);
    EXPECT_TRUE(log_.contains("Loaded key from proprietary file \"" + file + "\""));

    // A failed load keeps the key held before.
    EXPECT_EQ(loaded.loadKey(file.c_str(), "pW"), -4);
    EXPECT_TRUE(loaded.loaded());
    EXPECT_TRUE(log_.contains("failed to decode the key"));
  }
}

TEST_F(TsAsymKeyTest, RefusesUnknownTypesMissingArgumentsAndFiles) {
  TsAsymKey key;
  EXPECT_EQ(key.generateKey(2, 2048), -2);
  EXPECT_FALSE(key.loaded());
  EXPECT_TRUE(log_.contains("Invalid KEYTYPE: 2"));
  EXPECT_EQ(key.loadKey(nullptr, ""), -1);
  EXPECT_EQ(key.loadKey("", ""), -1);
  EXPECT_EQ(key.loadKey(dir_.file("x").c_str(), nullptr), -1);
  EXPECT_EQ(key.loadKey(dir_.file("missing.key").c_str(), "pw"), -2);
  EXPECT_TRUE(log_.contains("Can't read key from \"" + dir_.file("missing.key") + "\""));
  writeFile(dir_.file("empty.key"), "");
  EXPECT_EQ(key.loadKey(dir_.file("empty.key").c_str(), "pw"), -4);
  EXPECT_EQ(rsa_->saveKey(dir_.file("no/dir/k.pem").c_str(), "pw"), -2);
  EXPECT_TRUE(log_.contains("failed open the file"));
  EXPECT_EQ(key.saveKey(dir_.file("k.pem").c_str(), "pw"), -1);  // nothing loaded
}

TEST_F(TsAsymKeyTest, PublicKeyComparison) {
  EVP_PKEY* pub = rsa_->pkey();
  EXPECT_EQ(rsa_->comparePublicKey(pub), 0);
  EXPECT_EQ(dsa_->comparePublicKey(pub), 1);
  TsAsymKey other;
  EXPECT_EQ(other.comparePublicKey(pub), -1);
  ASSERT_EQ(other.generateKey(kKeyTypeRsa, 2048), 0);
  EXPECT_EQ(other.comparePublicKey(pub), 1);
  EXPECT_EQ(other.comparePublicKey(nullptr), -1);
}

TEST_F(TsAsymKeyTest, SignaturesVerifyWithOpenSsl) {
  const std::string text = "the data to be signed";
  auto data = reinterpret_cast<const unsigned char*>(text.data());
  unsigned int n = static_cast<unsigned int>(text.size());
  for (TsAsymKey* key : {rsa_, dsa_}) {
    for (int nid : {NID_sha1, NID_sha256, NID_sha512}) {
      SCOPED_TRACE(key->getKeyType() * 1000 + nid);
      std::vector<unsigned char> sig;
      ASSERT_EQ(key->signData(data, n, nid, &sig), 0);
      EvpMdCtxPtr ctx(EVP_MD_CTX_new());
      EXPECT_TRUE(EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_get_digestbynid(nid), nullptr,
                                       key->pkey()) == 1 &&
                  EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), data, n) == 1);
    }
  }
  std::vector<unsigned char> sig;
  EXPECT_EQ(rsa_->signData(data, n, NID_undef, &sig), -2);
  TsAsymKey none;
  EXPECT_EQ(none.signData(data, n, NID_sha256, &sig), -1);
}

}  // namespace
