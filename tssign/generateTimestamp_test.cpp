// The local signer: its tokens in every form for both key types, checked by
// OpenSSL and by the requester's token checks; what it refuses to sign.
// Decoding tokens in general: CAsn1ietfTSResp_test.
#include "tssign/generateTimestamp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "testing/LogCapture.h"
#include "testing/MapEnvironment.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TokenMaker.h"
#include "tools/testtsa/CertMaker.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1string.h"
#include "der/CCertInfo.h"
#include "der/Der.h"
#include "tsclient/TokenCheck.h"

namespace {

using namespace testing_support;
using testtsa::KeyKind;
using Bytes = std::vector<unsigned char>;

const char kData[] = "The quick brown fox jumps over the lazy dog.\n";

CAsn1messageImprint imprintOf(int nid) {
  const Bytes md = testing_support::digestOf(nid, kData);
  CAsn1messageImprint imprint;
  imprint.hashAlgorithm = CAsn1algorithmIdentifier(nid, true);
  imprint.hashedMessage.setVal(kTagOctetString, md.data(), static_cast<unsigned int>(md.size()));
  return imprint;
}

// A throwaway CA with an RSA and a DSA signer: ca.pem, rsa.key, rsa.pem,
// dsa.key, dsa.pem, and the data file data.txt.
struct Files {
  testing_support::TempDir dir;
  testtsa::CertAuthority ca;
  Files() {
    EXPECT_TRUE(ca.writeCaPem(dir.file("ca.pem")));
    for (const std::string name : {"rsa", "dsa"}) {
      EvpPkeyPtr key = testtsa::generateKey(name == "rsa" ? KeyKind::kRsa : KeyKind::kDsa);
      X509Ptr cert = ca.issue(key.get(), "local TSA " + name, -3600, 30L * 86400);
      EXPECT_TRUE(cert && testtsa::writeKey(dir.file(name + ".key"), key.get()) &&
                  testtsa::writeCertificates(dir.file(name + ".pem"), {cert.get()}));
    }
    writeFile(dir.file("data.txt"), kData);
  }
};

Files& files() {
  static Files made;
  return made;
}

std::string file(const std::string& name) { return files().dir.file(name); }

// The requester's token checks on der as a stamp of kData's nid digest: "" when they pass.
std::string tokenCheck(const Bytes& der, int nid, const std::string& signerFile) {
  TokenExpectations expect;
  expect.hashNid = nid;
  expect.digest = digestOf(nid, kData);
  TokenTrust trust;
  std::string error;
  if (!trust.load("", signerFile, &error)) return error;
  const TokenCheckResult r = checkTimestampResponse(der.data(), der.size(), &expect, &trust);
  return r.ok && r.facts.signatureChecked ? "" : "refused: " + r.reason;
}

// The length of the signingTime attribute's UTCTime text in a DER token:
// what follows OID 1.2.840.113549.1.9.5 and the SET header; 0 when not found.
size_t signingTimeLength(const Bytes& der) {
  const Bytes oid = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x05, 0x31};
  const size_t at = static_cast<size_t>(
                        std::search(der.begin(), der.end(), oid.begin(), oid.end()) - der.begin()) +
                    oid.size() + 1;  // past the SET length
  return at + 2 <= der.size() && der[at] == 0x17 ? der[at + 1] : 0;
}

// Each form of the local token, for both key types and two digests: what
// OpenSSL and the requester's checks make of it, and what it holds.
TEST(GenerateTimestamp, LocalTokensVerifyInEveryForm) {
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
  for (const std::string name : {"rsa", "dsa"}) {
    const std::string keyFile = file(name + ".key"), certFile = file(name + ".pem");
    CCertInfo cert;
    ASSERT_EQ(cert.readPEM(certFile.c_str()), 0);
    for (int nid : {NID_sha256, NID_sha512}) {
      const CAsn1messageImprint imprint = imprintOf(nid);
      for (const Case& c : cases) {
        SCOPED_TRACE(name + " " + OBJ_nid2sn(nid) + " " + c.name);
        CAsn1string response;
        ASSERT_EQ(
            generateTimestamp(imprint, keyFile.c_str(), certFile.c_str(), &response, c.options), 0);
        const Bytes der(response.data(), response.data() + response.length());
        EXPECT_EQ(signingTimeLength(der), c.signingTimeLength);
        const std::string verdict =
            verifyTimestampResponse(std::string(der.begin(), der.end()), file("data.txt"),
                                    file("ca.pem"), c.signerFromFile ? certFile : "");
        if (c.refusal != nullptr) {
          EXPECT_TRUE(contains(verdict, c.refusal)) << verdict;
        } else {
          // The signer, named by its issuer and serial number, and the imprint hold.
          EXPECT_EQ(verdict, "");
          EXPECT_EQ(tokenCheck(der, nid, certFile), "");
        }
        CAsn1ietfTSResp back;
        unsigned int pos = 0;
        ASSERT_EQ(back.setDER(der.data(), &pos, static_cast<unsigned int>(der.size())), 0);
        EXPECT_EQ(pos, der.size());
        ASSERT_TRUE(back.hasToken());
        const CAsn1TSTInfo& tst = back.getTSTInfo();
        EXPECT_EQ(tst.policy.nid, OBJ_txt2nid("1.3.6.1.4.1.7359.1.2"));
        uint64_t serial = 0;
        EXPECT_TRUE(tst.serialNumber.toUint64(&serial) && serial > 0);
        EXPECT_FALSE(tst.hasNonce());
        ASSERT_EQ(back.getCertCount(), c.certificates);
        EXPECT_TRUE(c.certificates == 0 || back.getCert(0)->der() == cert.der());
        EXPECT_EQ(back.getSigner().signedAttributes.count(), c.signedAttributes);
      }
    }
  }
}

// Refused before anything was configured or signed.
TEST(GenerateTimestamp, RefusesBeforeSigning) {
  testing_support::TempDir dir;
  // An RSA key that belongs to no certificate.
  EvpPkeyPtr stranger = testtsa::generateKey(KeyKind::kRsa);
  ASSERT_TRUE(testtsa::writeKey(dir.file("stranger.key"), stranger.get()));
  writeFile(dir.file("junk.pem"), "junk\n");
  const struct {
    std::string key, cert;
    int result;
    const char* message;
  } cases[] = {
      {file("rsa.key"), dir.file("missing.pem"), -1, "Can't read certificate from "},
      {file("rsa.key"), dir.file("junk.pem"), -1, "Can't read certificate from "},
      {dir.file("missing.key"), file("rsa.pem"), -2, "Can't read signature key from "},
      {file("dsa.key"), file("rsa.pem"), -3, "Can't retrive public DSA key from certificate"},
      {file("rsa.key"), file("dsa.pem"), -3, "Can't retrive public RSA key from certificate"},
      {dir.file("stranger.key"), file("rsa.pem"), -4, "RSA key doesn't match certificate"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    LogCapture log(LogCapture::kAllLevels);
    CAsn1string response(kTagOctetString);
    EXPECT_EQ(generateTimestamp(imprintOf(NID_sha256), c.key.c_str(), c.cert.c_str(), &response),
              c.result);
    EXPECT_EQ(response.length(), 0u);
    EXPECT_TRUE(log.contains(c.message)) << log.text();
    EXPECT_FALSE(log.contains("CAsn1ietfTSResp"));
    EXPECT_FALSE(log.contains("signed"));
  }
}

TEST(GenerateTimestamp, CertificateValidityDatesUnlessIgnored) {
  testing_support::TempDir dir;
  EvpPkeyPtr key = testtsa::generateKey(KeyKind::kRsa);
  ASSERT_TRUE(testtsa::writeKey(dir.file("k.key"), key.get()));
  X509Ptr expired = files().ca.issue(key.get(), "expired", -7200, -3600);
  X509Ptr future = files().ca.issue(key.get(), "future", 3600, 7200);
  ASSERT_TRUE(testtsa::writeCertificates(dir.file("expired.pem"), {expired.get()}));
  ASSERT_TRUE(testtsa::writeCertificates(dir.file("future.pem"), {future.get()}));
  const struct {
    const char* ignore;  // null: unset
    bool refused;
  } cases[] = {{nullptr, true}, {"off", true},  {"YES", true}, {"true", true},
               {"on", false},   {"yes", false}, {"1", false}};
  for (const auto& c : cases) {
    MapEnvironment env;
    if (c.ignore != nullptr) env.set("IgnoreCertificateValidyDates", c.ignore);
    LocalTimestampOptions options;
    options.ignoreValidityDates = ignoreValidityDatesWanted(env);
    for (const std::string cert : {"expired", "future"}) {
      SCOPED_TRACE(cert + " " + (c.ignore ? c.ignore : "(unset)"));
      LogCapture log(LogCapture::kAllLevels);
      CAsn1string response;
      EXPECT_EQ(generateTimestamp(imprintOf(NID_sha256), dir.file("k.key").c_str(),
                                  dir.file(cert + ".pem").c_str(), &response, options),
                c.refused ? -5 : 0);
      EXPECT_EQ(log.contains("Error adding certificate reference"), c.refused);
      EXPECT_EQ(log.contains(cert == "expired" ? "Certificate has expired. VNA: "
                                               : "Certificate is no valid yet. VNB: "),
                c.refused);
    }
  }
}

}  // namespace
