#include "der/asn1request.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/ts.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/DerTest.h"
#include "testing/Hex.h"
#include "testing/TokenMaker.h"

using namespace testing_support;

namespace {

using TsReqPtr = std::unique_ptr<TS_REQ, decltype(&TS_REQ_free)>;

// A TimeStampReq made by OpenSSL, as DER.
std::vector<unsigned char> opensslRequest(int nid, const std::vector<unsigned char>& digest,
                                          bool withOptionals) {
  TsReqPtr req(TS_REQ_new(), TS_REQ_free);
  TS_REQ_set_version(req.get(), 1);
  TS_MSG_IMPRINT* imprint = TS_MSG_IMPRINT_new();
  X509_ALGOR* algo = X509_ALGOR_new();
  X509_ALGOR_set0(algo, OBJ_nid2obj(nid), V_ASN1_NULL, nullptr);
  TS_MSG_IMPRINT_set_algo(imprint, algo);
  TS_MSG_IMPRINT_set_msg(imprint, const_cast<unsigned char*>(digest.data()),
                         static_cast<int>(digest.size()));
  TS_REQ_set_msg_imprint(req.get(), imprint);
  TS_MSG_IMPRINT_free(imprint);
  X509_ALGOR_free(algo);
  if (withOptionals) {
    ASN1_OBJECT* policy = OBJ_txt2obj("1.2.3.4.5", 1);
    TS_REQ_set_policy_id(req.get(), policy);
    ASN1_OBJECT_free(policy);
    ASN1_INTEGER* nonce = ASN1_INTEGER_new();
    ASN1_INTEGER_set(nonce, 0x1234567);
    TS_REQ_set_nonce(req.get(), nonce);
    ASN1_INTEGER_free(nonce);
    TS_REQ_set_cert_req(req.get(), 1);
  }
  int n = i2d_TS_REQ(req.get(), nullptr);
  std::vector<unsigned char> out(static_cast<size_t>(n));
  unsigned char* p = out.data();
  i2d_TS_REQ(req.get(), &p);
  return out;
}

}  // namespace

// Byte for byte what OpenSSL writes for the same request, so OpenSSL and
// every server on its code read ours.
TEST(CAsn1IETFrequest, EncodesAndDecodesAsOpenSslDoes) {
  for (int nid : {NID_sha1, NID_sha256, NID_sha512, NID_ripemd160}) {
    std::vector<unsigned char> digest = digestOf(nid, "document body");
    ASSERT_FALSE(digest.empty()) << OBJ_nid2sn(nid);
    const std::vector<unsigned char> der = opensslRequest(nid, digest, false);
    CAsn1IETFrequest ours;
    ours.messageImprint.hashAlgorithm = CAsn1algorithmIdentifier(nid, true);
    ours.messageImprint.hashedMessage.setVal(digest.data(),
                                             static_cast<unsigned int>(digest.size()));
    EXPECT_EQ(encodeDER(ours), der) << OBJ_nid2sn(nid);
    CAsn1IETFrequest req;
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(req, toHex(der), &pos), 0) << OBJ_nid2sn(nid);
    EXPECT_EQ(pos, der.size());
    EXPECT_EQ(req.version.value, 1);
    EXPECT_EQ(req.messageImprint.hashAlgorithm.algorithm.nid, nid);
    const CAsn1string& hash = req.messageImprint.hashedMessage;
    EXPECT_EQ(hash.tag(), kTagOctetString);
    EXPECT_EQ(std::vector<unsigned char>(hash.data(), hash.data() + hash.length()), digest);
  }
}

TEST(CAsn1IETFrequest, DecodedOptionalsKeepTheirFlags) {
  std::vector<unsigned char> digest = digestOf(NID_sha256, "x");
  std::vector<unsigned char> der = opensslRequest(NID_sha256, digest, true);
  CAsn1IETFrequest req;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(req, toHex(der), &pos), 0);
  EXPECT_EQ(pos, der.size());
  EXPECT_EQ(OBJ_obj2nid(OBJ_txt2obj("1.2.3.4.5", 1)), req.reqPolicy.nid);
  EXPECT_EQ(toHex(req.nonce.data(), req.nonce.length()), "01 23 45 67");
  EXPECT_EQ(req.certReq.value, 1);
  EXPECT_FALSE(req.policyPresent || req.noncePresent || req.certReqPresent);
  // Re-encoding writes only what was flagged: version and imprint.
  EXPECT_EQ(encodeDER(req), opensslRequest(NID_sha256, digest, false));

  req.noncePresent = req.certReqPresent = req.policyPresent = true;
  EXPECT_EQ(encodeDER(req), der);
}

TEST(CAsn1IETFrequest, SkipsAnOptionalThatRunsPastTheRequest) {
  // The nonce claims 5 octets; only 3 are left inside the request.
  const char* hex = "30 11 02 01 01 30 09 30 05 06 03 2b 0e 03 04 00 02 05 01 02 03 04 05";
  CAsn1IETFrequest req;
  unsigned int pos = 0;
  ASSERT_EQ(setDerHex(req, hex, &pos), 0);
  EXPECT_EQ(req.nonce.length(), 0u);
  EXPECT_EQ(pos, 2u + 3u + 11u);  // the element stays unread; one inside is read: above
}
