#include "tssign/TsAsymKey.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/Log.h"
#include "base/Owners.h"
#include "ossl/KeyType.h"
#include "ossl/OpenSslErrors.h"

namespace {

const char kComponent[] = "TsAsymKey";

// The proprietary key files were written with this salt; changing it makes
// every existing file unreadable.
const unsigned char kProprietarySalt[8] = {'k', 'b', 'V', 'q', 'u', 'a', 'r', 'd'};

// Hands the caller's password to OpenSSL. Installed on every PEM call so that
// OpenSSL's default callback, which prompts on the terminal, never runs.
int passwordCallback(char* buf, int size, int /*rwflag*/, void* userdata) {
  const char* password = static_cast<const char*>(userdata);
  if (password == nullptr) return -1;
  int n = static_cast<int>(strlen(password));
  if (n > size) n = size;
  memcpy(buf, password, static_cast<size_t>(n));
  return n;
}

// Reads a whole file into bytes. 0, -2 (cannot open), -3 (read error).
int readWholeFile(const char* file, std::vector<unsigned char>* bytes) {
  FilePtr f(fopen(file, "rb"));
  if (!f) return -2;
  unsigned char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f.get())) > 0) bytes->insert(bytes->end(), buf, buf + n);
  return ferror(f.get()) ? -3 : 0;
}

}  // namespace

const EVP_MD* tsDigestByNid(int nid) {
  const char* name = OBJ_nid2sn(nid);
  return name != nullptr ? EVP_get_digestbyname(name) : nullptr;
}

TsAsymKey::TsAsymKey() = default;
TsAsymKey::~TsAsymKey() = default;

int TsAsymKey::loadKey(const char* file, const char* password) {
  Log log(kComponent, "loadKey", __FILE__, __LINE__, 13);
  if (file == nullptr || *file == '\0' || password == nullptr) {
    log.msg(__LINE__, 2, "Parameter is null");
    return -1;
  }

  BioPtr in(BIO_new_file(file, "r"));
  if (in) {
    EvpPkeyPtr key(
        PEM_read_bio_PrivateKey(in.get(), nullptr, passwordCallback, const_cast<char*>(password)));
    if (key) {
      key_ = std::move(key);
      log.msg(__LINE__, 8, "Loaded key from PEM-file \"%s\"", file);
      return 0;
    }
  }
  // Not PEM (or not readable as such): what OpenSSL complained about is no error yet.
  clearOpenSslErrors();
  log.msg(__LINE__, 8, "\"%s\" appears to contain a key in proprietary format", file);

  const EVP_CIPHER* cipher = EVP_des_ede3_cbc();
  unsigned char key[EVP_MAX_KEY_LENGTH];
  unsigned char iv[EVP_MAX_IV_LENGTH];
  if (EVP_BytesToKey(cipher, EVP_md5(), kProprietarySalt,
                     reinterpret_cast<const unsigned char*>(password),
                     static_cast<int>(strlen(password)), 1, key, iv) <= 0) {
    log.msg(__LINE__, 7, "failed to decode the key");
    logOpenSslErrorQueue(kComponent, "loadKey");
    return -4;
  }

  std::vector<unsigned char> encrypted;
  int rc = readWholeFile(file, &encrypted);
  if (rc == -2) {
    log.msg(__LINE__, 2, "Can't read key from \"%s\"", file);
    OPENSSL_cleanse(key, sizeof(key));
    return -2;
  }
  if (rc == -3) {
    log.msg(__LINE__, 2, "I/O error");
    OPENSSL_cleanse(key, sizeof(key));
    return -3;
  }
  log.msg(__LINE__, 8, "Loaded key from proprietary file \"%s\"", file);

  // With padding the plain text is shorter than the cipher text; one block
  // more leaves room for what EVP_DecryptUpdate may hold back.
  std::vector<unsigned char> plain(encrypted.size() + 8);
  int outLen = 0;
  int finalLen = 0;
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  bool decrypted = ctx && EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, key, iv) == 1 &&
                   EVP_DecryptUpdate(ctx.get(), plain.data(), &outLen, encrypted.data(),
                                     static_cast<int>(encrypted.size())) == 1 &&
                   EVP_DecryptFinal_ex(ctx.get(), plain.data() + outLen, &finalLen) == 1;
  OPENSSL_cleanse(key, sizeof(key));
  EvpPkeyPtr loaded;
  if (decrypted) {
    const unsigned char* p = plain.data();
    loaded.reset(d2i_AutoPrivateKey(nullptr, &p, outLen + finalLen));
  }
  OPENSSL_cleanse(plain.data(), plain.size());
  if (!loaded) {
    log.msg(__LINE__, 7, "failed to decode the key");
    logOpenSslErrorQueue(kComponent, "loadKey");
    return -4;
  }
  key_ = std::move(loaded);
  return 0;
}

int TsAsymKey::saveKey(const char* file, const char* password) const {
  Log log(kComponent, "saveKey", __FILE__, __LINE__, 13);
  if (!key_ || file == nullptr || password == nullptr) {
    log.msg(__LINE__, 2, "Parameter is null");
    return -1;
  }
  // A private key is for its owner's eyes only, whatever the umask, and also
  // when an existing file is overwritten.
  BioPtr out;
  UniqueFd fd(open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (fd.valid() && fchmod(fd.get(), 0600) == 0) out.reset(BIO_new_fd(fd.get(), BIO_CLOSE));
  if (out) fd.release();  // the BIO closes it now
  if (!out) {
    log.msg(__LINE__, 2, "failed open the file \"%s\" to write the key", file);
    logOpenSslErrorQueue(kComponent, "saveKey");
    return -2;
  }
  bool encrypt = *password != '\0';
  int ok =
      PEM_write_bio_PrivateKey(out.get(), key_.get(), encrypt ? EVP_des_ede3_cbc() : nullptr,
                               encrypt ? reinterpret_cast<const unsigned char*>(password) : nullptr,
                               encrypt ? static_cast<int>(strlen(password)) : 0, passwordCallback,
                               const_cast<char*>(password));
  if (ok != 1 || BIO_flush(out.get()) != 1) {
    log.msg(__LINE__, 7, "failed to save the key to \"%s\"", file);
    logOpenSslErrorQueue(kComponent, "saveKey");
    return -3;
  }
  return 0;
}

int TsAsymKey::generateKey(int type, int bits, EVP_PKEY_gen_cb* callback, void* callbackArg) {
  Log log(kComponent, "generateKey", __FILE__, __LINE__, 13);
  auto withCallback = [&](EVP_PKEY_CTX* ctx) {
    if (callback != nullptr) {
      EVP_PKEY_CTX_set_app_data(ctx, callbackArg);
      EVP_PKEY_CTX_set_cb(ctx, callback);
    }
  };
  if (type == kKeyTypeRsa) {
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    BignumPtr exponent(BN_new());
    EVP_PKEY* key = nullptr;
    if (!ctx || !exponent || BN_set_word(exponent.get(), 65537) != 1 ||
        EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0 ||
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), exponent.get()) <= 0 ||
        (withCallback(ctx.get()), EVP_PKEY_keygen(ctx.get(), &key)) <= 0) {
      log.msg(__LINE__, 2, "RSA key generation failed.");
      logOpenSslErrorQueue(kComponent, "generateKey");
      return -1;
    }
    key_.reset(key);
    return 0;
  }
  if (type == kKeyTypeDsa) {
    EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr));
    EVP_PKEY* params = nullptr;
    if (!pctx || EVP_PKEY_paramgen_init(pctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), bits) <= 0 ||
        (withCallback(pctx.get()), EVP_PKEY_paramgen(pctx.get(), &params)) <= 0) {
      log.msg(__LINE__, 2, "DSA parameter genration failed.");
      logOpenSslErrorQueue(kComponent, "generateKey");
      return -3;
    }
    EvpPkeyPtr paramsOwner(params);
    EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new(params, nullptr));
    EVP_PKEY* key = nullptr;
    if (!kctx || EVP_PKEY_keygen_init(kctx.get()) <= 0 ||
        (withCallback(kctx.get()), EVP_PKEY_keygen(kctx.get(), &key)) <= 0) {
      log.msg(__LINE__, 2, "DSA key generation failed.");
      logOpenSslErrorQueue(kComponent, "generateKey");
      return -4;
    }
    key_.reset(key);
    return 0;
  }
  log.msg(__LINE__, 2, "Invalid KEYTYPE: %d", type);
  return -2;
}

int TsAsymKey::getKeyType() const {
  Log log(kComponent, "getKeyType", __FILE__, __LINE__, 13);
  if (!key_) return -1;
  return keyTypeFromOpenSslId(EVP_PKEY_get_base_id(key_.get()));
}

int TsAsymKey::getPKeyType() const { return key_ ? EVP_PKEY_get_base_id(key_.get()) : 0; }

int TsAsymKey::comparePublicKey(const EVP_PKEY* publicKey) const {
  Log log(kComponent, "comparePublicKey", __FILE__, __LINE__, 13);
  if (!key_ || publicKey == nullptr) return -1;
  int eq = EVP_PKEY_eq(key_.get(), publicKey);
  clearOpenSslErrors();  // a type mismatch leaves an entry; it only means "different"
  return eq == 1 ? 0 : 1;
}

int TsAsymKey::signData(const unsigned char* data, unsigned int length, int digestNid,
                        std::vector<unsigned char>* signature) const {
  Log log(kComponent, "signData", __FILE__, __LINE__, 13);
  if (!key_ || signature == nullptr) {
    log.msg(__LINE__, 2, "no key loaded");
    return -1;
  }
  const EVP_MD* md = tsDigestByNid(digestNid);
  if (md == nullptr) {
    log.msg(__LINE__, 2, "can't get a digest EVP for NID %d", digestNid);
    return -2;
  }
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  size_t size = 0;
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, key_.get()) != 1 ||
      EVP_DigestSign(ctx.get(), nullptr, &size, data, length) != 1) {
    log.msg(__LINE__, 2, "signing with digest NID %d failed", digestNid);
    logOpenSslErrorQueue(kComponent, "signData");
    return -3;
  }
  signature->resize(size);
  if (EVP_DigestSign(ctx.get(), signature->data(), &size, data, length) != 1) {
    log.msg(__LINE__, 2, "signing with digest NID %d failed", digestNid);
    logOpenSslErrorQueue(kComponent, "signData");
    signature->clear();
    return -3;
  }
  signature->resize(size);
  log.msg(__LINE__, 9, "signed %u bytes: %u bytes signature", length, static_cast<unsigned>(size));
  return 0;
}

