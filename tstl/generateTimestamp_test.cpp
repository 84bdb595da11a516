#include "tstl/generateTimestamp.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ts.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/Log.h"
#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestCa.h"
#include "tstl/CAsn1ietfTSResp.h"
#include "tstl/CAsn1messageImprint.h"
#include "tstl/CAsn1string.h"
#include "tstl/CAsn1time.h"
#include "tstl/CCertInfo.h"
#include "tstl/Der.h"
#include "tstl/KeyType.h"
#include "tstl/TsAsymKey.h"

namespace {

using testing_support::readFile;
using testing_support::runChild;
using testing_support::TempDir;
using testing_support::TestCa;
using testing_support::writeFile;

const char kData[] = "The quick brown fox jumps over the lazy dog.\n";

CAsn1messageImprint imprintOf(const std::string& data, int nid) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EVP_Digest(data.data(), data.size(), md, &n, EVP_get_digestbynid(nid), nullptr);
  CAsn1messageImprint imprint;
  imprint.hashAlgorithm = CAsn1algorithmIdentifier(nid, true);
  imprint.hashedMessage.setVal(kTagOctetString, md, n);
  return imprint;
}

std::vector<unsigned char> bytesOf(const CAsn1string& s) {
  std::vector<unsigned char> v(s.length());
  unsigned int size = s.length();
  s.getVal(v.data(), &size);
  return v;
}

// OpenSSL's own verification of a DER TimeStampResp for data: signature,
// chain to the CA (the signer certificate given as untrusted), imprint.
// Returns "" when it verifies, else OpenSSL's errors.
std::string opensslVerify(const std::vector<unsigned char>& der, const std::string& data, X509* ca,
                          X509* signer) {
  const unsigned char* p = der.data();
  std::unique_ptr<TS_RESP, decltype(&TS_RESP_free)> resp(
      d2i_TS_RESP(nullptr, &p, static_cast<long>(der.size())), TS_RESP_free);
  if (!resp) return "d2i_TS_RESP failed";
  std::unique_ptr<TS_VERIFY_CTX, decltype(&TS_VERIFY_CTX_free)> ctx(TS_VERIFY_CTX_new(),
                                                                    TS_VERIFY_CTX_free);
  X509_STORE* store = X509_STORE_new();
  X509_STORE_add_cert(store, ca);
  STACK_OF(X509)* untrusted = sk_X509_new_null();
  X509_up_ref(signer);
  sk_X509_push(untrusted, signer);
  TS_VERIFY_CTX_set_store(ctx.get(), store);
  TS_VERIFY_CTX_set_certs(ctx.get(), untrusted);
  TS_VERIFY_CTX_set_data(ctx.get(), BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
  TS_VERIFY_CTX_add_flags(ctx.get(), TS_VFY_SIGNATURE | TS_VFY_VERSION | TS_VFY_DATA);
  if (TS_RESP_verify_response(ctx.get(), resp.get()) == 1) return "";
  std::string text;
  unsigned long e;
  char buf[256];
  while ((e = ERR_get_error()) != 0) {
    ERR_error_string_n(e, buf, sizeof(buf));
    text += std::string(buf) + "\n";
  }
  return text.empty() ? "verification failed" : text;
}

// A throwaway CA with an RSA and a DSA signer, their key and certificate files.
class GenerateTimestampTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    ca_ = new TestCa();
    ASSERT_TRUE(ca_->ok()) << ca_->error();
    ASSERT_TRUE(ca_->writeCaPem(dir_->file("ca.pem")));
    for (int type : {kKeyTypeRsa, kKeyTypeDsa}) {
      std::string name = type == kKeyTypeRsa ? "rsa" : "dsa";
      EvpPkeyPtr key = type == kKeyTypeRsa ? testing_support::makeRsaKey(2048)
                                           : testing_support::makeDsaKey(2048);
      ASSERT_NE(key, nullptr);
      X509Ptr cert = ca_->issue(key.get(), "local TSA " + name, -3600, 30L * 86400);
      ASSERT_NE(cert, nullptr);
      ASSERT_TRUE(TestCa::writeKeyPem(key.get(), dir_->file(name + ".key")));
      ASSERT_TRUE(TestCa::writeCertPem(cert.get(), dir_->file(name + ".pem")));
      (type == kKeyTypeRsa ? rsaCert_ : dsaCert_) = cert.release();
    }
    writeFile(dir_->file("data.txt"), kData);
  }
  static void TearDownTestSuite() {
    X509_free(rsaCert_);
    X509_free(dsaCert_);
    delete ca_;
    delete dir_;
  }
  static std::string file(const std::string& name) { return dir_->file(name); }

  static TempDir* dir_;
  static TestCa* ca_;
  static X509* rsaCert_;
  static X509* dsaCert_;
};

TempDir* GenerateTimestampTest::dir_ = nullptr;
TestCa* GenerateTimestampTest::ca_ = nullptr;
X509* GenerateTimestampTest::rsaCert_ = nullptr;
X509* GenerateTimestampTest::dsaCert_ = nullptr;

// Runs "openssl ts -verify" on a response; "" when it verifies.
std::string opensslCliVerify(const std::vector<unsigned char>& der, const std::string& dataFile,
                             const std::string& caFile, const std::string& signerFile,
                             const std::string& scratch) {
  writeFile(scratch, std::string(der.begin(), der.end()));
  std::vector<std::string> argv = {
      "/usr/bin/openssl", "ts", "-verify", "-data", dataFile, "-in", scratch, "-CAfile", caFile};
  if (!signerFile.empty()) {
    argv.push_back("-untrusted");
    argv.push_back(signerFile);
  }
  auto result = runChild(argv);
  return result.exitCode == 0 ? "" : result.out + result.err;
}

// The text of the signingTime attribute's UTCTime in a DER token: what
// follows OID 1.2.840.113549.1.9.5 and the SET header. Empty when not found.
std::string signingTimeText(const std::vector<unsigned char>& der) {
  const std::vector<unsigned char> oid = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                          0xF7, 0x0D, 0x01, 0x09, 0x05, 0x31};
  auto it = std::search(der.begin(), der.end(), oid.begin(), oid.end());
  size_t at = static_cast<size_t>(it - der.begin()) + oid.size() + 1;  // past the SET length
  if (it == der.end() || at + 2 > der.size() || der[at] != 0x17) return "";
  size_t length = der[at + 1];
  if (at + 2 + length > der.size()) return "";
  return std::string(der.begin() + static_cast<long>(at + 2),
                     der.begin() + static_cast<long>(at + 2 + length));
}

// Decodes with CAsn1ietfTSResp; true when all bytes were read.
bool decodes(const std::vector<unsigned char>& der, CAsn1ietfTSResp* back) {
  unsigned int pos = 0;
  return back->setDER(der.data(), &pos, static_cast<unsigned int>(der.size())) == 0 &&
         pos == der.size();
}

LocalTimestampOptions zonedOptions() {
  LocalTimestampOptions options;
  options.signingTimeWithZone = true;
  return options;
}

TEST_F(GenerateTimestampTest, OpenSslVerifiesLocalTimestamps) {
  for (const char* name : {"rsa", "dsa"}) {
    for (int nid : {NID_sha256, NID_sha512}) {
      SCOPED_TRACE(std::string(name) + " " + OBJ_nid2sn(nid));
      std::string keyFile = file(std::string(name) + ".key");
      std::string certFile = file(std::string(name) + ".pem");
      CAsn1messageImprint imprint = imprintOf(kData, nid);
      CAsn1string response;
      ASSERT_EQ(generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response), 0);
      std::vector<unsigned char> der = bytesOf(response);
      X509* signer = std::string(name) == "rsa" ? rsaCert_ : dsaCert_;
      EXPECT_EQ(opensslVerify(der, kData, ca_->caCert(), signer), "");
      EXPECT_EQ(opensslCliVerify(der, file("data.txt"), file("ca.pem"), certFile, file("resp.der")),
                "");
      // Another file's data does not verify.
      EXPECT_NE(opensslVerify(der, "other data", ca_->caCert(), signer), "");

      // The signing time is written "YYMMDDhhmmss", without zone; OpenSSL
      // and our own decoder both take it.
      std::string text = signingTimeText(der);
      EXPECT_EQ(text.size(), 12u) << text;
      CAsn1ietfTSResp back;
      EXPECT_TRUE(decodes(der, &back));

      // With the zone written, the same token decodes and holds what was asked.
      ASSERT_EQ(
          generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response, zonedOptions()),
          0);
      der = bytesOf(response);
      EXPECT_EQ(signingTimeText(der).size(), 13u);
      EXPECT_EQ(opensslVerify(der, kData, ca_->caCert(), signer), "");
      ASSERT_TRUE(decodes(der, &back));
      EXPECT_EQ(back.getStatus(), 0);
      ASSERT_TRUE(back.hasToken());
      CAsn1TSTInfo tst = back.getTSTInfo();
      EXPECT_EQ(tst.messageImprint.hashAlgorithm.algorithm.nid, nid);
      EXPECT_EQ(tst.messageImprint.hashedMessage.comp(imprint.hashedMessage), 0);
      char policy[64] = "";
      OBJ_obj2txt(policy, sizeof(policy), OBJ_nid2obj(tst.policy.nid), 1);
      EXPECT_STREQ(policy, "1.3.6.1.4.1.7359.1.2");
      uint64_t serial = 0;
      EXPECT_TRUE(tst.serialNumber.toUint64(&serial) && serial > 0);
      EXPECT_FALSE(tst.hasNonce());
      EXPECT_EQ(back.getCertCount(), 0u);
      // The signer is named by the certificate's issuer and serial number.
      CCertInfo cert;
      ASSERT_EQ(cert.readPEM(certFile.c_str()), 0);
      CAsn1issuerSerial expected;
      ASSERT_EQ(cert.GetIssuerAndSerial(&expected), 0);
      CAsn1issuerSerial got = back.getSignerIssuerSerial();
      EXPECT_EQ(encodeDER(got), encodeDER(expected));
    }
  }
}

TEST_F(GenerateTimestampTest, OptionsDecideSigningCertificateAttributeAndCertificate) {
  CAsn1messageImprint imprint = imprintOf(kData, NID_sha256);
  std::string keyFile = file("rsa.key"), certFile = file("rsa.pem");

  // With the certificate in the token, OpenSSL needs nothing but the CA.
  LocalTimestampOptions withCert = zonedOptions();
  withCert.includeCertificate = true;
  CAsn1string response;
  ASSERT_EQ(generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response, withCert), 0);
  std::vector<unsigned char> der = bytesOf(response);
  EXPECT_EQ(opensslCliVerify(der, file("data.txt"), file("ca.pem"), "", file("resp.der")), "");
  CAsn1ietfTSResp back;
  ASSERT_TRUE(decodes(der, &back));
  ASSERT_EQ(back.getCertCount(), 1u);
  CCertInfo cert;
  ASSERT_EQ(cert.readPEM(certFile.c_str()), 0);
  EXPECT_EQ(back.getCert(0)->der(), cert.der());

  // Without the signingCertificateV2 attribute the token is what the plain
  // signer makes: OpenSSL refuses it for exactly that reason.
  LocalTimestampOptions plain = zonedOptions();
  plain.signingCertificate = false;
  ASSERT_EQ(generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response, plain), 0);
  der = bytesOf(response);
  EXPECT_NE(opensslVerify(der, kData, ca_->caCert(), rsaCert_)
                .find("missing signing certificate attribute"),
            std::string::npos);
  ASSERT_TRUE(decodes(der, &back));
  EXPECT_EQ(back.getSigner().signedAttributes.count(), 3u);

  const CAsn1attribute* signingTime = back.getSigner().signedAttributes.find(NID_pkcs9_signingTime);
  ASSERT_NE(signingTime, nullptr);
  const CAsn1time* time = dynamic_cast<const CAsn1time*>(signingTime->value());
  ASSERT_NE(time, nullptr);
  EXPECT_EQ(time->derText().back(), 'Z');
}

class GenerateTimestampLogTest : public GenerateTimestampTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(Log::setLogFile(logDir_.file("log").c_str()), 1);
    Log::setLevel(7, 1);
  }
  void TearDown() override {
    unsetenv("IgnoreCertificateValidyDates");
    Log::setLogFile("stderr");
    Log::init();
  }
  // What was logged since the last call.
  std::string logText() {
    Log::flush();
    std::string all = readFile(logDir_.file("log"));
    std::string fresh = all.substr(std::min(seen_, all.size()));
    seen_ = all.size();
    return fresh;
  }
  TempDir logDir_;
  size_t seen_ = 0;
};

TEST_F(GenerateTimestampLogTest, RefusesBeforeSigning) {
  // An RSA key that belongs to no certificate.
  EvpPkeyPtr stranger = testing_support::makeRsaKey(2048);
  ASSERT_TRUE(TestCa::writeKeyPem(stranger.get(), logDir_.file("stranger.key")));
  writeFile(logDir_.file("junk.pem"), "junk\n");
  struct Case {
    std::string key, cert;
    int result;
    const char* message;
  };
  const Case cases[] = {
      {file("rsa.key"), logDir_.file("missing.pem"), -1, "Can't read certificate from "},
      {file("rsa.key"), logDir_.file("junk.pem"), -1, "Can't read certificate from "},
      {logDir_.file("missing.key"), file("rsa.pem"), -2, "Can't read signature key from "},
      {file("dsa.key"), file("rsa.pem"), -3, "Can't retrive public DSA key from certificate"},
      {file("rsa.key"), file("dsa.pem"), -3, "Can't retrive public RSA key from certificate"},
      {logDir_.file("stranger.key"), file("rsa.pem"), -4, "RSA key doesn't match certificate"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    CAsn1string response(kTagOctetString);
    EXPECT_EQ(
        generateTimestamp(imprintOf(kData, NID_sha256), c.key.c_str(), c.cert.c_str(), &response),
        c.result);
    EXPECT_EQ(response.length(), 0u);
    std::string log = logText();
    EXPECT_NE(log.find(c.message), std::string::npos) << log;
    // Refused before anything was configured or signed.
    EXPECT_EQ(log.find("CAsn1ietfTSResp"), std::string::npos);
    EXPECT_EQ(log.find("signed"), std::string::npos);
  }
}

TEST_F(GenerateTimestampLogTest, CertificateValidityDatesUnlessIgnored) {
  EvpPkeyPtr key = testing_support::makeRsaKey(2048);
  ASSERT_TRUE(TestCa::writeKeyPem(key.get(), logDir_.file("k.key")));
  X509Ptr expired = ca_->issue(key.get(), "expired", -7200, -3600);
  X509Ptr future = ca_->issue(key.get(), "future", 3600, 7200);
  ASSERT_TRUE(TestCa::writeCertPem(expired.get(), logDir_.file("expired.pem")));
  ASSERT_TRUE(TestCa::writeCertPem(future.get(), logDir_.file("future.pem")));
  struct Case {
    const char* ignore;  // null: unset
    bool refused;
  };
  const Case cases[] = {{nullptr, true}, {"off", true},  {"YES", true}, {"true", true},
                        {"on", false},   {"yes", false}, {"1", false}};
  for (const Case& c : cases) {
    if (c.ignore != nullptr) {
      setenv("IgnoreCertificateValidyDates", c.ignore, 1);
    } else {
      unsetenv("IgnoreCertificateValidyDates");
    }
    for (const char* cert : {"expired", "future"}) {
      SCOPED_TRACE(std::string(cert) + " " + (c.ignore ? c.ignore : "(unset)"));
      CAsn1string response;
      int rc = generateTimestamp(imprintOf(kData, NID_sha256), logDir_.file("k.key").c_str(),
                                 logDir_.file(std::string(cert) + ".pem").c_str(), &response);
      EXPECT_EQ(rc, c.refused ? -5 : 0);
      if (c.refused) {
        std::string log = logText();
        EXPECT_NE(log.find("Error adding certificate reference"), std::string::npos);
        EXPECT_NE(log.find(std::string(cert) == "expired" ? "Certificate has expired. VNA: "
                                                          : "Certificate is no valid yet. VNB: "),
                  std::string::npos);
      }
    }
  }
}

}  // namespace
