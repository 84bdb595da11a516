// TsSecInfo: signing, verification and symmetric encryption over one
// configured key pair (a private key and, optionally, its certificate).
//
// Signatures: RSA PKCS#1 v1.5 or DSA, over data (hashed here) or over a hash
// the caller made; verification uses the certificate's public key when one
// was configured, else the key's own public part.
//
// Symmetric encryption: AES-256-GCM. The 256-bit key is derived per message
// with HKDF-SHA256 from the private key's DER encoding and a random 16-byte
// salt (info "clockette TsSecInfo AES-256-GCM"), so whoever holds the signing
// key, and only they, can decrypt; nothing else needs to be configured or
// stored. An encrypted message is
//   "TSE1" | salt (16) | IV (12) | cipher text | GCM tag (16)
// with magic, salt and IV authenticated as additional data: any change to the
// message, or another key, makes decryption fail.
//
// Results: 0 on success, negative codes per operation below. Not thread-safe.
#ifndef TSSIGN_TSSECINFO_H_
#define TSSIGN_TSSECINFO_H_

#include <memory>
#include <vector>

#include "der/CCertInfo.h"
#include "tssign/TsAsymKey.h"

class TsSecInfo {
 public:
  TsSecInfo();
  ~TsSecInfo();
  TsSecInfo(const TsSecInfo&) = delete;
  TsSecInfo& operator=(const TsSecInfo&) = delete;

  // Loads the private key (TsAsymKey::loadKey) and, when certFile is given,
  // the PEM certificate that must belong to it. 0 on success; -1 for a
  // missing key file or password, -2 when the key cannot be loaded, -3 when
  // the certificate cannot be read, -4 when key and certificate do not match.
  // A failed init leaves the object unconfigured.
  int init(const char* keyFile, const char* password, const char* certFile);
  bool initialized() const { return key_.loaded(); }

  // Signs data, or a hash of the digest of digestNid made by the caller.
  // 0 on success; -1 not initialised, -2 unknown digest or a hash of the
  // wrong size, -3 signing failed.
  int signData(const unsigned char* data, unsigned int length, int digestNid,
               std::vector<unsigned char>* signature) const;
  int signHash(const unsigned char* hash, unsigned int length, int digestNid,
               std::vector<unsigned char>* signature) const;
  // 0 when the signature verifies, -1 when it does not, -2 not initialised
  // or unknown digest.
  int verifyData(const unsigned char* data, unsigned int length, int digestNid,
                 const unsigned char* signature, unsigned int signatureLength) const;
  int verifyHash(const unsigned char* hash, unsigned int length, int digestNid,
                 const unsigned char* signature, unsigned int signatureLength) const;

  // Encrypts plain text into the message form above. 0 on success; -1 not
  // initialised, -3 when encryption fails.
  int encryptData(const unsigned char* plain, unsigned int length,
                  std::vector<unsigned char>* message) const;
  // Decrypts a message made by encryptData with the same key. 0 on success;
  // -1 not initialised, -2 not such a message (too short, wrong magic), -3
  // authentication failed (changed message or another key).
  int decryptData(const unsigned char* message, unsigned int length,
                  std::vector<unsigned char>* plain) const;

 private:
  // The key that verifies: the certificate's when configured, else the key's.
  EVP_PKEY* verifyingKey() const;
  // The AES key for a salt; false on failure.
  bool deriveKey(const unsigned char* salt, unsigned char* aesKey) const;

  TsAsymKey key_;
  std::unique_ptr<CCertInfo> cert_;  // null: verify with the key's public part
  EvpPkeyPtr publicKey_;             // the key's public part
};

#endif  // TSSIGN_TSSECINFO_H_
