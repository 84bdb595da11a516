#include "tsclient/TsHash.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Environment.h"
#include "base/Log.h"
#include "base/Owners.h"
#include "base/SandboxHint.h"
#include "base/SystemError.h"
#include "der/CAsn1messageImprint.h"
#include "der/Der.h"
#include "tsclient/FileDigest.h"
#include "ossl/OpenSslPtr.h"
#include "tsclient/tsrequest.h"

namespace {

const char kComponent[] = "zpTrequest";

}  // namespace

int digestNidByName(const char* name) {
  static const struct {
    const char* name;
    int nid;
  } kDigests[] = {{"SHA256", NID_sha256},    {"RIPEMD160", NID_ripemd160},
                  {"SHA1", NID_sha1},        {"SHA512", NID_sha512},
                  {"SHA384", NID_sha384},    {"SHA3-256", NID_sha3_256},
                  {"SHA3-512", NID_sha3_512}};
  if (name == nullptr) return NID_sha256;
  for (const auto& d : kDigests) {
    if (strcmp(name, d.name) == 0) return d.nid;
  }
  return NID_undef;
}

int getDigest(const Environment& env) {
  Log log(kComponent, "getDigest", __FILE__, __LINE__, 13);
  const char* name = env.get("TS_HASHALG");
  int nid = digestNidByName(name);
  if (nid == NID_undef) {
    log.msg(__LINE__, 2, "Message Digest '%s' unknown .. defaulting to SHA256", name);
    nid = NID_sha256;
  }
  return nid;
}

int computeHash(const char* path, int nid, CAsn1messageImprint* imprint) {
  Log log(kComponent, "computeHash", __FILE__, __LINE__, 13);
  // Neither a FIFO without a writer nor a terminal may block the open.
  UniqueFd file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.valid()) {
    int err = errno;
    log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", path, err,
            systemError(err).c_str());
    return -1;
  }
  return computeHashOfOpenFile(file.get(), path, nid, imprint);
}

int computeHashOfOpenFile(int fd, const char* path, int nid, CAsn1messageImprint* imprint) {
  Log log(kComponent, "computeHash", __FILE__, __LINE__, 13);
  // Only a regular file is hashed: a device (/dev/zero) would be read for ever.
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int err = errno;
    log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", path, err,
            systemError(err).c_str());
    if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    log.msg(__LINE__, 2, "File %s is no regular file", path);
    return -1;
  }
  const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(nid));
  if (md == nullptr) {
    log.msg(__LINE__, 2, "Message digest algorithm ID %d doesn't produce a usable hash object",
            nid);
    log.msg(__LINE__, 2, "Digest name was %s", OBJ_nid2sn(nid) ? OBJ_nid2sn(nid) : "(none)");
    return -2;
  }
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx) {
    log.msg(__LINE__, 2, "Allocation of digest context failed");
    return -2;
  }
  if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
    log.msg(__LINE__, 2, "Message digest algorithm ID %d doesn't produce a usable hash object",
            nid);
    logOpenSslErrors();
    return -2;
  }
  int err = 0;
  switch (digestFile(fd, static_cast<uint64_t>(st.st_size), ctx.get(), &err)) {
    case FileDigestResult::kDone:
      break;
    case FileDigestResult::kReadFailed:
      log.msg(__LINE__, 2, "File %s cannot be read: errno=%d (%s)", path, err,
              systemError(err).c_str());
      if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
      return -1;
    case FileDigestResult::kStopped:
      log.msg(__LINE__, 2, "hashing of %s stopped", path);
      return -1;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLen = 0;
  EVP_DigestFinal_ex(ctx.get(), digest, &digestLen);
  imprint->hashAlgorithm.algorithm.nid = nid;
  imprint->hashedMessage.setVal(kTagOctetString, digest, digestLen);
  if (Log::getLevel(9)) {
    std::string hex;
    char byte[4];
    for (unsigned int i = 0; i < digestLen; ++i) {
      snprintf(byte, sizeof byte, "%02X ", digest[i]);
      hex += byte;
    }
    log.msg(__LINE__, 9, "%s", hex.c_str());
  }
  return 0;
}
