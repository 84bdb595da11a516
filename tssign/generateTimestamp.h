// generateTimestamp: the library acting as a Timestamp Authority of its own.
// Signs a TimeStampResp for a message imprint locally with a key and its
// certificate, instead of asking a Timestamp Server. Part of the requester
// module (log component "zpTrequest"); the timestamping tool does not use it.
#ifndef TSSIGN_GENERATETIMESTAMP_H_
#define TSSIGN_GENERATETIMESTAMP_H_

class CAsn1messageImprint;
class CAsn1string;
class Environment;

struct LocalTimestampOptions {
  // Adds the signingCertificateV2 attribute (SHA-256 of the signer's
  // certificate, with its issuer and serial number) to the signed attributes.
  // RFC 3161 requires it, and OpenSSL's verifier refuses tokens without it
  // ("missing signing certificate attribute").
  bool signingCertificate = true;
  // Puts the signer's certificate into the token, as a TSA does when the
  // request asked for it (certReq); otherwise verifiers need the certificate
  // from elsewhere.
  bool includeCertificate = false;
  // Writes the signing time as "YYMMDDhhmmssZ". By default it is written the
  // library's way, "YYMMDDhhmmss" without a zone designator; OpenSSL accepts
  // that, but the library's own time decoder refuses a time without zone, so
  // the requester cannot read such tokens back. For peers that need it.
  bool signingTimeWithZone = false;
  // Signs with a certificate whose validity does not cover the generation
  // time (IgnoreCertificateValidyDates, see ignoreValidityDatesWanted).
  bool ignoreValidityDates = false;
};

// IgnoreCertificateValidyDates in env: only exactly "on", "yes" or "1" turn
// the date check off (not the usual truth-value rule).
bool ignoreValidityDatesWanted(const Environment& env);

// Builds and signs a granted TimeStampResp for imprint: generation and
// signing time now, the library's timestamp policy (1.3.6.1.4.1.7359.1.2), a
// random serial number, the signer referenced by issuer and serial number,
// the signed attributes hashed and signed with the imprint's digest. No nonce
// is put into the TSTInfo. keyFile holds the signer's private key (PEM
// without password, or the proprietary format under an empty password),
// certFile its PEM certificate. On success *response holds the DER response
// as an OCTET STRING and the result is 0. Failures:
//   -1 "Can't read certificate from %s"
//   -2 "Can't read signature key from %s"
//   -3 "Can't retrive public RSA key from certificate" (or DSA)
//   -4 "RSA key doesn't match certificate" (or DSA); nothing has been signed
//   -5 "Error adding certificate reference" (certificate not valid now,
//      unless options.ignoreValidityDates)
//   -6 "Can't retrieve to-be-signed data"
//   -7 "Error signing timestamp"
//   -8 "Error serializing timestamp to DER" (also: more than 4096 octets)
int generateTimestamp(const CAsn1messageImprint& imprint, const char* keyFile, const char* certFile,
                      CAsn1string* response,
                      const LocalTimestampOptions& options = LocalTimestampOptions());

#endif  // TSSIGN_GENERATETIMESTAMP_H_
