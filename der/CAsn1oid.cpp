#include "der/CAsn1oid.h"

#include <openssl/objects.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "base/Log.h"
#include "der/Der.h"
#include "ossl/OpenSslErrors.h"
#include "ossl/OpenSslPtr.h"

namespace {

// OpenSSL 3.0 does not lock its table of added objects: an OBJ_create at
// start-up while another thread looks a NID up can break the lookup. Every
// use of the table here goes through this lock. It is process-wide because
// the table it guards is OpenSSL's own, one per process.
std::mutex& objectTable() {
  static std::mutex lock;
  return lock;
}

const char* longName(int nid) {
  std::lock_guard<std::mutex> hold(objectTable());
  const char* name = OBJ_nid2ln(nid);
  return name ? name : "";
}

// Dotted numeric text of obj ("1.2.3"); empty on failure.
std::string dottedText(const ASN1_OBJECT* obj) {
  char small[128];
  int n = OBJ_obj2txt(small, sizeof small, obj, 1);
  if (n < 0) return std::string();
  if (n < static_cast<int>(sizeof small)) return std::string(small);
  std::vector<char> big(static_cast<size_t>(n) + 1);
  OBJ_obj2txt(big.data(), static_cast<int>(big.size()), obj, 1);
  return std::string(big.data());
}

}  // namespace

std::vector<unsigned char> CAsn1oid::der() const {
  std::vector<unsigned char> out;
  if (nid == 0) {
    if (unknown_.empty()) return out;
    DerWriter writer;
    const size_t oid = writer.open(kTagOid);
    writer.bytes(unknown_);
    writer.close(oid);
    return writer.release();
  }
  const ASN1_OBJECT* obj;
  {
    std::lock_guard<std::mutex> hold(objectTable());
    obj = OBJ_nid2obj(nid);  // the table's entries are never removed
  }
  const int n = obj != nullptr ? i2d_ASN1_OBJECT(obj, nullptr) : 0;
  if (n <= 0) return out;
  out.resize(static_cast<size_t>(n));
  unsigned char* p = out.data();
  if (i2d_ASN1_OBJECT(obj, &p) != n) out.clear();
  return out;
}

int CAsn1oid::getDER(DerWriter& out) const {
  Log log("CAsn1oid", "getDER", __FILE__, __LINE__, 13);
  if (!isSet()) {
    log.msg(__LINE__, 2, "Object not initialized");
    return -1;
  }
  const std::vector<unsigned char> bytes = der();
  if (bytes.empty()) {
    logOpenSslErrorQueue("CAsn1oid", "getDER");
    return -1;
  }
  out.bytes(bytes);
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "serialized OBJECT %s", dotted().c_str());
  return 0;
}

int CAsn1oid::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1oid", "setDER", __FILE__, __LINE__, 13);
  nid = 0;
  unknown_.clear();
  DerReader in(buffer, pos, end);
  unsigned char tag = 0;
  if (!in.need(1)) return -1;
  in.peek(&tag);
  if (tag != kTagOid) return in.expectTag(kTagOid) ? 0 : -1;  // logs the mismatch
  // The whole run goes to OpenSSL, so check first that it was received.
  unsigned int start = *pos;
  unsigned int after = start + 1;
  DerReader lengthReader(buffer, &after, end);
  int length = 0;
  if (!lengthReader.readLengthValue(&length) ||
      !lengthReader.need(static_cast<unsigned int>(length))) {
    return -1;
  }
  unsigned long long run =
      (after - start) + static_cast<unsigned long long>(static_cast<unsigned int>(length));
  const unsigned char* p = buffer + start;
  // Decoding checks the octets; it adds nothing to OpenSSL's object table.
  Asn1ObjectPtr obj(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(run)));
  if (!obj) {
    logOpenSslErrorQueue("CAsn1oid", "setDER");
    return -1;
  }
  *pos = static_cast<unsigned int>(p - buffer);
  {
    std::lock_guard<std::mutex> hold(objectTable());
    nid = OBJ_obj2nid(obj.get());
  }
  if (nid == NID_undef) {
    nid = 0;
    unknown_.assign(buffer + after, buffer + after + length);
  }
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "deserialized OBJECT %s", dotted().c_str());
  return 0;
}

unsigned int CAsn1oid::getSize() const {
  Log log("CAsn1oid", "getSize", __FILE__, __LINE__, 13);
  return static_cast<unsigned int>(der().size());
}

std::string CAsn1oid::dotted() const {
  const std::vector<unsigned char> bytes = der();
  const unsigned char* p = bytes.data();
  Asn1ObjectPtr obj(bytes.empty() ? nullptr
                                  : d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(bytes.size())));
  return obj ? dottedText(obj.get()) : std::string();
}

bool CAsn1oid::sameAs(const CAsn1oid& other) const { return isSet() && der() == other.der(); }

void CAsn1oid::print() const {
  Log log("CAsn1oid", "print", __FILE__, __LINE__, 13);
  const char* sn = nullptr;
  if (nid != 0) {
    std::lock_guard<std::mutex> hold(objectTable());
    sn = OBJ_nid2sn(nid);
  }
  printf("[%3d] %s (%s) (%s)\n", nid, dotted().c_str(), nid != 0 ? longName(nid) : "",
         sn ? sn : "");
}
