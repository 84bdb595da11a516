#include "der/CAsn1time.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "base/Log.h"
#include "der/Der.h"

namespace {

// Two-digit years below this are in the 2000s.
constexpr int kUtcCenturyPivot = 51;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool endsDigits(char c) { return c == 'Z' || c == '+' || c == '-' || c == '.'; }
int pair(const char* p) { return (p[0] - '0') * 10 + (p[1] - '0'); }

// ".5" for 0.5: "%10.8f" with the trailing zeros cut, from the '.' on.
std::string fractionText(double fraction) {
  if (!(fraction > 0)) return std::string();
  char b[64];
  snprintf(b, sizeof b, "%10.8f", fraction);
  std::string text(b);
  while (!text.empty() && text.back() == '0') text.pop_back();
  size_t dot = text.find('.');
  return dot == std::string::npos ? std::string() : text.substr(dot);
}

// "+hhmm" when an offset is east of GMT, "-hhmm" (both negated) when west,
// empty for GMT.
std::string zoneText(int tzHours, int tzMinutes) {
  char b[32];
  if (tzHours > 0 || tzMinutes >= 1) {
    snprintf(b, sizeof b, "+%02d%02d", tzHours, tzMinutes);
  } else if (tzHours == 0 && tzMinutes == 0) {
    return std::string();
  } else {
    snprintf(b, sizeof b, "-%02d%02d", -tzHours, -tzMinutes);
  }
  return b;
}

}  // namespace

std::string CAsn1time::derText() const {
  Log log("CAsn1time", "derText", __FILE__, __LINE__, 13);
  char b[128];
  if (type == kGeneralizedTime) {
    snprintf(b, sizeof b, "%04d%02d%02d%02d%02d%02d", year, month, day, hour, minute, second);
    return std::string(b) + fractionText(fraction) + "Z";
  }
  if (type != kUtcTime) return std::string();
  if (second == -1) {
    snprintf(b, sizeof b, "%02d%02d%02d%02d%02d", year % 100, month, day, hour, minute);
  } else {
    snprintf(b, sizeof b, "%02d%02d%02d%02d%02d%02d", year % 100, month, day, hour, minute, second);
  }
  std::string zone = zoneText(tzHours, tzMinutes);
  return std::string(b) + (zone.empty() ? std::string("Z") : zone);
}

std::string CAsn1time::displayText() const {
  Log log("CAsn1time", "displayText", __FILE__, __LINE__, 13);
  char b[128];
  if (second == -1) {
    snprintf(b, sizeof b, "%04d-%02d-%02d %02d:%02d", year, month, day, hour, minute);
  } else {
    snprintf(b, sizeof b, "%04d-%02d-%02d %02d:%02d:%02d", year, month, day, hour, minute, second);
  }
  return std::string(b) + fractionText(fraction) + " GMT" + zoneText(tzHours, tzMinutes);
}

unsigned int CAsn1time::getSize() const {
  Log log("CAsn1time", "getSize", __FILE__, __LINE__, 13);
  if (type != kUtcTime && type != kGeneralizedTime) return 0;
  const unsigned int length = static_cast<unsigned int>(derText().size());
  return 1 + derLengthSize(static_cast<int>(length)) + length;
}

int CAsn1time::getDER(DerWriter& out) const {
  Log log("CAsn1time", "getDER", __FILE__, __LINE__, 13);
  if (type != kUtcTime && type != kGeneralizedTime) return -1;
  std::string text = derText();
  out.octet(static_cast<unsigned char>(type));
  out.length(static_cast<int>(text.size()));
  out.bytes(reinterpret_cast<const unsigned char*>(text.data()),
            static_cast<unsigned int>(text.size()));
  return 0;
}

int CAsn1time::setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) {
  Log log("CAsn1time", "setDER", __FILE__, __LINE__, 13);
  DerReader in(buffer, pos, end);
  unsigned char tag = 0;
  if (!in.readOctet(&tag)) return -1;
  if (tag != kTagUtcTime && tag != kTagGeneralizedTime) {
    log.msg(__LINE__, 2, "Got time type 0x%02X, expected 0x%02X or 0x%02X", tag, kTagUtcTime,
            kTagGeneralizedTime);
    return -1;
  }
  if (!in.readLengthValue(&textLength.value)) return -1;
  unsigned int length = static_cast<unsigned int>(textLength.value);
  if (length >= static_cast<unsigned int>(kMaxText)) {
    log.msg(__LINE__, 2, "Size %d exeeds %d", textLength.value, kMaxText - 1);
    return -1;
  }
  if (!in.need(length)) return -1;
  const char* text = reinterpret_cast<const char*>(in.here());
  in.skip(length);
  return setVal(text, length);
}

int CAsn1time::setVal(const char* text, unsigned int length) {
  Log log("CAsn1time", "setVal", __FILE__, __LINE__, 13);
  unsigned int n = 0;
  while (n < length && !endsDigits(text[n])) ++n;
  if (n != 14 && n != 12 && n != 10) return -1;
  for (unsigned int i = 0; i < n; ++i) {
    if (!isDigit(text[i])) {
      // The text comes from a peer: shown as hex and printable characters only.
      log.msg(__LINE__, 2, "DER decoding-error: not a time text: %s",
              derHexText(reinterpret_cast<const unsigned char*>(text), length, kMaxText).c_str());
      return -1;
    }
  }
  const char* p = text;
  if (n == 14) {
    type = kGeneralizedTime;
    year = pair(p) * 100 + pair(p + 2);
    p += 4;
  } else {
    type = kUtcTime;
    int yy = pair(p);
    year = yy < kUtcCenturyPivot ? 2000 + yy : 1900 + yy;
    p += 2;
  }
  month = pair(p);
  day = pair(p + 2);
  hour = pair(p + 4);
  minute = pair(p + 6);
  second = n == 10 ? -1 : pair(p + 8);
  tzHours = 0;
  tzMinutes = 0;
  fraction = 0;
  // Digits that run to the end of the text carry no zone and are read as GMT:
  // the library's own signer writes its signingTime attribute that way.
  char mark = n == length ? 'Z' : text[n];
  if (mark == '+' || mark == '-') {
    if (length != n + 5 || !isDigit(text[n + 1]) || !isDigit(text[n + 2]) ||
        !isDigit(text[n + 3]) || !isDigit(text[n + 4])) {
      return -1;
    }
    int sign = mark == '-' ? -1 : 1;
    tzHours = sign * pair(text + n + 1);
    tzMinutes = sign * pair(text + n + 3);
  } else if (mark == '.') {
    if (second == -1) return -1;
    unsigned int f = n + 1;
    std::string digits("0.");
    while (f < length && text[f] != 'Z') {
      if (!isDigit(text[f])) return -1;
      digits += text[f++];
    }
    if (f == n + 1 || f == length) return -1;  // no digit, or no 'Z'
    fraction = strtod(digits.c_str(), nullptr);
  } else if (mark != 'Z') {
    return -1;
  }
  // 'Z' ends the text; whatever follows it is not looked at.
  if (Log::getLevel(Log::kDebug)) log.msg(__LINE__, 9, "TIME %s", displayText().c_str());
  return 0;
}

void CAsn1time::print() const {
  Log log("CAsn1time", "print", __FILE__, __LINE__, 13);
  printf("%s\n", displayText().c_str());
}
