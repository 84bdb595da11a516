// The signed token structures and the PKIStatusInfo on hand-built DER: the
// cases real TSAs rarely produce (several digest algorithms, many
// certificates, odd status texts), built around parts of a real token.
#include "der/CAsn1signedData.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <string>
#include <vector>

#include "testing/DerTest.h"
#include "testing/Hex.h"
#include "testing/LogCapture.h"
#include "testing/TokenMaker.h"
#include "der/CAsn1TSTInfo.h"
#include "der/CAsn1attributes.h"
#include "der/CAsn1contentInfo.h"
#include "der/CAsn1data.h"
#include "der/CAsn1ietfStatusInfo.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/Der.h"
#include "ossl/OpenSslPtr.h"

namespace {

using namespace testing_support;
using Bytes = std::vector<uint8_t>;

// One DER element: tag, definite length, contents.
Bytes tlv(uint8_t tag, const Bytes& content) {
  const size_t n = content.size();
  Bytes out = n < 128 ? Bytes{tag} : n < 256 ? Bytes{tag, 0x81} : Bytes{tag, 0x82, uint8_t(n >> 8)};
  out.push_back(static_cast<uint8_t>(n));
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

int decode(CAsn1object& object, const Bytes& der, unsigned int* pos = nullptr) {
  return testing_support::setDerHex(object, toHex(der), pos);
}

const Bytes kSignedDataOid = fromHex("06 09 2A 86 48 86 F7 0D 01 07 02");
const Bytes kDataOid = fromHex("06 09 2A 86 48 86 F7 0D 01 07 01");
const Bytes kSha1 = fromHex("30 09 06 05 2B 0E 03 02 1A 05 00");
const Bytes kSha256 = fromHex("30 0D 06 09 60 86 48 01 65 03 04 02 01 05 00");

// The parts of a real token: its encapsulated TSTInfo, its signer and the
// TSA certificate.
struct TokenParts {
  Bytes encap;
  Bytes signer;
  Bytes cert;
};

const TokenParts& realParts() {
  static const TokenParts parts = [] {
    testing_support::TokenMaker maker;
    testing_support::TokenShape shape;
    shape.key = testing_support::SignerKey::kEc256;
    Bytes der = maker.response(shape);
    CAsn1ietfTSResp resp;
    decode(resp, der);
    CAsn1signedData* sd = resp.getToken().signedData();
    unsigned char* cert = nullptr;
    const int n = i2d_X509(maker.signer(shape), &cert);
    OpenSslBytesPtr owner(cert);
    return TokenParts{encodeDER(sd->encapContent), encodeDER(sd->signerInfo),
                      Bytes(cert, cert + (n > 0 ? n : 0))};
  }();
  return parts;
}

// A ContentInfo of SignedData with the given digest algorithms, certificate
// elements, optional CRLs and signers.
Bytes signedToken(const Bytes& digests, const std::vector<Bytes>& certs, const Bytes& crls,
                  const std::vector<Bytes>& signers) {
  Bytes certificates;
  for (const Bytes& c : certs) certificates = cat({certificates, c});
  Bytes signerSet;
  for (const Bytes& s : signers) signerSet = cat({signerSet, s});
  Bytes body = cat({fromHex("02 01 03"), tlv(0x31, digests), realParts().encap,
                    certs.empty() ? Bytes() : tlv(0xA0, certificates), crls, tlv(0x31, signerSet)});
  return tlv(0x30, cat({kSignedDataOid, tlv(0xA0, tlv(0x30, body))}));
}

TEST(CAsn1signedData, KeepsTheLastDigestAlgorithmAndTheFirstSigner) {
  const TokenParts& parts = realParts();
  const Bytes der =
      signedToken(cat({kSha1, kSha256}), {parts.cert}, Bytes(), {parts.signer, parts.signer});
  CAsn1contentInfo token;
  ASSERT_EQ(decode(token, der), 0);
  ASSERT_NE(token.signedData(), nullptr);
  EXPECT_EQ(token.signedData()->digestAlgorithm.algorithm.nid, NID_sha256);
  EXPECT_EQ(encodeDER(token.signedData()->signerInfo), parts.signer);
  EXPECT_EQ(token.signedData()->certCount(), 1u);
  // Copies are deep: the copy outlives the original's contents.
  CAsn1contentInfo copy(token);
  token = CAsn1contentInfo();
  EXPECT_EQ(copy.signedData()->getCert(0)->der(), parts.cert);
}

// Up to twenty certificates are read, other certificate choices and CRLs
// skipped; with its certificates the token re-encodes byte for byte.
TEST(CAsn1signedData, ReadsTwentyCertificatesAndSkipsOtherChoices) {
  const Bytes& cert = realParts().cert;
  const Bytes attributeCert = fromHex("A1 03 01 02 03");
  const struct {
    std::vector<Bytes> certs;
    Bytes crls;
    unsigned int read;
    const char* refusal;  // logged; null: decodes
  } cases[] = {
      {{}, {}, 0, nullptr},
      {{cert}, {}, 1, nullptr},
      {std::vector<Bytes>(20, cert), {}, 20, nullptr},
      {std::vector<Bytes>(21, cert), {}, 0, "Offset not reached. expected "},
      {{attributeCert, cert, attributeCert}, fromHex("A1 02 30 00"), 1, nullptr},
      {{tlv(0x30, fromHex("02 01 05"))}, {}, 0, "Parsing certificate with d2i_X509() failed."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.certs.size());
    LogCapture log;
    const Bytes der = signedToken(kSha256, c.certs, c.crls, {realParts().signer});
    CAsn1contentInfo token;
    if (c.refusal != nullptr) {
      EXPECT_EQ(decode(token, der), -1);
      EXPECT_TRUE(log.contains(c.refusal)) << log.text();
      continue;
    }
    ASSERT_EQ(decode(token, der), 0);
    ASSERT_EQ(token.signedData()->certCount(), c.read);
    EXPECT_TRUE(c.read == 0 || token.signedData()->getCert(0)->der() == cert);
    EXPECT_EQ(token.signedData()->getCert(c.read), nullptr);
    EXPECT_EQ(encodeDER(token) == der, c.crls.empty());
  }
}

// Cuts of a token: CAsn1ietfTSResp_test.
TEST(CAsn1contentInfo, ChoosesTheContentByType) {
  LogCapture log;
  CAsn1contentInfo empty;
  unsigned int pos = 0;
  ASSERT_EQ(decode(empty, tlv(0x30, kDataOid), &pos), 0);
  EXPECT_EQ(empty.contentNid(), NID_pkcs7_data);
  EXPECT_EQ(empty.content(), nullptr);
  EXPECT_EQ(pos, 13u);

  const Bytes withData = tlv(0x30, cat({kDataOid, tlv(0xA0, tlv(0x04, text("AB")))}));
  CAsn1contentInfo data;
  ASSERT_EQ(decode(data, withData), 0);
  ASSERT_NE(data.data(), nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.data()->octets.data()), 2), "AB");
  EXPECT_EQ(encodeDER(data), withData);

  CAsn1contentInfo enveloped;
  EXPECT_EQ(decode(enveloped,
                   tlv(0x30, cat({fromHex("06 09 2A 86 48 86 F7 0D 01 07 03"), fromHex("A0 00")}))),
            -1);
  EXPECT_TRUE(log.contains("Invalid contentType: 23"));
}

// A TSTInfo eContent with the given bytes after genTime.
Bytes tstInfo(const Bytes& rest) {
  Bytes imprint = tlv(0x30, cat({kSha256, tlv(0x04, Bytes(32, 0x11))}));
  Bytes body = cat({fromHex("02 01 01 06 03 2A 03 04"), imprint, fromHex("02 02 12 34"),
                    tlv(0x18, text("20240102030405.5Z")), rest});
  return tlv(0xA0, tlv(0x04, tlv(0x30, body)));
}

TEST(CAsn1TSTInfo, KeepsTheRestRawAndTheLastIntegerAsNonce) {
  struct Case {
    const char* rest;
    bool hasNonce;
    const char* nonce;  // hex
  } cases[] = {
      {"", false, "00"},
      {"30 06 02 01 01 80 01 05 01 01 FF 02 01 07", true, "07"},  // accuracy, ordering, nonce
      {"02 01 07 A0 05 A4 03 30 01 00 02 02 01 09", true, "0109"},
      {"A1 03 30 01 00", false, "00"},
      // a 64-bit nonce with its sign octet
      {"02 09 00 F1 02 03 04 05 06 07 08", true, "F102030405060708"},
  };
  for (const Case& c : cases) {
    const Bytes der = tstInfo(fromHex(c.rest));
    CAsn1TSTInfo tst;
    unsigned int pos = 0;
    ASSERT_EQ(decode(tst, der, &pos), 0) << c.rest;
    EXPECT_EQ(pos, der.size());
    EXPECT_EQ(tst.serialNumber.hex(), "1234");
    EXPECT_EQ(tst.genTime.fraction, 0.5);
    EXPECT_EQ(tst.hasNonce(), c.hasNonce) << c.rest;
    EXPECT_EQ(tst.nonce.hex(), c.nonce) << c.rest;
    EXPECT_EQ(toHex(tst.rest()), toHex(fromHex(c.rest)));
    EXPECT_EQ(encodeDER(tst), der) << c.rest;
    CAsn1string tbs;
    ASSERT_EQ(tst.toBeHashedBuf(&tbs), 0);
    // The SEQUENCE alone: the eContent without its [0] and OCTET STRING headers.
    const size_t headers = der.size() - tbs.length();
    EXPECT_EQ(Bytes(tbs.data(), tbs.data() + tbs.length()),
              Bytes(der.begin() + static_cast<long>(headers), der.end()));
  }
  // Nonces of up to 64 content octets are read, longer ones refused.
  CAsn1TSTInfo tst;
  EXPECT_EQ(decode(tst, tstInfo(tlv(0x02, Bytes(64, 0x11)))), 0);
  EXPECT_EQ(decode(tst, tstInfo(tlv(0x02, Bytes(65, 0x11)))), -1);
}

TEST(CAsn1attributes, KeepsUnknownValuesAndStopsAtTen) {
  const Bytes unknown =
      tlv(0x30, cat({fromHex("06 03 2A 03 04"), tlv(0x31, tlv(0x30, fromHex("30 03 02 01 07")))}));
  const Bytes contentType =
      tlv(0x30, cat({fromHex("06 09 2A 86 48 86 F7 0D 01 09 03"),
                     tlv(0x31, fromHex("06 0B 2A 86 48 86 F7 0D 01 09 10 01 04"))}));
  const Bytes signingTime = tlv(0x30, cat({fromHex("06 09 2A 86 48 86 F7 0D 01 09 05"),
                                           tlv(0x31, tlv(0x17, text("240102030405Z")))}));
  const Bytes der = tlv(0xA0, cat({contentType, signingTime, unknown}));
  CAsn1attributes attributes;
  ASSERT_EQ(decode(attributes, der), 0);
  ASSERT_EQ(attributes.count(), 3u);
  EXPECT_NE(dynamic_cast<CAsn1oid*>(attributes.at(0).value()), nullptr);
  EXPECT_NE(dynamic_cast<CAsn1time*>(attributes.at(1).value()), nullptr);
  ASSERT_NE(attributes.at(2).stringValue(), nullptr);
  EXPECT_EQ(attributes.at(2).stringValue()->tag(), kTagSequence);
  EXPECT_EQ(encodeDER(attributes), der);
  CAsn1string tbs;
  ASSERT_EQ(attributes.getToBeHashedSequence(&tbs), 0);
  EXPECT_EQ(tbs.data()[0], kTagSet);
  EXPECT_EQ(Bytes(tbs.data() + 1, tbs.data() + tbs.length()), Bytes(der.begin() + 1, der.end()));

  Bytes eleven;
  for (int i = 0; i < 11; ++i) eleven = cat({eleven, unknown});
  CAsn1attributes many;
  unsigned int pos = 0;
  ASSERT_EQ(decode(many, tlv(0xA0, eleven), &pos), 0);
  EXPECT_EQ(many.count(), 10u);
  EXPECT_EQ(pos, 3 + 10 * unknown.size());  // [0] header (A0 81 B0) + ten attributes
  EXPECT_EQ(many.add(CAsn1attribute::contentType(NID_pkcs7_data)), -1);
}

TEST(CAsn1attribute, SigningTimeIsWrittenWithoutZone) {
  CAsn1attribute a = CAsn1attribute::signingTime(1704164645);  // 2024-01-02 03:04:05 UTC
  EXPECT_EQ(encodeDER(a), fromHex("30 1B 06 09 2A 86 48 86 F7 0D 01 09 05 31 0E 17 0C"
                                  "32 34 30 31 30 32 30 33 30 34 30 35"));
}

TEST(CAsn1ietfStatusInfo, ReadsTextsAndFailureInfo) {
  struct Case {
    Bytes der;
    int rc;
    const char* statusText;
    unsigned int failBits;
    const char* message;
  } cases[] = {
      {fromHex("30 03 02 01 00"), 0, "", 0, nullptr},
      {tlv(0x30, cat({fromHex("02 01 02"),
                      tlv(0x30, cat({tlv(0x0C, text("first")), tlv(0x0C, text("second"))}))})),
       0, "first", 0, "[2] status:2 (second)"},
      {tlv(0x30, cat({fromHex("02 01 02"),
                      tlv(0x30, cat({tlv(0x0C, text("first")), tlv(0x13, text("x"))})),
                      fromHex("03 02 07 80")})),
       0, "first", 1, "PKIStatusInfo->PKIFreeText->data type 19 is not UTF8String"},
      {tlv(0x30, cat({fromHex("02 01 02"), tlv(0x30, tlv(0x13, text("x")))})), -1, "", 0,
       "PKIStatusInfo->PKIFreeText->data type 19 is not UTF8String"},
      {tlv(0x30, cat({fromHex("02 01 02"), tlv(0x30, fromHex("0C 05 41 42"))})), -1, "", 0,
       "UTF8String at 7 of size 5 ends at 14 > PKIFreeText end 11"},
      {tlv(0x30, cat({fromHex("02 01 02"), tlv(0x13, text("busy"))})), -1, "", 0,
       "statusString object too long"},
      {tlv(0x30, cat({fromHex("02 01 02"), tlv(0x13, text("busy")), fromHex("03 02 05 20")})), 0,
       "busy", 1, "PKIStatusInfo containing PKIFailureInfo"},
      {cat({fromHex("30 06 02 01 02 03 03 00"), fromHex("00 00")}), -1, "", 0,
       "statusString object too long"},
      {tlv(0x30, cat({fromHex("02 01 03"), fromHex("04 01 00")})), 0, "", 0, nullptr},
      {fromHex("30 07 02 05 01 02 03 04 05"), -1, "", 0, "failed to parse PKIStatus object"},
      {fromHex("30 09 02 01 00"), -1, "", 0, "failed to parse PKIStatusInfo size"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    log.target().setLevel(Log::kDebug, 1);
    CAsn1ietfStatusInfo info;
    EXPECT_EQ(decode(info, c.der), c.rc) << toHex(c.der);
    if (c.rc == 0) {
      EXPECT_EQ(info.statusText(), c.statusText) << toHex(c.der);
      EXPECT_EQ(info.failInfo.countSet(), c.failBits) << toHex(c.der);
    }
    if (c.message != nullptr) {
      EXPECT_TRUE(log.contains(c.message)) << c.message;
    }
  }
  // Written back, only the first text remains, as one bare UTF8String.
  CAsn1ietfStatusInfo info;
  ASSERT_EQ(decode(info, cases[2].der), 0);
  EXPECT_EQ(encodeDER(info),
            cat({fromHex("30 0E 02 01 02"), tlv(0x0C, text("first")), fromHex("03 02 07 80")}));
}

}  // namespace
