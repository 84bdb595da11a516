// CAsn1tsToken: the common base of the library's timestamp answers. It adds
// nothing to CAsn1object; callers that hold "some timestamp" use it.
#ifndef DER_CASN1TSTOKEN_H_
#define DER_CASN1TSTOKEN_H_

#include "der/CAsn1object.h"

class CAsn1tsToken : public CAsn1object {};

#endif  // DER_CASN1TSTOKEN_H_
