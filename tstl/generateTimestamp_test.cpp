#include "tstl/generateTimestamp.h"

#include <gtest/gtest.h>
#include <openssl/ts.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/Log.h"
#include "testing/ChildProcess.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "tools/testtsa/CertMaker.h"
#include "tstl/CAsn1ietfTSResp.h"
#include "tstl/CAsn1messageImprint.h"
#include "tstl/CAsn1string.h"
#include "tstl/CCertInfo.h"
#include "tstl/Der.h"
#include "tstl/KeyType.h"
#include "tstl/TokenCheck.h"
#include "tstl/TsAsymKey.h"

namespace {

using testing_support::readFile;
using testing_support::TempDir;
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

// A throwaway CA with an RSA and a DSA signer, their key and certificate files.
class GenerateTimestampTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    ca_ = new testtsa::CertAuthority();
    ASSERT_TRUE(ca_->ok());
    ASSERT_TRUE(ca_->writeCaPem(dir_->file("ca.pem")));
    for (int type : {kKeyTypeRsa, kKeyTypeDsa}) {
      std::string name = type == kKeyTypeRsa ? "rsa" : "dsa";
      EvpPkeyPtr key = testtsa::generateKey(type == kKeyTypeRsa ? testtsa::KeyKind::kRsa
                                                                : testtsa::KeyKind::kDsa);
      ASSERT_NE(key, nullptr);
      X509Ptr cert = ca_->issue(key.get(), "local TSA " + name, -3600, 30L * 86400);
      ASSERT_NE(cert, nullptr);
      ASSERT_TRUE(testtsa::writeKey(dir_->file(name + ".key"), key.get()));
      ASSERT_TRUE(testtsa::writeCertificates(dir_->file(name + ".pem"), {cert.get()}));
    }
    writeFile(dir_->file("data.txt"), kData);
    writeFile(dir_->file("other.txt"), "other data");
  }
  static void TearDownTestSuite() {
    delete ca_;
    delete dir_;
  }
  static std::string file(const std::string& name) { return dir_->file(name); }

  static TempDir* dir_;
  static testtsa::CertAuthority* ca_;
};

TempDir* GenerateTimestampTest::dir_ = nullptr;
testtsa::CertAuthority* GenerateTimestampTest::ca_ = nullptr;

// "" when OpenSSL verifies der for the data file against the CA; the signer
// certificate is given unless the token carries it.
std::string opensslVerify(const std::vector<unsigned char>& der, const std::string& dataFile,
                          const std::string& caFile, const std::string& signerFile) {
  return testing_support::verifyTimestampResponse(std::string(der.begin(), der.end()), dataFile,
                                                  caFile, signerFile);
}

// What the requester's token checks make of der: "" when they take it.
std::string tokenCheck(const std::vector<unsigned char>& der, const CAsn1messageImprint& imprint,
                       const std::string& signerFile) {
  TokenExpectations expect;
  expect.hashNid = imprint.hashAlgorithm.algorithm.nid;
  expect.digest = bytesOf(imprint.hashedMessage);
  TokenTrust trust;
  std::string error;
  if (!trust.load("", signerFile, &error)) return error;
  const TokenCheckResult r = checkTimestampResponse(der.data(), der.size(), &expect, &trust);
  return r.ok && r.facts.signatureChecked ? "" : "refused: " + r.reason;
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

// Each form of the local token, for both key types and two digests: what
// OpenSSL and the requester's checks make of it, and what it holds.
TEST_F(GenerateTimestampTest, LocalTokensVerifyInEveryForm) {
  LocalTimestampOptions zoned;
  zoned.signingTimeWithZone = true;
  LocalTimestampOptions withCert = zoned;
  withCert.includeCertificate = true;
  LocalTimestampOptions plain = zoned;
  plain.signingCertificate = false;
  struct Case {
    const char* name;
    LocalTimestampOptions options;
    size_t signingTimeLength;  // "YYMMDDhhmmss", or with its 'Z'
    bool signerFromFile;       // OpenSSL is given the signer certificate
    const char* refusal;       // OpenSSL's reason; null: it verifies
    unsigned int certificates;
    unsigned int signedAttributes;
  } cases[] = {
      {"library form", LocalTimestampOptions(), 12, true, nullptr, 0, 4},
      {"zoned", zoned, 13, true, nullptr, 0, 4},
      // With the certificate in the token, OpenSSL needs nothing but the CA.
      {"with certificate", withCert, 13, false, nullptr, 1, 4},
      // Without signingCertificateV2 the token is what the plain signer makes.
      {"plain", plain, 13, true, "missing signing certificate", 0, 3},
  };
  for (const char* name : {"rsa", "dsa"}) {
    const std::string keyFile = file(std::string(name) + ".key");
    const std::string certFile = file(std::string(name) + ".pem");
    CCertInfo cert;
    ASSERT_EQ(cert.readPEM(certFile.c_str()), 0);
    CAsn1issuerSerial signer;
    ASSERT_EQ(cert.GetIssuerAndSerial(&signer), 0);
    for (int nid : {NID_sha256, NID_sha512}) {
      const CAsn1messageImprint imprint = imprintOf(kData, nid);
      for (const Case& c : cases) {
        SCOPED_TRACE(std::string(name) + " " + OBJ_nid2sn(nid) + " " + c.name);
        CAsn1string response;
        ASSERT_EQ(
            generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response, c.options), 0);
        const std::vector<unsigned char> der = bytesOf(response);
        EXPECT_EQ(signingTimeText(der).size(), c.signingTimeLength);
        const std::string verdict =
            opensslVerify(der, file("data.txt"), file("ca.pem"), c.signerFromFile ? certFile : "");
        if (c.refusal != nullptr) {
          EXPECT_NE(verdict.find(c.refusal), std::string::npos) << verdict;
        } else {
          EXPECT_EQ(verdict, "");
          EXPECT_EQ(tokenCheck(der, imprint, certFile), "");
          // Another file's data does not verify.
          EXPECT_NE(opensslVerify(der, file("other.txt"), file("ca.pem"), certFile), "");
        }
        CAsn1ietfTSResp back;
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
        ASSERT_EQ(back.getCertCount(), c.certificates);
        if (c.certificates > 0) {
          EXPECT_EQ(back.getCert(0)->der(), cert.der());
        }
        // The signer is named by the certificate's issuer and serial number.
        CAsn1issuerSerial named = back.getSignerIssuerSerial();
        EXPECT_EQ(encodeDER(named), encodeDER(signer));
        EXPECT_EQ(back.getSigner().signedAttributes.count(), c.signedAttributes);
      }
    }
  }
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
  EvpPkeyPtr stranger = testtsa::generateKey(testtsa::KeyKind::kRsa);
  ASSERT_TRUE(testtsa::writeKey(logDir_.file("stranger.key"), stranger.get()));
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
  EvpPkeyPtr key = testtsa::generateKey(testtsa::KeyKind::kRsa);
  ASSERT_TRUE(testtsa::writeKey(logDir_.file("k.key"), key.get()));
  X509Ptr expired = ca_->issue(key.get(), "expired", -7200, -3600);
  X509Ptr future = ca_->issue(key.get(), "future", 3600, 7200);
  ASSERT_TRUE(testtsa::writeCertificates(logDir_.file("expired.pem"), {expired.get()}));
  ASSERT_TRUE(testtsa::writeCertificates(logDir_.file("future.pem"), {future.get()}));
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
