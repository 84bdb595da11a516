// Feeds arbitrary bytes to the decoders of Timestamp Server answers: the
// whole TimeStampResp and a bare token (ContentInfo). Whatever decodes is
// encoded again (getDER must write exactly what getSize announced) and its
// accessors are exercised, as the requester and a local verifier would.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "der/CAsn1contentInfo.h"
#include "der/CAsn1ietfTSResp.h"
#include "der/CAsn1string.h"
#include "der/CCertInfo.h"
#include "der/Der.h"
#include "fuzz/DiscardedLog.h"
#include "tsclient/TokenCheck.h"

namespace {

volatile size_t sink;

void exerciseResponse(CAsn1ietfTSResp& resp) {
  sink = encodeDER(resp).size() + resp.getStatusString().size() + resp.getCertCount();
  for (unsigned int i = 0; i < resp.getCertCount(); ++i) sink = resp.getCert(i)->getSize();
  CAsn1string buffer;
  if (resp.getTBSbuf(&buffer) == 0) sink = buffer.length();
  if (resp.getIETF_TBSbuf(&buffer) == 0) sink = buffer.length();
  sink = resp.getDigestAttrib().length() + resp.getSignature().length();
  if (resp.removeCerts() == 0) sink = encodeDER(resp).size();
  CAsn1ietfTSResp copy(resp);
  sink = encodeDER(copy).size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DiscardedLog quiet;  // decoding errors are logged at level 2
  // An exact-size copy: the sanitizer reports any read past the bytes received.
  std::vector<unsigned char> bytes(data, data + size);
  const unsigned int end = static_cast<unsigned int>(bytes.size());

  CAsn1ietfTSResp resp;
  unsigned int pos = 0;
  if (resp.setDER(bytes.data(), &pos, end) == 0) exerciseResponse(resp);

  // The worker's checks of an answer, down to OpenSSL's reading of the token.
  TokenExpectations expect;
  expect.hashNid = NID_sha256;
  expect.digest.assign(32, 0x5A);
  const TokenCheckResult check =
      checkTimestampResponse(bytes.data(), bytes.size(), &expect, nullptr);
  sink = check.reason.size() + check.facts.serialHex.size() + check.facts.tsaName.size();

  CAsn1contentInfo token;
  pos = 0;
  if (token.setDER(bytes.data(), &pos, end) == 0) {
    CAsn1contentInfo copy(token);
    sink = encodeDER(copy).size() + encodeDER(token).size();
  }
  return 0;
}
