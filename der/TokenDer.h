// Helpers shared by the signed token classes (ContentInfo, SignedData,
// SignerInfo, attributes, TSTInfo) and the TimeStampResp classes.
#ifndef DER_TOKENDER_H_
#define DER_TOKENDER_H_

#include "der/Der.h"

// NID of the TSTInfo content type, id-smime-ct-TSTInfo
// (1.2.840.113549.1.9.16.1.4); registered with OpenSSL as "TSTInfo" /
// "id-smime-ct-TSTInfo" when OpenSSL does not know it. 0 when that fails.
// The same NID the requester's initTimeStamper registers.
int tstInfoNid();

// Reads a length field and checks that the contents were received. An
// unreadable length is logged at level 2 as "DER size decoding-error at pos %d."
// (the position of the length field).
bool readTokenLength(DerReader& in, unsigned int* length);

#endif  // DER_TOKENDER_H_
