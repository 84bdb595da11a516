// CAsn1time: UTCTime and GeneralizedTime.
// ASN.1: UTCTime ::= [UNIVERSAL 23] IMPLICIT VisibleString; GeneralizedTime ::= [UNIVERSAL 24] ...
//
// Text forms read: YYMMDDhhmm[ss] (UTCTime) or YYYYMMDDhhmmss (GeneralizedTime),
// then 'Z', "+hhmm"/"-hhmm", (with seconds) '.' fraction digits and 'Z', or
// nothing at all (read as GMT, the form the local signer writes).
// Two-digit years below 51 are 20YY, the others 19YY ("50" is 2050).
#ifndef DER_CASN1TIME_H_
#define DER_CASN1TIME_H_

#include <string>

#include "der/CAsn1object.h"
#include "der/CAsn1size.h"

class CAsn1time : public CAsn1object {
 public:
  static constexpr int kUtcTime = 23;
  static constexpr int kGeneralizedTime = 24;
  // Time texts of this length or longer are refused.
  static constexpr int kMaxText = 80;

  CAsn1time() = default;

  // Identifier = type, length, text. -1 for a type other than 23 or 24.
  // GeneralizedTime is always written in GMT whatever the offsets hold.
  int getDER(DerWriter& out) const override;
  // Identifier 0x17 or 0x18, a text shorter than 80 octets, then setVal.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;
  // 0 for an unknown type.
  unsigned int getSize() const override;

  // Parses a time text; the type follows from the number of digits, not
  // from any identifier. 0, or -1 when the text is not a time.
  int setVal(const char* text, unsigned int length);
  // The DER text ("991231235959Z"); empty for an unknown type.
  std::string derText() const;
  // "1999-12-31 23:59:59 GMT", "2004-01-02 03:04 GMT+0130".
  std::string displayText() const;
  // The display text and a newline on standard output.
  void print() const;

  int year = 0;  // four digits
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;   // -1 = absent
  int tzHours = 0;  // signed offset from GMT
  int tzMinutes = 0;
  double fraction = 0;  // of a second; 0 = none
  int type = kGeneralizedTime;
  CAsn1size textLength;  // as setDER read it
};

#endif  // DER_CASN1TIME_H_
