#include "der/CAsn1ietfStatusInfo.h"

#include "base/Log.h"
#include "der/TokenDer.h"

namespace {

// The end of the element whose identifier is at buffer[at], or false when its
// length field cannot be read before end.
bool elementEnd(const unsigned char* buffer, unsigned int at, unsigned int end,
                unsigned long long* elementEnd, unsigned int* contentLength = nullptr) {
  unsigned int pos = at + 1;
  DerReader in(buffer, &pos, end);
  int length = 0;
  if (at >= end || !in.readLengthValue(&length)) return false;
  *elementEnd = static_cast<unsigned long long>(pos) + static_cast<unsigned int>(length);
  if (contentLength != nullptr) *contentLength = static_cast<unsigned int>(length);
  return true;
}

}  // namespace

std::string CAsn1ietfStatusInfo::statusText() const {
  if (statusString.length() == 0) return std::string();
  return std::string(reinterpret_cast<const char*>(statusString.data()), statusString.length());
}

std::string CAsn1ietfStatusInfo::failInfoNames() const {
  // Named bits of PKIFailureInfo, by their number in the BIT STRING.
  static const struct {
    unsigned int bit;
    const char* name;
  } kNames[] = {{0, "badAlg"},
                {2, "badRequest"},
                {5, "badDataFormat"},
                {14, "timeNotAvailable"},
                {15, "unacceptedPolicy"},
                {16, "unacceptedExtension"},
                {17, "addInfoNotAvailable"},
                {25, "systemFailure"}};
  std::string names;
  const unsigned int count = failInfo.bitCount();
  for (unsigned int bit = 0; bit < count; ++bit) {
    // Entry 0 holds the last bit of the string (see CAsn1bitString).
    if (failInfo.getBit(count - 1 - bit) == 0) continue;
    std::string name = "bit " + std::to_string(bit);
    for (const auto& n : kNames) {
      if (n.bit == bit) name = n.name;
    }
    names += (names.empty() ? "" : ", ") + name;
  }
  return names;
}

int CAsn1ietfStatusInfo::getDER(DerWriter& out) const {
  Log log("CAsn1ietfStatusInfo", "getDER", __FILE__, __LINE__, 13);
  const size_t sequence = out.open(kTagSequence);
  if (status.getDER(out) != 0) return -1;
  // The text goes out as one bare string, not as a PKIFreeText SEQUENCE.
  if (statusString.length() > 0 && statusString.getDER(out) != 0) return -1;
  if (failInfo.bitCount() > 0 && failInfo.getDER(out) != 0) return -1;
  out.close(sequence);
  return 0;
}

int CAsn1ietfStatusInfo::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1ietfStatusInfo", "setDER", __FILE__, __LINE__, 13);
  statusString = CAsn1string(kTagUtf8String);
  failInfo = CAsn1bitString();
  DerReader in(buffer, pos, end);
  if (!in.expectTag(kTagSequence)) return -1;
  unsigned int length = 0;
  if (!in.readLength(&length)) {
    log.msg(__LINE__, 2, "failed to parse PKIStatusInfo size");
    return -1;
  }
  const unsigned int infoEnd = *pos + length;
  if (status.setDER(buffer, pos, infoEnd) != 0) {
    log.msg(__LINE__, 2, "failed to parse PKIStatus object");
    return -1;
  }
  if (*pos >= infoEnd) {
    log.msg(__LINE__, 9, "PKIStatusInfo containing PKIStatus only");
    return 0;
  }
  if (buffer[*pos] == kTagSequence) {
    if (readFreeText(buffer, pos, infoEnd) != 0) return -1;
  } else if (buffer[*pos] == kTagPrintableString) {
    if (readPrintableString(buffer, pos, infoEnd) != 0) return -1;
  }
  return readFailureInfo(buffer, pos, infoEnd);
}

int CAsn1ietfStatusInfo::readFreeText(const unsigned char* buffer, unsigned int* pos,
                                      unsigned int end) {
  Log log("CAsn1ietfStatusInfo", "readFreeText", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "PKIStatusInfo containing PKIFreeText");
  DerReader in(buffer, pos, end);
  in.skip(1);
  unsigned int length = 0;
  if (!in.readLength(&length)) {
    log.msg(__LINE__, 2, "failed to parse PKIFreeText size");
    return -1;
  }
  const unsigned int textStart = *pos;
  const unsigned int textEnd = textStart + length;
  log.msg(__LINE__, 9, "offsets: PKIFreeText starts at %u / payload size %u / end %u", textStart,
          length, textEnd);
  for (int n = 1; *pos < textEnd; ++n) {
    const unsigned int at = *pos;
    unsigned long long stringEnd = 0;
    unsigned int stringLength = 0;
    CAsn1string text;
    bool fault = true;
    if (buffer[at] != kTagUtf8String) {
      log.msg(__LINE__, 2, "PKIStatusInfo->PKIFreeText->data type %d is not UTF8String",
              buffer[at]);
    } else if (!elementEnd(buffer, at, textEnd, &stringEnd, &stringLength)) {
      log.msg(__LINE__, 2, "failed to parse sizeUTF8String size (#%d)", n);
    } else if (stringEnd > textEnd) {
      log.msg(__LINE__, 2, "UTF8String at %u of size %d ends at %u > PKIFreeText end %u", at,
              static_cast<int>(stringLength), static_cast<unsigned int>(stringEnd), textEnd);
    } else if (text.setDER(buffer, pos, textEnd) != 0) {
      log.msg(__LINE__, 2, "failed to parse UTF8String/statusString (#%d)", n);
    } else {
      fault = false;
    }
    if (fault) {
      // Only the first text matters to the caller; a bad later one ends the list.
      if (n == 1) return -1;
      break;
    }
    std::string value = text.length() > 0
                            ? std::string(reinterpret_cast<const char*>(text.data()), text.length())
                            : std::string();
    log.msg(__LINE__, 9, "[%d] status:%d (%s)", n, status.value, value.c_str());
    if (n == 1) statusString = text;
  }
  if (*pos != textEnd) {
    log.msg(__LINE__, 9, "parse of PKIFreeText ended at %u - should have been %u", *pos, textEnd);
  }
  *pos = textEnd;
  return 0;
}

int CAsn1ietfStatusInfo::readPrintableString(const unsigned char* buffer, unsigned int* pos,
                                             unsigned int end) {
  Log log("CAsn1ietfStatusInfo", "readPrintableString", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "PKIStatusInfo containing PRINTABLESTRING");
  unsigned long long stringEnd = 0;
  if (!elementEnd(buffer, *pos, end, &stringEnd)) {
    log.msg(__LINE__, 2, "Can't set subsize object");
    return -1;
  }
  // One byte stricter than the PKIFreeText rule: a string that ends exactly at
  // the end of the status info is refused. Peers have always seen it refused.
  if (stringEnd >= end) {
    log.msg(__LINE__, 2, "statusString object too long");
    return -1;
  }
  if (statusString.setDER(buffer, pos, end) != 0) {
    log.msg(__LINE__, 2, "Can't set statusString object");
    return -1;
  }
  return 0;
}

int CAsn1ietfStatusInfo::readFailureInfo(const unsigned char* buffer, unsigned int* pos,
                                         unsigned int end) {
  Log log("CAsn1ietfStatusInfo", "readFailureInfo", __FILE__, __LINE__, 13);
  if (*pos >= end) {
    log.msg(__LINE__, 9, "PKIStatusInfo no PKIFailureInfo");
    return 0;
  }
  if (buffer[*pos] != kTagBitString) {
    // Whatever else is there is ignored.
    *pos = end;
    return 0;
  }
  log.msg(__LINE__, 9, "PKIStatusInfo containing PKIFailureInfo");
  unsigned long long infoEnd = 0;
  if (!elementEnd(buffer, *pos, end, &infoEnd)) {
    log.msg(__LINE__, 2, "Can't set subsize object");
    return -1;
  }
  if (infoEnd > end) {
    // The same text as for the status string, as it has always been reported.
    log.msg(__LINE__, 2, "statusString object too long");
    return -1;
  }
  if (failInfo.setDER(buffer, pos, end) != 0) {
    log.msg(__LINE__, 2, "Can't set failInfo object");
    return -1;
  }
  *pos = end;
  return 0;
}
