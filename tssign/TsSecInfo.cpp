#include "tssign/TsSecInfo.h"

#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <cstring>

#include "base/Log.h"
#include "ossl/OpenSslErrors.h"

namespace {

const char kComponent[] = "TsSecInfo";
const unsigned char kMagic[4] = {'T', 'S', 'E', '1'};
constexpr unsigned int kSaltSize = 16;
constexpr unsigned int kIvSize = 12;
constexpr unsigned int kTagSize = 16;
constexpr unsigned int kHeaderSize = sizeof(kMagic) + kSaltSize + kIvSize;
constexpr unsigned int kKeySize = 32;
const char kHkdfInfo[] = "clockette TsSecInfo AES-256-GCM";

}  // namespace

TsSecInfo::TsSecInfo() = default;
TsSecInfo::~TsSecInfo() = default;

int TsSecInfo::init(const char* keyFile, const char* password, const char* certFile) {
  Log log(kComponent, "init", __FILE__, __LINE__, 13);
  key_.unloadKey();
  cert_.reset();
  publicKey_.reset();
  if (keyFile == nullptr || *keyFile == '\0' || password == nullptr) {
    log.msg(__LINE__, 2, "Parameter is null");
    return -1;
  }
  if (key_.loadKey(keyFile, password) != 0 || !(publicKey_ = key_.getPublicKey())) {
    log.msg(__LINE__, 2, "Can't read signature key from %s", keyFile);
    key_.unloadKey();
    return -2;
  }
  if (certFile != nullptr && *certFile != '\0') {
    auto cert = std::make_unique<CCertInfo>();
    if (cert->readPEM(certFile) != 0) {
      log.msg(__LINE__, 2, "Can't read certificate from %s", certFile);
      key_.unloadKey();
      return -3;
    }
    if (key_.comparePublicKey(cert->GetPublicKey()) != 0) {
      log.msg(__LINE__, 2, "Key from %s doesn't match certificate %s", keyFile, certFile);
      key_.unloadKey();
      return -4;
    }
    cert_ = std::move(cert);
  }
  log.msg(__LINE__, 8, "signing key %s loaded (%d bits)%s%s", keyFile, key_.getSizeBits(),
          cert_ ? ", certificate " : "", cert_ ? certFile : "");
  return 0;
}

EVP_PKEY* TsSecInfo::verifyingKey() const {
  return cert_ ? cert_->GetPublicKey() : publicKey_.get();
}

int TsSecInfo::signData(const unsigned char* data, unsigned int length, int digestNid,
                        std::vector<unsigned char>* signature) const {
  Log log(kComponent, "signData", __FILE__, __LINE__, 13);
  if (!initialized()) {
    log.msg(__LINE__, 2, "not initialized");
    return -1;
  }
  return key_.signData(data, length, digestNid, signature);
}

int TsSecInfo::signHash(const unsigned char* hash, unsigned int length, int digestNid,
                        std::vector<unsigned char>* signature) const {
  Log log(kComponent, "signHash", __FILE__, __LINE__, 13);
  if (!initialized() || signature == nullptr) {
    log.msg(__LINE__, 2, "not initialized");
    return -1;
  }
  const EVP_MD* md = tsDigestByNid(digestNid);
  if (md == nullptr || static_cast<int>(length) != EVP_MD_get_size(md)) {
    log.msg(__LINE__, 2, "hash of %u bytes doesn't fit digest NID %d", length, digestNid);
    return -2;
  }
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key_.pkey(), nullptr));
  size_t size = 0;
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), md) != 1 ||
      EVP_PKEY_sign(ctx.get(), nullptr, &size, hash, length) != 1) {
    log.msg(__LINE__, 2, "signing with digest NID %d failed", digestNid);
    logOpenSslErrorQueue(kComponent, "signHash");
    return -3;
  }
  signature->resize(size);
  if (EVP_PKEY_sign(ctx.get(), signature->data(), &size, hash, length) != 1) {
    log.msg(__LINE__, 2, "signing with digest NID %d failed", digestNid);
    logOpenSslErrorQueue(kComponent, "signHash");
    signature->clear();
    return -3;
  }
  signature->resize(size);
  return 0;
}

int TsSecInfo::verifyData(const unsigned char* data, unsigned int length, int digestNid,
                          const unsigned char* signature, unsigned int signatureLength) const {
  Log log(kComponent, "verifyData", __FILE__, __LINE__, 13);
  const EVP_MD* md = tsDigestByNid(digestNid);
  if (!initialized() || md == nullptr) {
    log.msg(__LINE__, 2, "not initialized or no digest for NID %d", digestNid);
    return -2;
  }
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int hashLength = 0;
  if (EVP_Digest(data, length, hash, &hashLength, md, nullptr) != 1) {
    logOpenSslErrorQueue(kComponent, "verifyData");
    return -2;
  }
  return verifyHash(hash, hashLength, digestNid, signature, signatureLength);
}

int TsSecInfo::verifyHash(const unsigned char* hash, unsigned int length, int digestNid,
                          const unsigned char* signature, unsigned int signatureLength) const {
  Log log(kComponent, "verifyHash", __FILE__, __LINE__, 13);
  const EVP_MD* md = tsDigestByNid(digestNid);
  if (!initialized() || md == nullptr) {
    log.msg(__LINE__, 2, "not initialized or no digest for NID %d", digestNid);
    return -2;
  }
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(verifyingKey(), nullptr));
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), md) != 1) {
    logOpenSslErrorQueue(kComponent, "verifyHash");
    return -2;
  }
  int rc = EVP_PKEY_verify(ctx.get(), signature, signatureLength, hash, length);
  clearOpenSslErrors();  // a bad signature is an answer, not an error
  if (rc != 1) {
    log.msg(__LINE__, 7, "signature does not verify");
    return -1;
  }
  return 0;
}

bool TsSecInfo::deriveKey(const unsigned char* salt, unsigned char* aesKey) const {
  std::vector<unsigned char> secret;
  if (key_.exportKey(&secret) != 0) return false;
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
  size_t size = kKeySize;
  bool ok =
      ctx && EVP_PKEY_derive_init(ctx.get()) == 1 &&
      EVP_PKEY_CTX_set_hkdf_md(ctx.get(), EVP_sha256()) == 1 &&
      EVP_PKEY_CTX_set1_hkdf_salt(ctx.get(), salt, kSaltSize) == 1 &&
      EVP_PKEY_CTX_set1_hkdf_key(ctx.get(), secret.data(), static_cast<int>(secret.size())) == 1 &&
      EVP_PKEY_CTX_add1_hkdf_info(ctx.get(), reinterpret_cast<const unsigned char*>(kHkdfInfo),
                                  sizeof(kHkdfInfo) - 1) == 1 &&
      EVP_PKEY_derive(ctx.get(), aesKey, &size) == 1 && size == kKeySize;
  OPENSSL_cleanse(secret.data(), secret.size());
  return ok;
}

int TsSecInfo::encryptData(const unsigned char* plain, unsigned int length,
                           std::vector<unsigned char>* message) const {
  Log log(kComponent, "encryptData", __FILE__, __LINE__, 13);
  if (!initialized() || message == nullptr) {
    log.msg(__LINE__, 2, "not initialized");
    return -1;
  }
  std::vector<unsigned char> out(kHeaderSize + length + kTagSize);
  memcpy(out.data(), kMagic, sizeof(kMagic));
  unsigned char* salt = out.data() + sizeof(kMagic);
  unsigned char* iv = salt + kSaltSize;
  unsigned char aesKey[kKeySize];
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int n = 0;
  int finalLen = 0;
  bool ok = RAND_bytes(salt, kSaltSize + kIvSize) == 1 && deriveKey(salt, aesKey) && ctx &&
            EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, aesKey, iv) == 1 &&
            EVP_EncryptUpdate(ctx.get(), nullptr, &n, out.data(), kHeaderSize) == 1 &&
            EVP_EncryptUpdate(ctx.get(), out.data() + kHeaderSize, &n, plain,
                              static_cast<int>(length)) == 1 &&
            EVP_EncryptFinal_ex(ctx.get(), out.data() + kHeaderSize + n, &finalLen) == 1 &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagSize,
                                out.data() + kHeaderSize + length) == 1;
  OPENSSL_cleanse(aesKey, sizeof(aesKey));
  if (!ok) {
    log.msg(__LINE__, 2, "encryption failed");
    logOpenSslErrorQueue(kComponent, "encryptData");
    return -3;
  }
  message->swap(out);
  return 0;
}

int TsSecInfo::decryptData(const unsigned char* message, unsigned int length,
                           std::vector<unsigned char>* plain) const {
  Log log(kComponent, "decryptData", __FILE__, __LINE__, 13);
  if (!initialized() || plain == nullptr) {
    log.msg(__LINE__, 2, "not initialized");
    return -1;
  }
  if (message == nullptr || length < kHeaderSize + kTagSize ||
      memcmp(message, kMagic, sizeof(kMagic)) != 0) {
    log.msg(__LINE__, 2, "not an encrypted message (%u bytes)", length);
    return -2;
  }
  const unsigned char* salt = message + sizeof(kMagic);
  const unsigned char* iv = salt + kSaltSize;
  unsigned int textLength = length - kHeaderSize - kTagSize;
  std::vector<unsigned char> out(textLength + 1);  // never empty: data() stays valid
  unsigned char tag[kTagSize];
  memcpy(tag, message + length - kTagSize, kTagSize);
  unsigned char aesKey[kKeySize];
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int n = 0;
  int finalLen = 0;
  bool ok = deriveKey(salt, aesKey) && ctx &&
            EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, aesKey, iv) == 1 &&
            EVP_DecryptUpdate(ctx.get(), nullptr, &n, message, kHeaderSize) == 1 &&
            EVP_DecryptUpdate(ctx.get(), out.data(), &n, message + kHeaderSize,
                              static_cast<int>(textLength)) == 1 &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag) == 1 &&
            EVP_DecryptFinal_ex(ctx.get(), out.data() + n, &finalLen) == 1;
  OPENSSL_cleanse(aesKey, sizeof(aesKey));
  clearOpenSslErrors();
  if (!ok) {
    OPENSSL_cleanse(out.data(), out.size());
    log.msg(__LINE__, 2, "decryption failed: message changed or encrypted with another key");
    return -3;
  }
  out.resize(textLength);
  plain->swap(out);
  return 0;
}
