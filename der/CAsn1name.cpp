#include "der/CAsn1name.h"

#include <openssl/x509.h>

#include <cassert>
#include <memory>

#include "base/Log.h"
#include "der/Der.h"
#include "ossl/OpenSslErrors.h"
#include "ossl/OpenSslPtr.h"

namespace {

// Longest value text handed to OpenSSL for one entry.
constexpr unsigned int kMaxValueText = 1024;

using X509NameEntryPtr =
    std::unique_ptr<X509_NAME_ENTRY, ossl::Deleter<X509_NAME_ENTRY, X509_NAME_ENTRY_free>>;

}  // namespace

int CAsn1name::addVal(int nid, const CAsn1string& value) {
  Log log("CAsn1name", "addVal", __FILE__, __LINE__, 13);
  // One short of what decoding accepts; callers rely on the 9.
  if (count_ >= kMaxAddedAttributes) return -1;
  CAsn1nameAttribute attribute;
  attribute.addElement(nid, value);
  attributes_[count_++] = attribute;
  return 0;
}

unsigned int CAsn1name::getSize() {
  Log log("CAsn1name", "getSize", __FILE__, __LINE__, 13);
  unsigned int content = 0;
  for (int i = 0; i < count_; ++i) content += attributes_[i].getSize();
  length.value = static_cast<int>(content);
  return 1 + length.getSize() + content;
}

int CAsn1name::getDER(unsigned char* buffer, unsigned int* pos) {
  Log log("CAsn1name", "getDER", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "serializing Name with %d attributes", count_);
  unsigned int start = *pos;
  unsigned int size = getSize();
  DerWriter out(buffer, pos);
  out.octet(kTagSequence);
  if (length.getDER(buffer, pos) != 0) return -1;
  for (int i = 0; i < count_; ++i) {
    if (attributes_[i].getDER(buffer, pos) != 0) return -1;
  }
  assert(*pos - start == size);
  (void)start;
  (void)size;
  return 0;
}

int CAsn1name::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1name", "setDER", __FILE__, __LINE__, 13);
  count_ = 0;
  DerReader in(buffer, pos, end);
  unsigned int content = 0;
  if (!in.expectTagQuiet(kTagSequence) || !in.readLength(&content)) return -1;
  length.value = static_cast<int>(content);
  unsigned long long consumed = 0;
  while (consumed < content && count_ < kMaxAttributes) {
    // The attribute's own length, read ahead, says how far it reaches.
    unsigned int next = in.pos() + 1;
    DerReader ahead(buffer, &next, end);
    unsigned int attributeLength = 0, lengthOctets = 0;
    if (!ahead.need(1) || !ahead.peekLength(&attributeLength, &lengthOctets)) return -1;
    // The length field counts with its DER size, not with the octets found:
    // a longer than minimal field counts short and the loop reads on.
    consumed += 1ULL + derLengthSize(static_cast<int>(attributeLength)) + attributeLength;
    if (attributes_[count_].setDER(buffer, pos, end) != 0) return -1;
    ++count_;
  }
  log.msg(__LINE__, 9, "deserialized Name with %d attributes", count_);
  return 0;
}

int CAsn1name::getString(char* buffer, unsigned int size) const {
  Log log("CAsn1name", "getString", __FILE__, __LINE__, 13);
  if (size == 0) return -1;
  buffer[0] = '\0';
  X509NamePtr name(X509_NAME_new());
  if (!name) return -1;
  for (int i = 0; i < count_; ++i) {
    const CAsn1nameAttribute& attribute = attributes_[i];
    for (int j = 0; j < attribute.elementCount(); ++j) {
      const CAsn1string& value = attribute.value(j);
      int textLength =
          static_cast<int>(value.length() < kMaxValueText ? value.length() : kMaxValueText);
      // The value's tag doubles as OpenSSL's string type.
      const CAsn1oid& type = attribute.type(j);
      // A type OpenSSL does not know goes in as a detached object, never
      // into OpenSSL's object table.
      Asn1ObjectPtr unknown(type.nid == 0 ? OBJ_txt2obj(type.dotted().c_str(), 1) : nullptr);
      X509NameEntryPtr entry(unknown ? X509_NAME_ENTRY_create_by_OBJ(nullptr, unknown.get(),
                                                                     value.tag(), value.data(),
                                                                     textLength)
                                     : X509_NAME_ENTRY_create_by_NID(nullptr, type.nid, value.tag(),
                                                                     value.data(), textLength));
      if (!entry) {
        log.msg(__LINE__, 2, "X509_NAME_ENTRY_create_by_NID() failed");
        logOpenSslErrorQueue("CAsn1name", "getString");
        continue;
      }
      if (X509_NAME_add_entry(name.get(), entry.get(), -1, 0) != 1) {
        log.msg(__LINE__, 2, "X509_NAME_add_entry() failed");
        logOpenSslErrorQueue("CAsn1name", "getString");
      }
    }
  }
  if (X509_NAME_entry_count(name.get()) > 0) {
    X509_NAME_oneline(name.get(), buffer, static_cast<int>(size));
  }
  log.msg(__LINE__, 6, "X.509 name: %s", buffer);
  return 0;
}
