#include "der/CAsn1signerInfo.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

#include "base/Log.h"
#include "der/TokenDer.h"

namespace {
const unsigned char kNullParameters[] = {kTagNull, 0x00};
}

int CAsn1signerInfo::getDER(DerWriter& out) const {
  Log log("CAsn1signerInfo", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  const CAsn1object& sid =
      bySubjectKeyId ? static_cast<const CAsn1object&>(subjectKeyId) : issuerSerial;
  if (version.getDER(out) != 0 || sid.getDER(out) != 0 || digestAlgorithm.getDER(out) != 0) {
    return -1;
  }
  if (signedAttributes.count() > 0 && signedAttributes.getDER(out) != 0) return -1;
  if (signatureAlgorithm.getDER(out) != 0 || signature.getDER(out) != 0) return -1;
  out.close(sequence);
  return 0;
}

int CAsn1signerInfo::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1signerInfo", "setDER", __FILE__, __LINE__, 13);
  signedAttributes.clear();
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagSequence) || !readTokenLength(in, &length)) return -1;
  const unsigned int signerEnd = in.pos() + length;
  DerReader content(buffer, pos, signerEnd);
  if (version.setDER(buffer, pos, signerEnd) != 0) return -1;
  unsigned char tag = 0;
  bySubjectKeyId = content.peek(&tag) && tag == kTagKeyIdentifier;
  if (bySubjectKeyId) {
    if (subjectKeyId.setDER(buffer, pos, signerEnd) != 0) return -1;
  } else if (!content.peek(&tag) || tag != kTagSequence) {
    content.expectTag(kTagSequence);  // logs what came instead
    return -1;
  } else if (issuerSerial.setDER(buffer, pos, signerEnd) != 0) {
    return -1;
  }
  if (digestAlgorithm.setDER(buffer, pos, signerEnd) != 0) return -1;
  if (content.peek(&tag) && tag == kTagContext0 &&
      signedAttributes.setDER(buffer, pos, signerEnd) != 0) {
    return -1;
  }
  if (signatureAlgorithm.setDER(buffer, pos, signerEnd) != 0 ||
      signature.setDER(buffer, pos, signerEnd) != 0) {
    return -1;
  }
  log.msg(__LINE__, 9, "deserialized SignerInfo with %u signed attributes, %u signature bytes",
          signedAttributes.count(), signature.length());
  return 0;
}

int CAsn1signerInfo::setSignature(int pkeyType, const unsigned char* sig, unsigned int length,
                                  int digestNid) {
  Log log("CAsn1signerInfo", "setSignature", __FILE__, __LINE__, 13);
  digestAlgorithm = CAsn1algorithmIdentifier();
  digestAlgorithm.algorithm.nid = digestNid;
  digestAlgorithm.setParameters(kNullParameters, sizeof kNullParameters);
  signatureAlgorithm = CAsn1algorithmIdentifier();
  if (pkeyType == EVP_PKEY_RSA || pkeyType == EVP_PKEY_RSA2) {
    signatureAlgorithm.algorithm.nid = NID_rsaEncryption;
    signatureAlgorithm.setParameters(kNullParameters, sizeof kNullParameters);
  } else {
    int sigNid = NID_undef;
    if (OBJ_find_sigid_by_algs(&sigNid, digestNid, pkeyType) != 1) {
      log.msg(__LINE__, 2, "No signature algorithm for digest %d and key type %d", digestNid,
              pkeyType);
      return -1;
    }
    signatureAlgorithm.algorithm.nid = sigNid;
  }
  signature.setVal(kTagOctetString, sig, length);
  return 0;
}
