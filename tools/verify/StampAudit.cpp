#include "tools/verify/StampAudit.h"

#include <openssl/evp.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "base/Owners.h"
#include "ossl/OpenSslPtr.h"
#include "encoding/Base64Crc.h"

namespace {

StampAudit refuse(std::string reason, const TokenFacts& facts = TokenFacts()) {
  StampAudit audit;
  audit.reason = std::move(reason);
  audit.facts = facts;
  return audit;
}

bool readWhole(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// BASE64 in the strict form the worker writes: the standard alphabet,
// "=" padding at the end only, a multiple of four characters, no line end.
bool isBase64Line(const std::string& text) {
  if (text.empty() || text.size() % 4 != 0) return false;
  size_t end = text.find_last_not_of('=');
  if (end == std::string::npos || text.size() - end - 1 > 2) return false;
  for (size_t i = 0; i <= end; ++i) {
    char c = text[i];
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '+' || c == '/';
    if (!ok) return false;
  }
  return true;
}

// The digest of the file's bytes now, with the algorithm of the NID.
bool digestOfFile(const std::string& path, int nid, std::vector<unsigned char>* digest) {
  const EVP_MD* md = EVP_get_digestbynid(nid);
  FilePtr f(md ? fopen(path.c_str(), "rb") : nullptr);
  if (!f) return false;
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  bool ok = ctx && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1;
  unsigned char buf[64 * 1024];
  size_t n;
  while (ok && (n = fread(buf, 1, sizeof buf, f.get())) > 0) {
    ok = EVP_DigestUpdate(ctx.get(), buf, n) == 1;
  }
  ok = ok && !ferror(f.get());
  unsigned int size = 0;
  digest->resize(EVP_MAX_MD_SIZE);
  ok = ok && EVP_DigestFinal_ex(ctx.get(), digest->data(), &size) == 1;
  digest->resize(size);
  return ok;
}

}  // namespace

StampAudit auditStamp(const StampedFile& stamp, const TokenTrust& trust) {
  if (!stamp.problem.empty()) return refuse(stamp.problem);
  std::string text;
  if (!readWhole(stamp.timestamp, &text)) return refuse("cannot read the timestamp file");
  if (!isBase64Line(text)) return refuse("the timestamp file is no one-line BASE64 text");
  std::vector<unsigned char> der(text.size() / 4 * 3);
  int length = 0;
  if (decodeBase64(text.c_str(), der.data(), &length, static_cast<int>(der.size())) != 0 ||
      length <= 0) {
    return refuse("the timestamp file is no one-line BASE64 text");
  }
  // The token names its digest algorithm; the file is hashed with it and the
  // whole check runs again with that digest expected.
  TokenCheckResult read =
      checkTimestampResponse(der.data(), static_cast<size_t>(length), nullptr, &trust);
  if (!read.ok) return refuse(read.reason, read.facts);
  TokenExpectations expect;
  expect.hashNid = read.facts.hashNid;
  if (!digestOfFile(stamp.source, expect.hashNid, &expect.digest)) {
    return refuse("cannot hash " + stamp.source, read.facts);
  }
  TokenCheckResult checked =
      checkTimestampResponse(der.data(), static_cast<size_t>(length), &expect, &trust);
  if (!checked.ok) return refuse(checked.reason, checked.facts);
  if (!checked.facts.signatureChecked) {
    return refuse("no signer certificate at hand to check the signature (see --certs)",
                  checked.facts);
  }
  StampAudit audit;
  audit.ok = true;
  audit.facts = checked.facts;
  return audit;
}
