// The library's own codes for the kinds of asymmetric keys, shared by the
// key, the certificate and the signer information of a timestamp token.
#ifndef OSSL_KEYTYPE_H_
#define OSSL_KEYTYPE_H_

constexpr int kKeyTypeRsa = 4;
constexpr int kKeyTypeDsa = 8;

// Maps an OpenSSL key id (EVP_PKEY_get_base_id, or an RSA/DSA algorithm NID)
// to 4 (RSA: 6, 19) or 8 (DSA: 66, 67, 70, 113, 116). Any other id is logged
// at level 2 as "Unexpected keytype %d" and gives -1.
int keyTypeFromOpenSslId(int id);

#endif  // OSSL_KEYTYPE_H_
