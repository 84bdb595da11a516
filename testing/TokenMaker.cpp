#include "testing/TokenMaker.h"

#include <openssl/ts.h>

#include "tools/testtsa/TokenMaker.h"
#include "ossl/OpenSslErrors.h"

namespace testing_support {
namespace {

using TsReqPtr = std::unique_ptr<TS_REQ, ossl::Deleter<TS_REQ, TS_REQ_free>>;
using ImprintPtr =
    std::unique_ptr<TS_MSG_IMPRINT, ossl::Deleter<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free>>;

Asn1IntegerPtr integerOf(const std::vector<uint8_t>& octets) {
  std::vector<uint8_t> der = {0x02, static_cast<uint8_t>(octets.size())};
  der.insert(der.end(), octets.begin(), octets.end());
  const unsigned char* p = der.data();
  return Asn1IntegerPtr(d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size())));
}

// The DER TimeStampReq that asks for the shape's imprint, nonce and certificates.
std::string requestFor(const TokenShape& shape) {
  std::vector<uint8_t> digest =
      shape.digest.empty() ? digestOf(shape.imprintNid, "clockette") : shape.digest;
  TsReqPtr req(TS_REQ_new());
  ImprintPtr imprint(TS_MSG_IMPRINT_new());
  X509_ALGOR* algo = imprint ? TS_MSG_IMPRINT_get_algo(imprint.get()) : nullptr;
  if (!req || algo == nullptr || TS_REQ_set_version(req.get(), 1) != 1 ||
      X509_ALGOR_set0(algo, OBJ_nid2obj(shape.imprintNid), V_ASN1_NULL, nullptr) != 1 ||
      TS_MSG_IMPRINT_set_msg(imprint.get(), digest.data(), static_cast<int>(digest.size())) != 1 ||
      TS_REQ_set_msg_imprint(req.get(), imprint.get()) != 1 ||
      TS_REQ_set_cert_req(req.get(), shape.includeSigner ? 1 : 0) != 1) {
    return std::string();
  }
  if (!shape.nonce.empty()) {
    Asn1IntegerPtr nonce = integerOf(shape.nonce);
    if (!nonce || TS_REQ_set_nonce(req.get(), nonce.get()) != 1) return std::string();
  }
  unsigned char* der = nullptr;
  const int n = i2d_TS_REQ(req.get(), &der);
  OpenSslBytesPtr owner(der);
  return n > 0 ? std::string(reinterpret_cast<char*>(der), static_cast<size_t>(n)) : "";
}

}  // namespace

std::vector<uint8_t> digestOf(int nid, const std::string& data) {
  const EVP_MD* md = EVP_get_digestbynid(nid);
  std::vector<uint8_t> out(EVP_MAX_MD_SIZE);
  unsigned int n = 0;
  if (md == nullptr || EVP_Digest(data.data(), data.size(), out.data(), &n, md, nullptr) != 1) {
    return {};
  }
  out.resize(n);
  return out;
}

testtsa::Signer* TokenMaker::signerFor(const TokenShape& shape) {
  const std::string id = std::string(testtsa::keyKindName(shape.key)) + "/" +
                         std::to_string(shape.timestampingUsage) + "/" +
                         std::to_string(shape.signerFrom) + "/" + std::to_string(shape.signerTo);
  auto it = signers_.find(id);
  if (it != signers_.end()) return &it->second;
  testtsa::Signer s;
  s.key = testtsa::generateKey(shape.key);
  if (s.key) {
    s.cert = ca_.issue(s.key.get(), "Clockette Token Signer " + id, shape.signerFrom,
                       shape.signerTo, shape.timestampingUsage);
  }
  if (!s.cert) {
    error_ = "signer set-up failed: " + takeOpenSslErrors();
    return nullptr;
  }
  s.issuers.emplace_back(X509_dup(ca_.caCert()));
  return &signers_.emplace(id, std::move(s)).first->second;
}

X509* TokenMaker::signer(const TokenShape& shape) {
  testtsa::Signer* s = signerFor(shape);
  return s != nullptr ? s->cert.get() : nullptr;
}

std::vector<uint8_t> TokenMaker::response(const TokenShape& shape) {
  testtsa::Signer* s = signerFor(shape);
  if (s == nullptr) return {};
  const std::string request = requestFor(shape);
  std::string der = testtsa::TokenMaker(shape, s).answer(request, &error_);
  if (request.empty() || der.empty()) {
    error_ += " " + takeOpenSslErrors();
    return {};
  }
  return std::vector<uint8_t>(der.begin(), der.end());
}

}  // namespace testing_support
