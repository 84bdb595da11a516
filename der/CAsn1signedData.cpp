#include "der/CAsn1signedData.h"

#include "base/Log.h"
#include "der/TokenDer.h"

CAsn1signedData::CAsn1signedData() = default;
CAsn1signedData::~CAsn1signedData() = default;

CAsn1signedData::CAsn1signedData(const CAsn1signedData& other)
    : CAsn1object(other),
      version(other.version),
      digestAlgorithm(other.digestAlgorithm),
      encapContent(other.encapContent),
      signerInfo(other.signerInfo) {
  for (const auto& cert : other.certs_) addCert(*cert);
}

CAsn1signedData& CAsn1signedData::operator=(const CAsn1signedData& other) {
  if (this != &other) {
    version = other.version;
    digestAlgorithm = other.digestAlgorithm;
    encapContent = other.encapContent;
    signerInfo = other.signerInfo;
    certs_.clear();
    for (const auto& cert : other.certs_) addCert(*cert);
  }
  return *this;
}

CCertInfo* CAsn1signedData::getCert(unsigned int i) const {
  return i < certs_.size() ? certs_[i].get() : nullptr;
}

int CAsn1signedData::addCert(const CCertInfo& cert) {
  Log log("CAsn1signedData", "addCert", __FILE__, __LINE__, 13);
  if (certs_.size() >= kMaxCertificates || !cert.ok()) return -1;
  auto copy =
      std::make_unique<CCertInfo>(cert.der().data(), static_cast<unsigned int>(cert.der().size()));
  if (!copy->ok()) return -1;
  certs_.push_back(std::move(copy));
  return 0;
}

int CAsn1signedData::getDER(DerWriter& out) const {
  Log log("CAsn1signedData", "getDER", __FILE__, __LINE__, 13);
  const size_t explicit0 = out.open(kTagContext0);
  const size_t sequence = out.open(kTagSequence);
  if (version.getDER(out) != 0) return -1;
  const size_t digests = out.open(kTagSet);
  if (digestAlgorithm.algorithm.isSet() && digestAlgorithm.getDER(out) != 0) return -1;
  out.close(digests);
  if (encapContent.getDER(out) != 0) return -1;
  if (!certs_.empty()) {
    const size_t certificates = out.open(kTagContext0);
    for (const auto& cert : certs_) {
      if (cert->getDER(out) != 0) return -1;
    }
    out.close(certificates);
  }
  const size_t signers = out.open(kTagSet);
  if (signerInfo.getDER(out) != 0) return -1;
  out.close(signers);
  out.close(sequence);
  out.close(explicit0);
  return 0;
}

int CAsn1signedData::readCertificates(const unsigned char* buffer, unsigned int* pos,
                                      unsigned int end) {
  Log log("CAsn1signedData", "readCertificates", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  in.skip(1);
  if (!readTokenLength(in, &length)) return -1;
  const unsigned int certificatesEnd = in.pos() + length;
  for (unsigned int i = 0; i < kMaxCertificates && *pos < certificatesEnd; ++i) {
    const unsigned int elementStart = *pos;
    unsigned char tag = 0;
    in.peek(&tag);
    if (tag >= kTagContext0 && tag <= kTagContext3) {
      // Attribute certificates and other formats: not ours to check.
      in.skip(1);
      if (!readTokenLength(in, &length) || !in.skip(length)) return -1;
      continue;
    }
    if (!in.expectTag(kTagSequence) || !readTokenLength(in, &length) || !in.skip(length)) {
      return -1;
    }
    auto cert = std::make_unique<CCertInfo>(buffer + elementStart, *pos - elementStart);
    if (!cert->ok()) return -1;
    certs_.push_back(std::move(cert));
  }
  // More than 20 certificates end here too.
  if (*pos != certificatesEnd) {
    log.msg(__LINE__, 2, "Offset not reached. expected %d but got %d",
            static_cast<int>(certificatesEnd), static_cast<int>(*pos));
    return -1;
  }
  return 0;
}

int CAsn1signedData::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1signedData", "setDER", __FILE__, __LINE__, 13);
  certs_.clear();
  digestAlgorithm = CAsn1algorithmIdentifier();
  DerReader in(buffer, pos, end);
  unsigned int length = 0;
  if (!in.expectTag(kTagContext0) || !readTokenLength(in, &length)) return -1;
  const unsigned int explicitEnd = in.pos() + length;
  DerReader content(buffer, pos, explicitEnd);
  if (!content.expectTag(kTagSequence) || !readTokenLength(content, &length)) return -1;
  const unsigned int sequenceEnd = content.pos() + length;
  DerReader members(buffer, pos, sequenceEnd);
  if (version.setDER(buffer, pos, sequenceEnd) != 0) return -1;

  if (!members.expectTag(kTagSet) || !readTokenLength(members, &length)) return -1;
  const unsigned int digestsEnd = *pos + length;
  // Each algorithm overwrites the one before: only the last one is kept.
  while (*pos < digestsEnd) {
    if (digestAlgorithm.setDER(buffer, pos, digestsEnd) != 0) return -1;
  }
  if (encapContent.setDER(buffer, pos, sequenceEnd) != 0) return -1;

  unsigned char tag = 0;
  if (members.peek(&tag) && tag == kTagContext0 &&
      readCertificates(buffer, pos, sequenceEnd) != 0) {
    return -1;
  }
  if (members.peek(&tag) && tag == kTagContext1) {
    members.skip(1);
    if (!readTokenLength(members, &length) || !members.skip(length)) return -1;
  }
  if (!members.expectTag(kTagSet) || !readTokenLength(members, &length)) return -1;
  // Only the first signer is read.
  if (signerInfo.setDER(buffer, pos, *pos + length) != 0) return -1;
  log.msg(__LINE__, 9, "deserialized SignedData with %u certificates", certCount());
  return 0;
}
