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

// OpenSSL 3.0 does not lock its table of added objects: an OBJ_create while
// another thread looks a NID up can break the lookup. Answers are decoded on
// several threads at once (and may register an unknown policy), so every use
// of the table here goes through this lock.
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

int CAsn1oid::getDER(DerWriter& out) const {
  Log log("CAsn1oid", "getDER", __FILE__, __LINE__, 13);
  if (nid == 0) {
    log.msg(__LINE__, 2, "Object not initialized");
    return -1;
  }
  const ASN1_OBJECT* obj;
  {
    std::lock_guard<std::mutex> hold(objectTable());
    obj = OBJ_nid2obj(nid);  // the table's entries are never removed
  }
  if (obj == nullptr) {
    logOpenSslErrorQueue("CAsn1oid", "getDER");
    return -1;
  }
  int n = i2d_ASN1_OBJECT(obj, nullptr);
  unsigned char* p = n > 0 ? out.zeros(static_cast<unsigned int>(n)) : nullptr;
  if (n <= 0 || i2d_ASN1_OBJECT(obj, &p) != n) {
    logOpenSslErrorQueue("CAsn1oid", "getDER");
    return -1;
  }
  log.msg(__LINE__, 9, "serialized OBJECT %s", longName(nid));
  return 0;
}

int CAsn1oid::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1oid", "setDER", __FILE__, __LINE__, 13);
  nid = 0;
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
  Asn1ObjectPtr obj(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(run)));
  if (!obj) {
    logOpenSslErrorQueue("CAsn1oid", "setDER");
    return -1;
  }
  *pos = static_cast<unsigned int>(p - buffer);
  {
    std::lock_guard<std::mutex> hold(objectTable());
    nid = OBJ_obj2nid(obj.get());
    if (nid == NID_undef) {
      // Unknown to OpenSSL: register it so that it has a NID and re-encodes.
      std::string text = dottedText(obj.get());
      nid = text.empty() ? NID_undef : OBJ_create(text.c_str(), text.c_str(), text.c_str());
    }
  }
  if (nid == NID_undef) {
    logOpenSslErrorQueue("CAsn1oid", "setDER");
    nid = 0;
    return -1;
  }
  log.msg(__LINE__, 9, "deserialized OBJECT %s", longName(nid));
  return 0;
}

unsigned int CAsn1oid::getSize() const {
  Log log("CAsn1oid", "getSize", __FILE__, __LINE__, 13);
  if (nid == 0) return 0;
  const ASN1_OBJECT* obj;
  {
    std::lock_guard<std::mutex> hold(objectTable());
    obj = OBJ_nid2obj(nid);
  }
  if (obj == nullptr) return 0;
  int n = i2d_ASN1_OBJECT(obj, nullptr);
  return n > 0 ? static_cast<unsigned int>(n) : 0;
}

void CAsn1oid::print() const {
  Log log("CAsn1oid", "print", __FILE__, __LINE__, 13);
  std::unique_lock<std::mutex> hold(objectTable());
  const ASN1_OBJECT* obj = nid != 0 ? OBJ_nid2obj(nid) : nullptr;
  std::string text = obj ? dottedText(obj) : std::string();
  const char* sn = nid != 0 ? OBJ_nid2sn(nid) : nullptr;
  hold.unlock();
  printf("[%3d] %s (%s) (%s)\n", nid, text.c_str(), longName(nid), sn ? sn : "");
}
