// TimeStampResp decoding and encoding against responses that the in-process
// test TSA makes with OpenSSL's TS and CMS code.
#include "der/CAsn1ietfTSResp.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/ts.h>
#include <openssl/x509.h>

#include <cstring>
#include <string>
#include <vector>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "testing/TempDir.h"
#include "testing/TestTsa.h"
#include "testing/TokenMaker.h"
#include "der/CAsn1attribute.h"
#include "der/CCertInfo.h"
#include "der/Der.h"
#include "tsclient/TokenCheck.h"

namespace {

using namespace testing_support;
using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const CAsn1string& s) { return Bytes(s.data(), s.data() + s.length()); }

int decode(CAsn1object& object, const Bytes& der, unsigned int* pos = nullptr) {
  return setDerHex(object, testing_support::toHex(der), pos);
}

// One maker for the whole file: key generation is the slow part.
TokenMaker& maker() {
  static TokenMaker* m = new TokenMaker;
  return *m;
}

// Verifies signature over data with the certificate's key and digest nid
// (RSASSA-PSS padding when pss).
bool signatureVerifies(X509* cert, int nid, const CAsn1string& data, const CAsn1string& sig,
                       bool pss) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pctx = nullptr;
  return ctx &&
         EVP_DigestVerifyInit(ctx.get(), &pctx, EVP_get_digestbynid(nid), nullptr, key) == 1 &&
         (!pss || EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1) &&
         EVP_DigestVerify(ctx.get(), sig.data(), sig.length(), data.data(), data.length()) == 1;
}

bool has(const char* flags, const char* word) { return strstr(flags, word) != nullptr; }

// OpenSSL's tokens in the shapes of real Timestamp Servers: what our decoder
// reads equals what OpenSSL wrote, the signature fits the signed attributes,
// the bytes write back unchanged, and the token checks take them.
TEST(CAsn1ietfTSResp, GrantedTokensDecodeLikeOpenSslReencodeIdenticallyAndCheck) {
  const std::string serial20 = "7F" + std::string(38, '5');
  const struct {
    SignerKey key;
    int imprintNid;
    int signerDigestNid;
    std::string serial;  // INTEGER content octets, hex
    // cert: the token carries the signer and the CA; essV1: signingCertificate
    // rather than v2; extras: accuracy, ordering, TSA name, fractional genTime;
    // ski: the SignerInfo names the signer by key identifier (version 3); pss:
    // an rsaEncryption key signs with RSASSA-PSS.
    const char* flags;
  } cases[] = {
      {SignerKey::kRsa, NID_sha1, NID_sha256, "01020304", "cert"},
      {SignerKey::kRsa, NID_sha256, NID_sha256, "01020304", "cert nonce extras"},
      {SignerKey::kRsa, NID_sha512, NID_sha256, "01020304", "nonce"},
      {SignerKey::kEc256, NID_sha1, NID_sha256, "01020304", "extras"},
      {SignerKey::kEc256, NID_sha256, NID_sha256, "01020304", "cert"},
      {SignerKey::kEc256, NID_sha512, NID_sha256, "01020304", "cert nonce extras"},
      {SignerKey::kRsa, NID_sha256, NID_sha256, serial20, "cert extras"},
      {SignerKey::kRsa, NID_sha512, NID_sha256, "00C3" + std::string(38, '5'), "cert extras"},
      {SignerKey::kRsaPss, NID_sha256, NID_sha384, "01", "cert extras"},
      {SignerKey::kEc256, NID_sha1, NID_sha256, "02", "cert extras essV1"},
      {SignerKey::kEc384, NID_sha384, NID_sha384, "11" + std::string(30, '5'), "cert extras"},
      {SignerKey::kEc521, NID_sha3_512, NID_sha512, "0080", "cert extras"},
      {SignerKey::kRsa, NID_sha256, NID_sha256, "7F" + std::string(126, '5'), "cert extras ski"},
      {SignerKey::kEc256, NID_sha256, NID_sha256, "01", "ski"},
      {SignerKey::kRsa, NID_sha256, NID_sha256, "01", "cert pss ski"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(OBJ_nid2sn(c.imprintNid)) + " " + c.serial + " " + c.flags);
    const bool certReq = has(c.flags, "cert"), nonce = has(c.flags, "nonce"),
               extras = has(c.flags, "extras");
    TokenShape shape;
    shape.key = c.key;
    shape.imprintNid = c.imprintNid;
    shape.signerDigest = EVP_get_digestbynid(c.signerDigestNid);
    shape.serial = testing_support::fromHex(c.serial);
    if (has(c.flags, "essV1")) shape.ess = testtsa::EssCertId::kV1;
    shape.signerByKeyId = has(c.flags, "ski");
    shape.pssPadding = has(c.flags, "pss");
    shape.includeSigner = certReq;
    if (nonce) shape.nonce = {0x7A, 0x01, 0x02};
    shape.genTime = 1700000000;
    if (extras) {
      shape.accuracy = true;
      shape.accuracyMillis = 500;
      shape.ordering = true;
      shape.tsaName = true;
      shape.fractionDigits = 3;
      shape.genTimeMicros = 250000;
    }
    const Bytes der = maker().response(shape);
    TokenExpectations expect;
    expect.hashNid = c.imprintNid;
    expect.digest = digestOf(c.imprintNid, "clockette");
    const TokenCheckResult r = checkTimestampResponse(der.data(), der.size(), &expect, nullptr);
    EXPECT_TRUE(r.ok) << r.reason << maker().error();
    EXPECT_EQ(r.facts.signatureChecked, certReq);  // without the signer nothing to check with
    EXPECT_EQ(r.facts.tsaName.find("CN = Clockette Token Signer") != std::string::npos, extras)
        << r.facts.tsaName;

    CAsn1ietfTSResp resp;
    unsigned int pos = 0;
    ASSERT_EQ(decode(resp, der, &pos), 0);
    EXPECT_EQ(pos, der.size());
    ASSERT_TRUE(resp.hasToken());
    EXPECT_EQ(resp.getStatus(), 0);
    const CAsn1TSTInfo& tst = resp.getTSTInfo();
    EXPECT_EQ(tst.policy.dotted(), shape.policyOid);
    EXPECT_EQ(tst.genTime.derText(), extras ? "20231114221320.25Z" : "20231114221320Z");
    EXPECT_EQ(tst.hasNonce(), nonce);
    EXPECT_TRUE(!nonce || tst.nonce.hex() == "7A0102") << tst.nonce.hex();
    X509* signer = maker().signer(shape);
    EXPECT_EQ(resp.getCertCount(), certReq ? 2u : 0u);  // the signer and the CA
    bool signerAmongThem = false;
    for (unsigned int i = 0; i < resp.getCertCount(); ++i) {
      signerAmongThem = signerAmongThem || X509_cmp(resp.getCert(i)->x509(), signer) == 0;
    }
    EXPECT_EQ(signerAmongThem, certReq);

    // The signer named in the token is the TSA certificate (its serial has no sign octet).
    const ASN1_STRING* id = X509_get0_serialNumber(signer);
    CAsn1string named = resp.getSignerIssuerSerial().serial;
    EXPECT_EQ(resp.getSigner().bySubjectKeyId, shape.signerByKeyId);
    EXPECT_EQ(resp.getSigner().version.value, shape.signerByKeyId ? 3 : 1);
    if (shape.signerByKeyId) {
      id = X509_get0_subject_key_id(signer);
      named = resp.getSigner().subjectKeyId;
    }
    const unsigned char* idBytes = ASN1_STRING_get0_data(id);
    EXPECT_EQ(bytesOf(named), Bytes(idBytes, idBytes + ASN1_STRING_length(id)));

    // The signed attributes and the signature fit together: messageDigest is
    // the hash of the TSTInfo, the signature covers the attributes as a SET.
    const int digestNid = resp.getDigestAlgAttrib().algorithm.nid;
    EXPECT_EQ(digestNid, c.signerDigestNid);
    CAsn1string tstDer;
    ASSERT_EQ(resp.getIETF_TBSbuf(&tstDer), 0);
    EXPECT_EQ(bytesOf(resp.getDigestAttrib()), bytesOf(hashAsn1string(tstDer, digestNid)));
    CAsn1string tbs;
    ASSERT_EQ(resp.getTBSbuf(&tbs), 0);
    EXPECT_EQ(tbs.data()[0], kTagSet);
    EXPECT_TRUE(signatureVerifies(signer, digestNid, tbs, resp.getSignature(),
                                  has(c.flags, "pss") || c.key == SignerKey::kRsaPss));
    // The ESS attribute (a SEQUENCE) beyond the three named attributes.
    const CAsn1attribute* essCert = resp.getSigner().signedAttributes.find(
        has(c.flags, "essV1") ? NID_id_smime_aa_signingCertificate
                              : NID_id_smime_aa_signingCertificateV2);
    ASSERT_NE(essCert, nullptr);
    ASSERT_NE(essCert->stringValue(), nullptr);
    EXPECT_EQ(essCert->stringValue()->tag(), kTagSequence);

    EXPECT_EQ(encodeDER(resp), der);
  }
}

TEST(CAsn1ietfTSResp, RemovedCertificatesAreGoneFromTheEncodedToken) {
  const TokenShape shape;
  const Bytes der = maker().response(shape);
  CAsn1ietfTSResp resp;
  ASSERT_EQ(decode(resp, der), 0);
  ASSERT_EQ(resp.getCertCount(), 2u);
  EXPECT_EQ(resp.removeCerts(), 0);
  EXPECT_EQ(resp.getCertCount(), 0u);
  const Bytes stripped = encodeDER(resp);
  CAsn1ietfTSResp again;
  ASSERT_EQ(decode(again, stripped), 0);
  EXPECT_EQ(again.getCertCount(), 0u);
  TempDir dir;
  writeFile(dir.file("data"), "clockette");
  ASSERT_TRUE(maker().ca().writeCaPem(dir.file("ca.pem")));
  ASSERT_TRUE(testtsa::writeCertificates(dir.file("signer.pem"), {maker().signer(shape)}));
  EXPECT_EQ(verifyTimestampResponse(std::string(stripped.begin(), stripped.end()), dir.file("data"),
                                    dir.file("ca.pem"), dir.file("signer.pem")),
            "");
}

// Every status keeps its first text and its failure bits; only granted ones
// carry a token. The logging of every text: CAsn1signedData_test.
TEST(CAsn1ietfTSResp, StatusTextsAndFailureInfo) {
  struct Case {
    int status;
    std::vector<std::string> texts;
    std::vector<int> bits;
    const char* names;  // of the bits
  } cases[] = {
      {TS_STATUS_GRANTED_WITH_MODS, {"policy changed"}, {}, ""},
      {TS_STATUS_REJECTION, {}, {}, ""},
      {TS_STATUS_REJECTION, {"unsupported algorithm"}, {TS_INFO_BAD_ALG}, "badAlg"},
      {TS_STATUS_WAITING, {"busy", "try again later"}, {TS_INFO_SYSTEM_FAILURE}, "systemFailure"},
      {TS_STATUS_REJECTION,
       {"no policy", "bad request"},
       {TS_INFO_UNACCEPTED_POLICY, 2, 9},
       "badRequest, bit 9, unacceptedPolicy"},
      {TS_STATUS_REVOCATION_WARNING, {"revocation soon"}, {}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    TokenShape shape;
    shape.status = c.status;
    shape.statusTexts = c.texts;
    shape.failureBits = c.bits;
    const Bytes der = maker().response(shape);
    CAsn1ietfTSResp resp;
    unsigned int pos = 0;
    ASSERT_EQ(decode(resp, der, &pos), 0);
    EXPECT_EQ(pos, der.size());
    EXPECT_EQ(resp.getStatus(), c.status);
    EXPECT_EQ(resp.getStatusString(), c.texts.empty() ? "" : c.texts[0]);
    // Bit numbers count from the first octet's top bit; the library holds them reversed.
    EXPECT_EQ(resp.statusInfo.failInfoNames(), c.names);
    EXPECT_EQ(resp.hasToken(), c.status == TS_STATUS_GRANTED_WITH_MODS);
    if (c.texts.empty()) {
      EXPECT_EQ(encodeDER(resp), der);
    }
    if (resp.hasToken()) continue;
    EXPECT_EQ(resp.getCertCount(), 0u);
    EXPECT_EQ(resp.removeCerts(), -1);
    EXPECT_EQ(resp.getCert(0), nullptr);
  }
}

// Every truncation of a real response fails cleanly or, when only the token
// is cut, is taken without it; nothing is read past the bytes received.
TEST(CAsn1ietfTSResp, TruncatedResponsesNeverReadPastTheirEnd) {
  TokenShape shape;
  shape.key = SignerKey::kEc256;
  shape.nonce = {0x01, 0x02};
  shape.accuracy = true;
  shape.accuracySeconds = 2;
  shape.tsaName = true;
  const Bytes der = maker().response(shape);
  LogCapture quiet;
  for (size_t n = 0; n < der.size(); ++n) {
    Bytes cut(der.begin(), der.begin() + static_cast<long>(n));
    CAsn1ietfTSResp resp;
    EXPECT_EQ(decode(resp, cut), -1) << n;
    // The outer length still claims the whole response; shrink it too so that
    // the token's own length is what runs past the end.
    if (n >= 4 && der[1] == 0x82) {
      const unsigned int inner = static_cast<unsigned int>(n - 4);
      cut[2] = static_cast<uint8_t>(inner >> 8);
      cut[3] = static_cast<uint8_t>(inner);
      CAsn1ietfTSResp shrunk;
      const int rc = decode(shrunk, cut);
      EXPECT_FALSE(shrunk.hasToken()) << n;
      EXPECT_TRUE(rc != 0 || shrunk.getStatus() == 0) << n;
    }
  }
}

TEST(CAsn1ietfTSResp, ForeignTokensAndNoSequence) {
  LogCapture log;
  // A granted status with a data token instead of SignedData.
  CAsn1ietfTSResp data;
  EXPECT_EQ(setDerHex(data,
                      "30 18 30 03 02 01 00 30 11 06 09 2A 86 48 86 F7 0D 01 07 01"
                      " A0 04 04 02 41 42"),
            -1);
  EXPECT_TRUE(log.contains("Sub contentType = 21(pkcs7-data), expected 22(pkcs7-signedData)"));

  CAsn1ietfTSResp notSequence;
  EXPECT_EQ(setDerHex(notSequence, "31 05 30 03 02 01 02"), -1);
  EXPECT_TRUE(log.contains("DER decoding-error at pos 0. Expected 0x30, got 0x31"));
}

// The local signer builds a response member by member; the bytes to sign
// exist only once every member is set.
TEST(CAsn1ietfTSResp, ToBeSignedNeedsEveryMember) {
  CAsn1ietfTSResp resp;
  CAsn1string tbs;
  resp.setGenTime(time(nullptr));
  resp.setPolicy(OBJ_txt2nid("1.2.840.113549.1.9.16.1.4"));  // any known OID
  LogCapture log;
  log.target().setLevel(Log::kDebug, 1);
  EXPECT_EQ(resp.getTBSbuf(&tbs), -1);
  EXPECT_TRUE(log.contains("Hash 0, Time 1, CertRef 0, Policy 1, SerialNo 0"));
}

// Digests themselves: the messageDigest checks of the granted tokens above.
TEST(hashAsn1string, NoDigestForANonDigestAlgorithm) {
  const unsigned char text[] = "clockette";
  LogCapture log;
  EXPECT_EQ(hashAsn1string(CAsn1string(kTagOctetString, text, 9), NID_rsaEncryption).length(), 0u);
  EXPECT_TRUE(log.contains("can't get a digest EVP for NID 6"));
}

}  // namespace
