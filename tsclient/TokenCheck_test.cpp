// The token checks against tokens signed by OpenSSL's CMS and TSA code in the
// shapes real Timestamp Servers send, good and broken.
#include "tsclient/TokenCheck.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "testing/TempDir.h"
#include "testing/TokenMaker.h"

namespace {

using namespace testing_support;
using Bytes = std::vector<uint8_t>;

// One maker for the whole file: key generation is the slow part.
TokenMaker& maker() {
  static TokenMaker* m = new TokenMaker;
  return *m;
}

TokenExpectations imprintOf(int nid, const std::string& data) {
  TokenExpectations e;
  e.hashNid = nid;
  e.digest = digestOf(nid, data);
  return e;
}

long residentPages() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident;
}

TokenCheckResult check(const Bytes& der, const TokenExpectations* expect,
                       const TokenTrust* trust = nullptr) {
  return checkTimestampResponse(der.data(), der.size(), expect, trust);
}

// Tokens that verify: CAsn1ietfTSResp_test.
TEST(TokenCheck, TokensThatProveNothingAreRefused) {
  using Shape = void (*)(TokenShape*);
  using Expect = void (*)(TokenExpectations*);  // beyond the imprint of "clockette"
  const Shape plain = [](TokenShape*) {};
  const Expect imprintOnly = [](TokenExpectations*) {};
  const Expect nonce1122 = [](TokenExpectations* e) { e->nonce = {0x11, 0x22}; };
  const Bytes other = digestOf(NID_sha256, "another file"),
              ours = digestOf(NID_sha256, "clockette");
  struct Case {
    const char* name;
    Shape shape;
    Expect expect;
    std::string reason;  // part of the reason text
  } cases[] = {
      {"another imprint", [](TokenShape* s) { s->digest = digestOf(NID_sha256, "another file"); },
       imprintOnly,
       "covers SHA256 " + hexOf(other.data(), other.size()) + ", the request asked for SHA256 " +
           hexOf(ours.data(), ours.size())},
      {"another algorithm", [](TokenShape* s) { s->imprintNid = NID_sha512; }, imprintOnly,
       "the token covers SHA512"},
      {"flipped signature bit", [](TokenShape* s) { s->flipSignature = true; }, imprintOnly,
       "signature does not hold"},
      {"flipped ecdsa signature bit",
       [](TokenShape* s) {
         s->key = SignerKey::kEc384;
         s->flipSignature = true;
       },
       imprintOnly, "signature does not hold"},
      {"ESS names another certificate", [](TokenShape* s) { s->essNamesIssuer = true; },
       imprintOnly, "ESS certificate hash does not name the signer"},
      {"ESS v1 names another certificate",
       [](TokenShape* s) {
         s->ess = testtsa::EssCertId::kV1;
         s->essNamesIssuer = true;
       },
       imprintOnly, "ESS certificate hash does not name the signer"},
      {"nonce not echoed", plain, nonce1122, "carries no nonce, the request sent 1122"},
      {"another nonce",
       [](TokenShape* s) {
         s->nonce = {0x11, 0x23};
       },
       nonce1122, "nonce 1123 is not the request's 1122"},
      {"another policy", plain, [](TokenExpectations* e) { e->policyOid = "1.2.3.4.5"; },
       "policy 1.3.6.1.4.1.7359.1.2 is not the requested 1.2.3.4.5"},
  };
  for (const Case& c : cases) {
    TokenShape shape;
    c.shape(&shape);
    TokenExpectations expect = imprintOf(NID_sha256, "clockette");
    c.expect(&expect);
    const TokenCheckResult r = check(maker().response(shape), &expect);
    EXPECT_FALSE(r.ok) << c.name;
    EXPECT_TRUE(contains(r.reason, c.reason)) << c.name << ": " << r.reason << maker().error();
  }
}

TEST(TokenCheck, AnswersWithoutAGrantedTokenAreRefused) {
  TokenShape trailing;
  trailing.trailingBytes = 8;
  struct Case {
    const char* name;
    Bytes der;
    const char* reason;
  } cases[] = {
      {"granted, no token", {0x30, 0x05, 0x30, 0x03, 0x02, 0x01, 0x00}, "carries no timestamp"},
      {"rejection", {0x30, 0x05, 0x30, 0x03, 0x02, 0x01, 0x02}, "status is 2"},
      {"rejection with failInfo",
       {0x30, 0x09, 0x30, 0x07, 0x02, 0x01, 0x02, 0x03, 0x02, 0x07, 0x80},
       "status is 2, failInfo badAlg"},
      {"a good token and 8 bytes", maker().response(trailing), "8 bytes follow the TimeStampResp"},
      {"a byte after a rejection",
       {0x30, 0x05, 0x30, 0x03, 0x02, 0x01, 0x02, 0x00},
       "1 bytes follow"},
      {"no TimeStampResp", {0x04, 0x01, 0x00}, "no TimeStampResp"},
      {"empty", {}, "no TimeStampResp"},
  };
  for (const Case& c : cases) {
    const TokenCheckResult r = check(c.der, nullptr);
    EXPECT_FALSE(r.ok) << c.name;
    EXPECT_TRUE(contains(r.reason, c.reason)) << c.name << ": " << r.reason;
  }
}

TEST(TokenCheck, TrustAnchorsAndTheSignerCertificate) {
  TempDir dir;
  ASSERT_TRUE(maker().ca().writeCaPem(dir.file("ca.pem")));
  testtsa::CertAuthority otherCa;
  ASSERT_TRUE(otherCa.writeCaPem(dir.file("other-ca.pem")));
  TokenShape plain;
  ASSERT_TRUE(testtsa::writeCertificates(dir.file("signer.pem"), {maker().signer(plain)}));
  testing_support::makeDir(dir.file("anchors"));
  ASSERT_TRUE(maker().ca().writeCaPem(dir.file("anchors/ca.crt")));
  testing_support::writeFile(dir.file("anchors/README"), "not a certificate\n");

  TokenShape noCert;
  noCert.includeSigner = false;
  TokenShape noUsage;
  noUsage.timestampingUsage = false;
  TokenShape expiredBefore;  // expired two hours before genTime (now)
  expiredBefore.signerFrom = -20 * 3600;
  expiredBefore.signerTo = -2 * 3600;
  TokenShape validAtGenTime = expiredBefore;  // made while the certificate was valid
  validAtGenTime.genTime = time(nullptr) - 10 * 3600;
  TokenShape byKeyId;
  byKeyId.signerByKeyId = true;
  TokenShape byKeyIdNoCert = noCert;
  byKeyIdNoCert.signerByKeyId = true;

  struct Case {
    const char* name;
    const TokenShape& shape;
    std::string ca;
    std::string certs;
    bool ok;
    bool signatureChecked;
    bool chainChecked;
    const char* reason;
  } cases[] = {
      {"signer in token, no anchors", plain, "", "", true, true, false, ""},
      {"no signer at hand, no anchors", noCert, "", "", true, false, false, ""},
      {"signer from the untrusted file", noCert, "", dir.file("signer.pem"), true, true, false, ""},
      {"anchor file", plain, dir.file("ca.pem"), "", true, true, true, ""},
      {"anchor directory", plain, dir.file("anchors"), "", true, true, true, ""},
      {"anchors, signer from the untrusted file", noCert, dir.file("ca.pem"),
       dir.file("signer.pem"), true, true, true, ""},
      {"anchors, no signer at hand", noCert, dir.file("ca.pem"), "", false, false, false,
       "signer certificate is neither"},
      {"another anchor", plain, dir.file("other-ca.pem"), "", false, true, false,
       "does not chain to a trust anchor"},
      {"no timeStamping usage", noUsage, dir.file("ca.pem"), "", false, true, false,
       "lacks the critical extendedKeyUsage timeStamping"},
      {"expired before genTime", expiredBefore, dir.file("ca.pem"), "", false, true, false,
       "certificate has expired"},
      {"valid at genTime", validAtGenTime, dir.file("ca.pem"), "", true, true, true, ""},
      {"signer by key identifier", byKeyId, dir.file("ca.pem"), "", true, true, true, ""},
      {"signer by key identifier from the untrusted file", byKeyIdNoCert, dir.file("ca.pem"),
       dir.file("signer.pem"), true, true, true, ""},
      {"signer by key identifier, not at hand", byKeyIdNoCert, dir.file("ca.pem"), "", false, false,
       false, "signer certificate is neither"},
  };
  const TokenExpectations expect = imprintOf(NID_sha256, "clockette");
  for (const Case& c : cases) {
    TokenTrust trust;
    std::string error;
    ASSERT_TRUE(trust.load(c.ca, c.certs, &error)) << c.name << ": " << error;
    const TokenCheckResult r = check(maker().response(c.shape), &expect, &trust);
    EXPECT_EQ(r.ok, c.ok) << c.name << ": " << r.reason << maker().error();
    EXPECT_EQ(r.facts.signatureChecked, c.signatureChecked) << c.name;
    EXPECT_EQ(r.facts.chainChecked, c.chainChecked) << c.name;
    EXPECT_TRUE(contains(r.reason, c.reason)) << c.name << ": " << r.reason;
  }
}

// Every answer names a policy OpenSSL has never seen; reading them must not
// fill a process-wide table.
TEST(TokenCheck, DistinctPolicyIdentifiersLeaveMemoryFlat) {
  TokenShape shape;
  shape.includeSigner = false;
  shape.policyOid = "1.2.3.4.1.16384";  // its last arc takes three octets
  Bytes der = maker().response(shape);
  const Bytes oid = {0x06, 0x07, 0x2a, 0x03, 0x04, 0x01, 0x81, 0x80, 0x00};
  const auto arc = std::search(der.begin(), der.end(), oid.begin(), oid.end()) + 6;
  ASSERT_LT(arc, der.end()) << maker().error();
  const auto checkAll = [&](unsigned int first, unsigned int count) {
    for (unsigned int last = first; last < first + count; ++last) {
      arc[0] = static_cast<uint8_t>(0x80 | (last >> 14));
      arc[1] = static_cast<uint8_t>(0x80 | ((last >> 7) & 0x7F));
      arc[2] = static_cast<uint8_t>(last & 0x7F);
      ASSERT_EQ(check(der, nullptr).facts.policyOid, "1.2.3.4.1." + std::to_string(last));
    }
  };
  checkAll(20000, 2000);  // the allocator's steady state
  const long before = sysconf(_SC_PAGESIZE) * residentPages();
  checkAll(30000, 20000);
  EXPECT_EQ(OBJ_txt2nid("1.2.3.4.1.30000"), NID_undef);
#if !defined(__SANITIZE_ADDRESS__)  // its quarantine holds freed memory back
  EXPECT_LT(sysconf(_SC_PAGESIZE) * residentPages() - before, 2L * 1024 * 1024);
#endif
  (void)before;
}

TEST(TokenCheck, UnreadableTrustSettingsAreReported) {
  TempDir dir;
  testing_support::writeFile(dir.file("empty.pem"), "");
  const std::pair<std::string, std::string> cases[] = {
      {dir.file("missing.pem"), ""},
      {dir.file("empty.pem"), ""},
      {dir.path(), ""},  // a directory without certificates
      {"", dir.file("missing.pem")},
      {"", dir.file("empty.pem")},
  };
  for (const auto& [ca, certs] : cases) {
    TokenTrust trust;
    std::string error;
    EXPECT_FALSE(trust.load(ca, certs, &error)) << ca << certs;
    EXPECT_TRUE(contains(error, ca.empty() ? certs : ca)) << error;
  }
}

}  // namespace
