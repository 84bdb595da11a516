// TsAsymKey: the private key of the local signer, RSA or DSA.
//
// The object owns at most one OpenSSL key (EVP_PKEY); loading, importing or
// generating replaces it, unloadKey frees it. Key files are PEM (optionally
// encrypted) or the proprietary format: the DER private key encrypted with
// DES-EDE3-CBC under a key and IV derived from the password with
// EVP_BytesToKey (MD5, one round, fixed salt "kbVquard"). Triple-DES and MD5
// are in OpenSSL 3's default provider (only single DES needs the legacy one),
// so nothing has to be loaded for them. Passwords are never
// logged and OpenSSL never prompts for one on the terminal.
//
// Results: 0 on success, a negative code per failure (see each operation);
// every failure is logged with its fixed text and OpenSSL's error queue.
// Not thread-safe; distinct objects are independent.
#ifndef TSSIGN_TSASYMKEY_H_
#define TSSIGN_TSASYMKEY_H_

#include <openssl/evp.h>

#include <vector>

#include "ossl/OpenSslPtr.h"

class TsAsymKey {
 public:
  TsAsymKey();
  ~TsAsymKey();
  TsAsymKey(const TsAsymKey&) = delete;
  TsAsymKey& operator=(const TsAsymKey&) = delete;

  // Loads a private key from file: PEM first, then the proprietary format.
  // The password must be given (it may be empty). 0 on success; -1 for a
  // missing file name or password, -2 when the file cannot be opened, -3 on a
  // read error, -4 when no key could be decoded ("failed to decode the key").
  // A failure leaves the key held before unchanged.
  int loadKey(const char* file, const char* password);
  // Writes the key as PEM (PKCS#8), encrypted with DES-EDE3-CBC under the
  // password; an empty password writes it unencrypted. The file is readable by
  // its owner only (mode 0600). 0 on success; -1 when
  // no key is held or the password is missing, -2 when the file cannot be
  // opened, -3 when writing fails.
  int saveKey(const char* file, const char* password) const;
  // Generates a new key: type 4 RSA with public exponent 65537, type 8 DSA
  // (parameters of the given size first, then the key). callback, if given,
  // receives OpenSSL's progress (EVP_PKEY_CTX_get_app_data gives
  // callbackArg). 0 on success; -1 RSA generation failed, -2 invalid type
  // ("Invalid KEYTYPE: %d"), -3 DSA parameter generation failed, -4 DSA key
  // generation failed.
  int generateKey(int type, int bits, EVP_PKEY_gen_cb* callback = nullptr,
                  void* callbackArg = nullptr);

  bool loaded() const { return key_ != nullptr; }
  // 4 (RSA), 8 (DSA), -1 for another type or no key.
  int getKeyType() const;
  // OpenSSL's base id of the key (EVP_PKEY_RSA = 6, EVP_PKEY_DSA = 116, ...), 0 without a key.
  int getPKeyType() const;
  // The key, owned by this object (null when none is held).
  EVP_PKEY* pkey() const { return key_.get(); }

  // Compares the public part with publicKey, typically a certificate's.
  // 0 when equal, 1 when different (another type counts as different), -1
  // when either key is missing.
  int comparePublicKey(const EVP_PKEY* publicKey) const;

  // Signs data with the digest of digestNid (RSA PKCS#1 v1.5, DSA DER
  // signature). 0 on success; -1 without a key, -2 for an unknown digest, -3
  // when signing fails.
  int signData(const unsigned char* data, unsigned int length, int digestNid,
               std::vector<unsigned char>* signature) const;

 private:
  EvpPkeyPtr key_;
};

// The digest for an OpenSSL NID, looked up by its short name as the rest of
// the library does (so that providers' digests such as RIPEMD-160 are found);
// null when there is none.
const EVP_MD* tsDigestByNid(int nid);

#endif  // TSSIGN_TSASYMKEY_H_
