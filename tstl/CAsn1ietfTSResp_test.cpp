// TimeStampResp decoding and encoding against responses made by OpenSSL's own
// TSA code, checked against what OpenSSL reads from the same bytes.
#include "tstl/CAsn1ietfTSResp.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testing/DerTest.h"
#include "testing/LogCapture.h"
#include "testing/OpenSslTsa.h"
#include "tstl/CAsn1attribute.h"
#include "tstl/CAsn1signedData.h"
#include "tstl/CCertInfo.h"
#include "tstl/Der.h"
#include "tstl/TokenDer.h"

namespace {

using testing_support::inspectResponse;
using testing_support::LogCapture;
using testing_support::OpenSslTsa;
using testing_support::setDerHex;
using testing_support::TsRequestOptions;
using testing_support::TsResponseFacts;
using testing_support::TsResponseOptions;
using Bytes = std::vector<uint8_t>;

std::string dotted(int nid) {
  char text[128];
  OBJ_obj2txt(text, sizeof text, OBJ_nid2obj(nid), 1);
  return text;
}

Bytes bytesOf(const CAsn1string& s) { return Bytes(s.data(), s.data() + s.length()); }

// Decodes bytes held in a vector of exactly their size (ASan sees any
// over-read) and returns setDER's result; *pos gets the final position.
int decode(CAsn1object& object, const Bytes& der, unsigned int* pos = nullptr) {
  std::vector<unsigned char> exact(der.begin(), der.end());
  unsigned int p = 0;
  int rc = object.setDER(exact.data(), &p, static_cast<unsigned int>(exact.size()));
  if (pos != nullptr) *pos = p;
  return rc;
}

// One TSA per key type for the whole file: key generation is the slow part.
OpenSslTsa& tsa(OpenSslTsa::KeyType type) {
  static OpenSslTsa rsa(OpenSslTsa::KeyType::kRsa);
  static OpenSslTsa ecdsa(OpenSslTsa::KeyType::kEcdsa);
  return type == OpenSslTsa::KeyType::kRsa ? rsa : ecdsa;
}

// Verifies signature over data with the certificate's key and digest nid.
bool signatureVerifies(X509* cert, int nid, const CAsn1string& data, const CAsn1string& sig) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = ctx != nullptr &&
            EVP_DigestVerifyInit(ctx, nullptr, EVP_get_digestbynid(nid), nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, sig.data(), sig.length(), data.data(), data.length()) == 1;
  EVP_MD_CTX_free(ctx);
  return ok;
}

struct GrantedCase {
  const char* name;
  OpenSslTsa::KeyType key;
  int hashNid;
  bool certReq;
  bool nonce;
  bool extras;  // accuracy, ordering, TSA name, CA certificate, fractional genTime
};

class GrantedResponse : public ::testing::TestWithParam<GrantedCase> {};

TEST_P(GrantedResponse, DecodesLikeOpenSslAndReencodesIdentically) {
  const GrantedCase& c = GetParam();
  OpenSslTsa& authority = tsa(c.key);
  ASSERT_TRUE(authority.ok()) << authority.error();
  TsRequestOptions request;
  request.hashNid = c.hashNid;
  request.certReq = c.certReq;
  request.withNonce = c.nonce;
  request.nonce = {0x7A, 0x01, 0x02};
  TsResponseOptions response;
  response.serial = 0x01020304;
  if (c.extras) {
    response.accuracySeconds = 1;
    response.accuracyMillis = 500;
    response.ordering = true;
    response.tsaName = true;
    response.includeCaCert = true;
    response.clockPrecisionDigits = 3;
    response.genTimeMicros = 250000;
  }
  const Bytes der = authority.respond(request, response);
  ASSERT_FALSE(der.empty()) << authority.error();
  TsResponseFacts facts;
  std::string why;
  ASSERT_TRUE(inspectResponse(der, &facts, &why)) << why;

  CAsn1ietfTSResp resp;
  unsigned int pos = 0;
  ASSERT_EQ(decode(resp, der, &pos), 0);
  EXPECT_EQ(pos, der.size());
  ASSERT_TRUE(resp.hasToken());
  EXPECT_EQ(resp.getStatus(), facts.status);
  const CAsn1TSTInfo& tst = resp.getTSTInfo();
  EXPECT_EQ(dotted(tst.policy.nid), facts.policyOid);
  uint64_t serial = 0;
  ASSERT_TRUE(tst.serialNumber.toUint64(&serial));
  EXPECT_EQ(static_cast<long>(serial), facts.serial);
  EXPECT_EQ(tst.genTime.derText(), facts.genTime);
  EXPECT_EQ(tst.messageImprint.hashAlgorithm.algorithm.nid, facts.imprintNid);
  EXPECT_EQ(bytesOf(tst.messageImprint.hashedMessage), facts.imprint);
  EXPECT_EQ(tst.hasNonce(), facts.hasNonce);
  if (facts.hasNonce) {
    uint64_t nonce = 0;
    ASSERT_TRUE(tst.nonce.toUint64(&nonce));
    EXPECT_EQ(static_cast<long>(nonce), facts.nonce);
  }
  EXPECT_EQ(resp.getCertCount(), static_cast<unsigned int>(facts.certificateCount));
  if (c.certReq) {
    ASSERT_NE(resp.getCert(0), nullptr);
    EXPECT_EQ(X509_cmp(resp.getCert(0)->x509(), authority.tsaCert()), 0);
  }
  EXPECT_EQ(resp.getCert(facts.certificateCount), nullptr);

  // The signer named in the token is the TSA certificate.
  CCertInfo tsaCert(authority.tsaCertDer().data(),
                    static_cast<unsigned int>(authority.tsaCertDer().size()));
  CAsn1issuerSerial expected;
  ASSERT_EQ(tsaCert.GetIssuerAndSerial(&expected), 0);
  CAsn1string signerSerial = resp.getSignerIssuerSerial().serial;
  EXPECT_EQ(testing_support::derHex(signerSerial), testing_support::derHex(expected.serial));

  // The signed attributes and the signature fit together: messageDigest is
  // the hash of the TSTInfo, the signature covers the attributes as a SET.
  const int digestNid = resp.getDigestAlgAttrib().algorithm.nid;
  EXPECT_EQ(digestNid, NID_sha256);
  CAsn1string tstDer;
  ASSERT_EQ(resp.getIETF_TBSbuf(&tstDer), 0);
  EXPECT_EQ(bytesOf(resp.getDigestAttrib()), bytesOf(hashAsn1string(tstDer, digestNid)));
  CAsn1string tbs;
  ASSERT_EQ(resp.getTBSbuf(&tbs), 0);
  EXPECT_EQ(tbs.data()[0], kTagSet);
  EXPECT_TRUE(signatureVerifies(authority.tsaCert(), digestNid, tbs, resp.getSignature()));
  // OpenSSL adds signingCertificateV2 (a SEQUENCE) beyond the three named ones.
  const CAsn1attribute* essCert =
      resp.getSigner().signedAttributes.find(NID_id_smime_aa_signingCertificateV2);
  ASSERT_NE(essCert, nullptr);
  ASSERT_NE(essCert->stringValue(), nullptr);
  EXPECT_EQ(essCert->stringValue()->tag(), kTagSequence);

  EXPECT_EQ(encodeDER(resp), der);
}

INSTANTIATE_TEST_SUITE_P(
    OpenSsl, GrantedResponse,
    ::testing::Values(
        GrantedCase{"RsaSha1", OpenSslTsa::KeyType::kRsa, NID_sha1, true, false, false},
        GrantedCase{"RsaSha256", OpenSslTsa::KeyType::kRsa, NID_sha256, true, true, true},
        GrantedCase{"RsaSha512NoCert", OpenSslTsa::KeyType::kRsa, NID_sha512, false, true, false},
        GrantedCase{"EcdsaSha1NoCert", OpenSslTsa::KeyType::kEcdsa, NID_sha1, false, false, true},
        GrantedCase{"EcdsaSha256", OpenSslTsa::KeyType::kEcdsa, NID_sha256, true, false, false},
        GrantedCase{"EcdsaSha512", OpenSslTsa::KeyType::kEcdsa, NID_sha512, true, true, true}),
    [](const ::testing::TestParamInfo<GrantedCase>& info) { return info.param.name; });

TEST(CAsn1ietfTSResp, RemovedCertificatesAreGoneFromTheEncodedToken) {
  OpenSslTsa& authority = tsa(OpenSslTsa::KeyType::kRsa);
  TsRequestOptions request;
  TsResponseOptions response;
  response.includeCaCert = true;
  const Bytes der = authority.respond(request, response);
  CAsn1ietfTSResp resp;
  ASSERT_EQ(decode(resp, der), 0);
  ASSERT_EQ(resp.getCertCount(), 2u);
  EXPECT_EQ(resp.removeCerts(), 0);
  EXPECT_EQ(resp.getCertCount(), 0u);
  const Bytes stripped = encodeDER(resp);
  TsResponseFacts facts;
  std::string why;
  ASSERT_TRUE(inspectResponse(stripped, &facts, &why)) << why;
  EXPECT_EQ(facts.certificateCount, 0);
  EXPECT_TRUE(authority.verifyResponse(stripped, request, &why)) << why;
}

TEST(CAsn1ietfTSResp, GrantedWithModsCarriesItsToken) {
  TsRequestOptions request;
  TsResponseOptions response;
  response.status = TS_STATUS_GRANTED_WITH_MODS;
  response.statusTexts = {"policy changed"};
  const Bytes der = tsa(OpenSslTsa::KeyType::kEcdsa).respond(request, response);
  CAsn1ietfTSResp resp;
  ASSERT_EQ(decode(resp, der), 0);
  EXPECT_EQ(resp.getStatus(), 1);
  EXPECT_EQ(resp.getStatusString(), "policy changed");
  EXPECT_TRUE(resp.hasToken());
}

TEST(CAsn1ietfTSResp, RefusedResponsesKeepStatusFirstTextAndFailureInfo) {
  struct Case {
    int status;
    std::vector<std::string> texts;
    std::vector<int> bits;
  } cases[] = {
      {TS_STATUS_REJECTION, {}, {}},
      {TS_STATUS_REJECTION, {"unsupported algorithm"}, {TS_INFO_BAD_ALG}},
      {TS_STATUS_WAITING, {"busy", "try again later"}, {TS_INFO_SYSTEM_FAILURE}},
      {TS_STATUS_REJECTION, {"no policy", "bad request"}, {TS_INFO_UNACCEPTED_POLICY}},
      {TS_STATUS_REVOCATION_WARNING, {"revocation soon"}, {}},
  };
  for (const Case& c : cases) {
    TsResponseOptions response;
    response.status = c.status;
    response.statusTexts = c.texts;
    response.failureBits = c.bits;
    const Bytes der = tsa(OpenSslTsa::KeyType::kRsa).respond(TsRequestOptions(), response);
    TsResponseFacts facts;
    std::string why;
    ASSERT_TRUE(inspectResponse(der, &facts, &why)) << why;
    ASSERT_EQ(facts.statusTexts, c.texts);

    LogCapture log;
    Log::setLevel(9, 1);
    CAsn1ietfTSResp resp;
    unsigned int pos = 0;
    ASSERT_EQ(decode(resp, der, &pos), 0) << c.status;
    Log::setLevel(9, 0);
    EXPECT_EQ(pos, der.size());
    EXPECT_EQ(resp.getStatus(), facts.status);
    EXPECT_EQ(resp.getStatusString(), c.texts.empty() ? "" : c.texts[0]);
    for (size_t i = 0; i < c.texts.size(); ++i) {
      EXPECT_TRUE(log.contains("[" + std::to_string(i + 1) +
                               "] status:" + std::to_string(c.status) + " (" + c.texts[i] + ")"));
    }
    EXPECT_FALSE(resp.hasToken());
    EXPECT_EQ(resp.getCertCount(), 0u);
    EXPECT_EQ(resp.removeCerts(), -1);
    EXPECT_EQ(resp.getCert(0), nullptr);
    // Bit numbers count from the first octet's top bit; the library holds them reversed.
    const CAsn1bitString& bits = resp.statusInfo.failInfo;
    EXPECT_EQ(bits.countSet(), facts.failureBits.size());
    for (int bit : facts.failureBits) EXPECT_EQ(bits.getBit(bits.bitCount() - 1 - bit), 1) << bit;
  }
}

// Every truncation of a real response fails cleanly or, when only the token
// is cut, is taken without it; nothing is read past the bytes received.
TEST(CAsn1ietfTSResp, TruncatedResponsesNeverReadPastTheirEnd) {
  TsRequestOptions request;
  request.withNonce = true;
  TsResponseOptions response;
  response.accuracySeconds = 2;
  response.tsaName = true;
  const Bytes der = tsa(OpenSslTsa::KeyType::kEcdsa).respond(request, response);
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
      if (rc == 0) {
        EXPECT_EQ(shrunk.getStatus(), 0);
      }
    }
  }
}

TEST(CAsn1ietfTSResp, StatusOnlyResponsesAndForeignTokens) {
  LogCapture log;
  CAsn1ietfTSResp rejection;
  EXPECT_EQ(setDerHex(rejection, "30 05 30 03 02 01 02"), 0);
  EXPECT_EQ(rejection.getStatus(), 2);
  EXPECT_FALSE(rejection.hasToken());
  EXPECT_EQ(testing_support::derHex(rejection), "30 05 30 03 02 01 02");

  // A granted status with a data token instead of SignedData.
  CAsn1ietfTSResp data;
  EXPECT_EQ(setDerHex(data,
                      "30 18 30 03 02 01 00 30 11 06 09 2A 86 48 86 F7 0D 01 07 01"
                      " A0 04 04 02 41 42"),
            -1);
  EXPECT_TRUE(log.contains("Sub contentType = 21(pkcs7-data), expected 22(pkcs7-signedData)"));

  // A token whose length runs past the response is not decoded.
  CAsn1ietfTSResp longToken;
  EXPECT_EQ(setDerHex(longToken, "30 07 30 03 02 01 00 30 7F"), 0);
  EXPECT_FALSE(longToken.hasToken());

  CAsn1ietfTSResp notSequence;
  EXPECT_EQ(setDerHex(notSequence, "31 05 30 03 02 01 02"), -1);
  EXPECT_TRUE(log.contains("DER decoding-error at pos 0. Expected 0x30, got 0x31"));
}

// The local signer's path: build, take the to-be-signed bytes, sign with the
// TSA key, encode; OpenSSL must read the result and the signature must hold.
TEST(CAsn1ietfTSResp, LocallySignedResponseIsReadByOpenSsl) {
  OpenSslTsa& authority = tsa(OpenSslTsa::KeyType::kRsa);
  const Bytes certDer = authority.tsaCertDer();
  CCertInfo cert(certDer.data(), static_cast<unsigned int>(certDer.size()));
  ASSERT_TRUE(cert.ok());
  const Bytes digest = testing_support::digestOf(NID_sha256, "document");
  CAsn1messageImprint imprint;
  imprint.hashAlgorithm = CAsn1algorithmIdentifier(NID_sha256, true);
  imprint.hashedMessage.setVal(kTagOctetString, digest.data(),
                               static_cast<unsigned int>(digest.size()));

  CAsn1ietfTSResp resp;
  CAsn1string tbs;
  resp.setGenTime(time(nullptr));
  resp.setMessageImprint(imprint);
  resp.setPolicy(OBJ_txt2nid("1.2.840.113549.1.9.16.1.4"));  // any known OID
  resp.setDigestNid(NID_sha256);
  {
    LogCapture log;
    Log::setLevel(9, 1);
    EXPECT_EQ(resp.getTBSbuf(&tbs), -1);
    Log::setLevel(9, 0);
    EXPECT_TRUE(
        log.contains("ToBeSigned buffer can not be created because at least one member "
                     "has not been configured"));
    EXPECT_TRUE(log.contains("Hash 1, Time 1, CertRef 0, Policy 1, SerialNo 0"));
  }
  resp.setSerialNumber(4711);
  ASSERT_EQ(resp.addRefFromCert(cert), 0);
  ASSERT_EQ(resp.getTBSbuf(&tbs), 0);

  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  unsigned char sig[512];
  size_t sigLength = sizeof sig;
  ASSERT_EQ(EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, authority.tsaKey()), 1);
  ASSERT_EQ(EVP_DigestSign(ctx, sig, &sigLength, tbs.data(), tbs.length()), 1);
  EVP_MD_CTX_free(ctx);
  ASSERT_EQ(resp.setSignature(EVP_PKEY_RSA, sig, static_cast<unsigned int>(sigLength), NID_sha256),
            0);
  unsigned char copied[512];
  unsigned int copiedLength = sizeof copied;
  EXPECT_EQ(resp.getSignature(copied, &copiedLength), 0);
  EXPECT_EQ(copiedLength, sigLength);
  const Bytes der = encodeDER(resp);
  ASSERT_FALSE(der.empty());

  TsResponseFacts facts;
  std::string why;
  ASSERT_TRUE(inspectResponse(der, &facts, &why)) << why;
  EXPECT_EQ(facts.status, 0);
  EXPECT_EQ(facts.serial, 4711);
  EXPECT_EQ(facts.imprint, digest);
  EXPECT_EQ(facts.signerCount, 1);

  // What OpenSSL reads: the signed attributes are the bytes that were signed,
  // the messageDigest is the hash of OpenSSL's own encoding of the TSTInfo,
  // and the signature verifies with the TSA certificate.
  const unsigned char* p = der.data();
  TS_RESP* parsed = d2i_TS_RESP(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(parsed, nullptr);
  PKCS7_SIGNER_INFO* si =
      sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(TS_RESP_get_token(parsed)), 0);
  unsigned char* attrs = nullptr;
  const int attrsLength = ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(si->auth_attr), &attrs,
                                        ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
  ASSERT_GT(attrsLength, 0);
  EXPECT_EQ(Bytes(attrs, attrs + attrsLength), bytesOf(tbs));
  OPENSSL_free(attrs);
  unsigned char* tstDer = nullptr;
  const int tstLength = i2d_TS_TST_INFO(TS_RESP_get_tst_info(parsed), &tstDer);
  ASSERT_GT(tstLength, 0);
  const ASN1_OCTET_STRING* md = PKCS7_digest_from_attributes(si->auth_attr);
  ASSERT_NE(md, nullptr);
  EXPECT_EQ(Bytes(ASN1_STRING_get0_data(md), ASN1_STRING_get0_data(md) + ASN1_STRING_length(md)),
            testing_support::digestOf(NID_sha256,
                                      std::string(reinterpret_cast<char*>(tstDer), tstLength)));
  OPENSSL_free(tstDer);
  CAsn1string signature(kTagOctetString, ASN1_STRING_get0_data(si->enc_digest),
                        static_cast<unsigned int>(ASN1_STRING_length(si->enc_digest)));
  EXPECT_TRUE(signatureVerifies(authority.tsaCert(), NID_sha256, tbs, signature));
  TS_RESP_free(parsed);
  CAsn1string ourTstDer;
  ASSERT_EQ(resp.getIETF_TBSbuf(&ourTstDer), 0);
  EXPECT_EQ(bytesOf(resp.getDigestAttrib()), bytesOf(hashAsn1string(ourTstDer, NID_sha256)));
  EXPECT_EQ(resp.getSignAlg().algorithm.nid, NID_rsaEncryption);
}

TEST(CAsn1ietfTSResp, CertificateValidityIsCheckedUnlessSwitchedOffExactly) {
  OpenSslTsa& authority = tsa(OpenSslTsa::KeyType::kEcdsa);
  const Bytes certDer = authority.tsaCertDer();
  CCertInfo cert(certDer.data(), static_cast<unsigned int>(certDer.size()));
  ASSERT_TRUE(cert.ok());
  const time_t now = time(nullptr);
  struct Case {
    time_t genTime;
    const char* ignore;  // null: unset
    int result;
    const char* message;
  } cases[] = {
      {now, nullptr, 0, nullptr},
      {now - 3 * 24 * 3600, nullptr, -1, "Certificate is no valid yet. VNB: "},
      {now + 400 * 24 * 3600, nullptr, -1, "Certificate has expired. VNA: "},
      {now + 400 * 24 * 3600, "on", 0, nullptr},
      {now + 400 * 24 * 3600, "yes", 0, nullptr},
      {now + 400 * 24 * 3600, "1", 0, nullptr},
      {now + 400 * 24 * 3600, "YES", -1, "Certificate has expired."},
      {now + 400 * 24 * 3600, "true", -1, "Certificate has expired."},
  };
  for (const Case& c : cases) {
    if (c.ignore != nullptr) {
      setenv("IgnoreCertificateValidyDates", c.ignore, 1);
    } else {
      unsetenv("IgnoreCertificateValidyDates");
    }
    Log::setLevel(7, 1);
    LogCapture log;
    CAsn1ietfTSResp resp;
    resp.setGenTime(c.genTime);
    EXPECT_EQ(resp.addRefFromCert(cert), c.result) << (c.ignore ? c.ignore : "unset");
    if (c.message != nullptr) {
      EXPECT_TRUE(log.contains(c.message)) << c.message;
    }
    Log::setLevel(7, 0);
  }
  unsetenv("IgnoreCertificateValidyDates");
}

TEST(hashAsn1string, DigestsTheBytesOrGivesAnEmptyString) {
  const std::string text = "clockette";
  CAsn1string s(kTagOctetString, reinterpret_cast<const unsigned char*>(text.data()),
                static_cast<unsigned int>(text.size()));
  for (int nid : {NID_sha1, NID_sha256, NID_sha512}) {
    CAsn1string h = hashAsn1string(s, nid);
    EXPECT_EQ(h.tag(), kTagOctetString);
    EXPECT_EQ(bytesOf(h), testing_support::digestOf(nid, text)) << nid;
  }
  LogCapture log;
  EXPECT_EQ(hashAsn1string(s, NID_rsaEncryption).length(), 0u);
  EXPECT_TRUE(log.contains("can't get a digest EVP for NID 6"));
}

}  // namespace
