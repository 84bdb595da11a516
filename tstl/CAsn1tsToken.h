// CAsn1tsToken: the common base of the library's timestamp answers. It adds
// nothing to CAsn1object; callers that hold "some timestamp" use it.
#ifndef TSTL_CASN1TSTOKEN_H_
#define TSTL_CASN1TSTOKEN_H_

#include "tstl/CAsn1object.h"

class CAsn1tsToken : public CAsn1object {};

#endif  // TSTL_CASN1TSTOKEN_H_
