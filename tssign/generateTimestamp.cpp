#include "tssign/generateTimestamp.h"

#include <openssl/ess.h>
#include <openssl/objects.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "base/Environment.h"
#include "base/Log.h"
#include "der/CAsn1attribute.h"
#include "der/CAsn1attributes.h"
#include "der/CAsn1contentInfo.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1signedData.h"
#include "der/CAsn1signerInfo.h"
#include "der/CAsn1string.h"
#include "der/CCertInfo.h"
#include "der/Der.h"
#include "ossl/KeyType.h"
#include "ossl/OpenSslErrors.h"
#include "ossl/OpenSslPtr.h"
#include "tssign/TsAsymKey.h"

namespace {

// The longest to-be-signed attributes and response that are made.
constexpr unsigned int kMaxEncoding = 4096;

// TSTInfo serial numbers must differ between timestamps of one authority;
// 31 random bits keep them positive for the INTEGER encoder.
int newSerialNumber() {
  unsigned int r = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&r), sizeof(r)) != 1) {
    r = static_cast<unsigned int>(time(nullptr));
  }
  r &= 0x7FFFFFFFu;
  return r == 0 ? 1 : static_cast<int>(r);
}

// The timestamp policy, registered under the same names as initTimeStamper
// does, so that it works whether or not the requester was initialised.
int policyNid() {
  const char kPolicyOid[] = "1.3.6.1.4.1.7359.1.2";
  int nid = OBJ_txt2nid(kPolicyOid);
  return nid != NID_undef ? nid : OBJ_create(kPolicyOid, "tsPol", "Timestamper Policy");
}

// OpenSSL 3.0 knows the object identifiers of DSA with SHA-384, SHA-512 and
// SHA-3 but has no signature-algorithm entry joining them to their digest and
// key, so a DSA signer with such a digest would find no signature algorithm.
// Adds the missing entries once per process: the guard is process-wide
// because the table it fills is OpenSSL's own.
void registerDsaSignatureIds() {
  static const bool registered = [] {
    const int ids[][2] = {
        {NID_dsa_with_SHA384, NID_sha384},     {NID_dsa_with_SHA512, NID_sha512},
        {NID_dsa_with_SHA3_224, NID_sha3_224}, {NID_dsa_with_SHA3_256, NID_sha3_256},
        {NID_dsa_with_SHA3_384, NID_sha3_384}, {NID_dsa_with_SHA3_512, NID_sha3_512}};
    for (const auto& id : ids) {
      int known = NID_undef;
      if (OBJ_find_sigid_by_algs(&known, id[1], NID_dsa) != 1) OBJ_add_sigid(id[0], id[1], NID_dsa);
    }
    return true;
  }();
  (void)registered;
}

// Appends the signingCertificateV2 attribute for cert: SigningCertificateV2
// with one ESSCertIDv2 (SHA-256, the default algorithm, so not written) that
// names the certificate by issuer and serial number as well.
bool addSigningCertificate(const CCertInfo& cert, CAsn1attributes* attributes) {
  Log log("zpTrequest", "addSigningCertificate", __FILE__, __LINE__, 13);
  std::unique_ptr<ESS_SIGNING_CERT_V2, decltype(&ESS_SIGNING_CERT_V2_free)> essCert(
      OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), cert.x509(), nullptr, 1),
      ESS_SIGNING_CERT_V2_free);
  unsigned char* der = nullptr;
  int n = essCert ? i2d_ESS_SIGNING_CERT_V2(essCert.get(), &der) : -1;
  if (n <= 0) {
    logOpenSslErrorQueue("zpTrequest", "addSigningCertificate");
    return false;
  }
  OpenSslBytesPtr owner(der);
  // The attribute's value object holds the SEQUENCE's contents under its tag.
  const unsigned char* p = der;
  long length = 0;
  int tag = 0, cls = 0;
  if ((ASN1_get_object(&p, &length, &tag, &cls, n) & 0x80) != 0 || tag != V_ASN1_SEQUENCE) {
    return false;
  }
  CAsn1string value(kTagSequence, p, static_cast<unsigned int>(length));
  if (attributes->add(CAsn1attribute::stringValue(NID_id_smime_aa_signingCertificateV2, value)) !=
      0) {
    log.msg(__LINE__, 2, "no room for the signing certificate attribute");
    return false;
  }
  return true;
}

// Replaces the signing time attribute by one whose UTCTime carries the zone
// designator 'Z'.
void zoneSigningTime(time_t when, CAsn1attributes* attributes) {
  struct tm t = {};
  gmtime_r(&when, &t);
  char text[64];
  snprintf(text, sizeof(text), "%02d%02d%02d%02d%02d%02dZ", (t.tm_year + 1900) % 100, t.tm_mon + 1,
           t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  CAsn1attributes rebuilt;
  for (unsigned int i = 0; i < attributes->count(); ++i) {
    const CAsn1attribute& a = attributes->at(i);
    rebuilt.add(a.type.nid != NID_pkcs9_signingTime
                    ? a
                    : CAsn1attribute::stringValue(
                          NID_pkcs9_signingTime,
                          CAsn1string(kTagUtcTime, reinterpret_cast<unsigned char*>(text), 13)));
  }
  *attributes = rebuilt;
}

// 0 when key belongs to cert; -3 when cert holds no public key of the key's
// type, -4 when its key is another. Keys other than RSA and DSA are signed
// with as they are.
int checkKeyAgainstCert(Log& log, const TsAsymKey& key, const CCertInfo& cert) {
  const bool rsa = key.getKeyType() == kKeyTypeRsa;
  if (!rsa && key.getKeyType() != kKeyTypeDsa) return 0;
  const char* type = rsa ? "RSA" : "DSA";
  EvpPkeyPtr pub = rsa ? cert.GetRSAPublicKey() : cert.GetDSApublicKey();
  if (!pub) {
    log.msg(__LINE__, 2, "Can't retrive public %s key from certificate", type);
    return -3;
  }
  if (key.comparePublicKey(pub.get()) != 0) {
    log.msg(__LINE__, 2, "%s key doesn't match certificate", type);
    return -4;
  }
  return 0;
}

// Fills in the TSTInfo and the signer of resp, adds the signed attributes and
// assembles the token around them, not yet signed. 0, or generateTimestamp's
// -5, -6 or -7.
int prepareResponse(Log& log, const CAsn1messageImprint& imprint, const CCertInfo& cert,
                    const TsAsymKey& key, time_t now, bool ignoreValidityDates,
                    CAsn1ietfTSResp* resp) {
  resp->setGenTime(now);  // also the signing time
  resp->setMessageImprint(imprint);
  resp->setPolicy(policyNid());
  resp->setSerialNumber(newSerialNumber());
  if (resp->addRefFromCert(cert, ignoreValidityDates) != 0) {
    log.msg(__LINE__, 2, "Error adding certificate reference");
    return -5;
  }
  const int digestNid = imprint.hashAlgorithm.algorithm.nid;
  resp->setDigestNid(digestNid);
  // Checks that every member is configured and adds contentType, signingTime
  // and messageDigest to the signed attributes.
  CAsn1string toBeSigned;
  if (resp->getTBSbuf(&toBeSigned) != 0 || toBeSigned.length() > kMaxEncoding) {
    log.msg(__LINE__, 2, "Can't retrieve to-be-signed data");
    return -6;
  }
  // Assembles the token around the signer information; the signature is made
  // once the attributes are complete.
  if (resp->setSignature(key.getPKeyType(), nullptr, 0, digestNid) != 0) {
    log.msg(__LINE__, 2, "Error signing timestamp");
    return -7;
  }
  return 0;
}

// Completes the signed attributes of token as options say, signs them with
// key and adds cert when asked to. 0, or generateTimestamp's -6, -7 or -8.
int signToken(Log& log, const TsAsymKey& key, const CCertInfo& cert, time_t now, int digestNid,
              const LocalTimestampOptions& options, CAsn1contentInfo* token) {
  CAsn1signedData* signedData = token->signedData();
  if (signedData == nullptr) {
    log.msg(__LINE__, 2, "Error signing timestamp");
    return -7;
  }
  CAsn1signerInfo& signer = signedData->signerInfo;
  if (options.signingTimeWithZone) zoneSigningTime(now, &signer.signedAttributes);
  CAsn1string toBeSigned(kTagOctetString);
  if ((options.signingCertificate && !addSigningCertificate(cert, &signer.signedAttributes)) ||
      signer.signedAttributes.getToBeHashedSequence(&toBeSigned) != 0) {
    log.msg(__LINE__, 2, "Can't retrieve to-be-signed data");
    return -6;
  }
  std::vector<unsigned char> signature;
  if (key.signData(toBeSigned.data(), toBeSigned.length(), digestNid, &signature) != 0 ||
      signer.setSignature(key.getPKeyType(), signature.data(),
                          static_cast<unsigned int>(signature.size()), digestNid) != 0) {
    log.msg(__LINE__, 2, "Error signing timestamp");
    return -7;
  }
  if (options.includeCertificate && signedData->addCert(cert) != 0) {
    log.msg(__LINE__, 2, "Error serializing timestamp to DER");
    return -8;
  }
  return 0;
}

// TimeStampResp ::= SEQUENCE { status PKIStatusInfo, timeStampToken }
// 0, or -8 when it cannot be encoded or is longer than kMaxEncoding.
int encodeResponse(Log& log, const CAsn1ietfStatusInfo& status, const CAsn1contentInfo& token,
                   CAsn1string* response) {
  DerWriter out;
  const size_t sequence = out.open(kTagSequence);
  if (status.getDER(out) != 0 || token.getDER(out) != 0) {
    log.msg(__LINE__, 2, "Error serializing timestamp to DER");
    return -8;
  }
  out.close(sequence);
  if (out.size() > kMaxEncoding) {
    log.msg(__LINE__, 2, "Error serializing timestamp to DER");
    return -8;
  }
  response->setVal(kTagOctetString, out.data().data(), out.size());
  return 0;
}

}  // namespace

int generateTimestamp(const CAsn1messageImprint& imprint, const char* keyFile, const char* certFile,
                      CAsn1string* response, const LocalTimestampOptions& options) {
  Log log("zpTrequest", "generateTimestamp", __FILE__, __LINE__, 13);
  CCertInfo cert;
  if (certFile == nullptr || cert.readPEM(certFile) != 0) {
    log.msg(__LINE__, 2, "Can't read certificate from %s", certFile != nullptr ? certFile : "");
    return -1;
  }
  TsAsymKey key;
  if (key.loadKey(keyFile, "") != 0) {
    log.msg(__LINE__, 2, "Can't read signature key from %s", keyFile != nullptr ? keyFile : "");
    return -2;
  }
  int rc = checkKeyAgainstCert(log, key, cert);
  if (rc != 0) return rc;

  registerDsaSignatureIds();
  CAsn1ietfTSResp resp;
  const time_t now = time(nullptr);
  rc = prepareResponse(log, imprint, cert, key, now, options.ignoreValidityDates, &resp);
  if (rc != 0) return rc;
  CAsn1contentInfo token = resp.getToken();
  rc = signToken(log, key, cert, now, imprint.hashAlgorithm.algorithm.nid, options, &token);
  if (rc != 0) return rc;
  rc = encodeResponse(log, resp.statusInfo, token, response);
  if (rc != 0) return rc;
  log.msg(__LINE__, 8, "local timestamp of %u bytes signed by %s", response->length(),
          cert.GetSubjectName().c_str());
  return 0;
}

bool ignoreValidityDatesWanted(const Environment& env) {
  const char* value = env.get("IgnoreCertificateValidyDates");
  return value != nullptr &&
         (strcmp(value, "on") == 0 || strcmp(value, "yes") == 0 || strcmp(value, "1") == 0);
}
