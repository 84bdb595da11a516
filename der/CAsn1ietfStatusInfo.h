// CAsn1ietfStatusInfo: the PKIStatusInfo in front of every TimeStampResp.
// ASN.1: PKIStatusInfo ::= SEQUENCE { status PKIStatus (INTEGER),
//   statusString PKIFreeText (SEQUENCE OF UTF8String) OPTIONAL,
//   failInfo PKIFailureInfo (BIT STRING) OPTIONAL }
//
// Of the PKIFreeText only the first text is kept (later ones are logged);
// a bare PrintableString in its place is accepted too. Encoding writes the
// text as one bare string of its own type, not as a PKIFreeText. A value type.
#ifndef DER_CASN1IETFSTATUSINFO_H_
#define DER_CASN1IETFSTATUSINFO_H_

#include <string>

#include "der/CAsn1bitString.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1object.h"
#include "der/CAsn1string.h"
#include "der/Der.h"

class CAsn1ietfStatusInfo : public CAsn1object {
 public:
  CAsn1ietfStatusInfo() = default;

  // 30, length, status, the status string when not empty, the failure info
  // when it has bits.
  int getDER(DerWriter& out) const override;
  // Ends after the PKIStatusInfo. A fault in the first PKIFreeText element
  // fails; a fault in a later one only ends the text list.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // The status string as text (empty when there is none).
  std::string statusText() const;
  // The set PKIFailureInfo bits by name, "badAlg, badDataFormat"; a bit
  // without a name as "bit 9"; empty when none is set.
  std::string failInfoNames() const;

  CAsn1integer status;
  CAsn1string statusString{kTagUtf8String};
  CAsn1bitString failInfo;

 private:
  int readFreeText(const unsigned char* buffer, unsigned int* pos, unsigned int end);
  int readPrintableString(const unsigned char* buffer, unsigned int* pos, unsigned int end);
  int readFailureInfo(const unsigned char* buffer, unsigned int* pos, unsigned int end);
};

#endif  // DER_CASN1IETFSTATUSINFO_H_
