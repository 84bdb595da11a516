// Owners for OpenSSL objects: std::unique_ptr with the matching free function,
// so that no error path has to repeat a cleanup.
//
//   X509Ptr cert(d2i_X509(nullptr, &p, len));
//   if (!cert) return -1;   // nothing to free
#ifndef OSSL_OPENSSLPTR_H_
#define OSSL_OPENSSLPTR_H_

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace ossl {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const {
    if (p != nullptr) Free(p);
  }
};

// BIO_free returns int; wrap it so that it fits the deleter's signature.
inline void bioFree(BIO* b) { BIO_free(b); }
inline void opensslFree(unsigned char* p) { OPENSSL_free(p); }

}  // namespace ossl

using BioPtr = std::unique_ptr<BIO, ossl::Deleter<BIO, ossl::bioFree>>;
using X509Ptr = std::unique_ptr<X509, ossl::Deleter<X509, X509_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, ossl::Deleter<X509_NAME, X509_NAME_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, ossl::Deleter<X509_REQ, X509_REQ_free>>;
using X509ExtensionPtr =
    std::unique_ptr<X509_EXTENSION, ossl::Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, ossl::Deleter<X509_STORE, X509_STORE_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, ossl::Deleter<EVP_PKEY, EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, ossl::Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, ossl::Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using EvpCipherCtxPtr =
    std::unique_ptr<EVP_CIPHER_CTX, ossl::Deleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using Asn1IntegerPtr =
    std::unique_ptr<ASN1_INTEGER, ossl::Deleter<ASN1_INTEGER, ASN1_INTEGER_free>>;
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, ossl::Deleter<ASN1_TIME, ASN1_TIME_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, ossl::Deleter<ASN1_OBJECT, ASN1_OBJECT_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, ossl::Deleter<BIGNUM, BN_free>>;
// Memory handed out by OpenSSL (i2d_* with a null output pointer and the like).
using OpenSslBytesPtr =
    std::unique_ptr<unsigned char, ossl::Deleter<unsigned char, ossl::opensslFree>>;

#endif  // OSSL_OPENSSLPTR_H_
