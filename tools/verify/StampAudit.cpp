#include "tools/verify/StampAudit.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Owners.h"
#include "base/SystemError.h"
#include "encoding/Base64Crc.h"
#include "ossl/OpenSslPtr.h"
#include "tsclient/TsSettings.h"

namespace {

StampAudit refuse(std::string reason, const TokenFacts& facts = TokenFacts()) {
  StampAudit audit;
  audit.reason = std::move(reason);
  audit.facts = facts;
  return audit;
}

// A timestamp file holds one BASE64 line of an answer no larger than the
// worker ever takes from a Timestamp Server.
constexpr size_t kMaxTimestampFile = (kMaxResponseLimit + 2) / 3 * 4;

// Opens path for reading when it is a regular file; *why says otherwise.
// O_NONBLOCK: a FIFO or a device is refused at once, never waited on.
UniqueFd openRegular(const std::string& path, struct stat* st, std::string* why) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid() || fstat(fd.get(), st) != 0) {
    *why = systemError(errno).c_str();
    return UniqueFd();
  }
  if (!S_ISREG(st->st_mode)) {
    *why = "no regular file";
    return UniqueFd();
  }
  return fd;
}

// Reads from fd until its end, handing each piece to take; false (errno
// set) on a read error.
template <typename Take>
bool readAll(int fd, Take take) {
  char buf[64 * 1024];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0;
    if (!take(buf, static_cast<size_t>(n))) return true;
  }
}

bool readTimestampFile(const std::string& path, std::string* text, std::string* why) {
  struct stat st;
  UniqueFd fd = openRegular(path, &st, why);
  if (!fd.valid()) return false;
  bool tooLarge = static_cast<uint64_t>(st.st_size) > kMaxTimestampFile;
  // The size may grow while the file is read; what is read is bounded too.
  bool ok = tooLarge || readAll(fd.get(), [&](const char* data, size_t n) {
              tooLarge = text->size() + n > kMaxTimestampFile;
              if (!tooLarge) text->append(data, n);
              return !tooLarge;
            });
  if (!ok) {
    *why = systemError(errno).c_str();
    return false;
  }
  if (tooLarge) *why = "larger than " + std::to_string(kMaxTimestampFile) + " bytes";
  return !tooLarge;
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
bool digestOfFile(const std::string& path, int nid, std::vector<unsigned char>* digest,
                  std::string* why) {
  const EVP_MD* md = EVP_get_digestbynid(nid);
  if (md == nullptr) {
    *why = "unknown digest algorithm";
    return false;
  }
  struct stat st;
  UniqueFd fd = openRegular(path, &st, why);
  if (!fd.valid()) return false;
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  bool ok = ctx && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1;
  if (ok && !readAll(fd.get(), [&](const char* data, size_t n) {
        ok = EVP_DigestUpdate(ctx.get(), data, n) == 1;
        return ok;
      })) {
    *why = systemError(errno).c_str();
    return false;
  }
  unsigned int size = 0;
  digest->resize(EVP_MAX_MD_SIZE);
  ok = ok && EVP_DigestFinal_ex(ctx.get(), digest->data(), &size) == 1;
  digest->resize(size);
  if (!ok) *why = "digest failed";
  return ok;
}

}  // namespace

StampAudit auditStamp(const StampedFile& stamp, const TokenTrust& trust) {
  if (!stamp.problem.empty()) return refuse(stamp.problem);
  std::string text, why;
  if (!readTimestampFile(stamp.timestamp, &text, &why)) {
    return refuse("cannot read the timestamp file: " + why);
  }
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
  if (!digestOfFile(stamp.source, expect.hashNid, &expect.digest, &why)) {
    return refuse("cannot hash " + stamp.source + ": " + why, read.facts);
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
