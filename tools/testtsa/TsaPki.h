// TsaPki: the throwaway certificates of the test Timestamp Server.
//
// A self-signed CA, a timestamping certificate (critical extended key usage
// timeStamping) and a TLS server certificate for localhost / 127.0.0.1 / ::1,
// both signed by the CA. They are created in a directory, or loaded from it when
// an earlier run left them there, so several server processes can share one CA.
// Keys are written unencrypted: nothing here is meant to protect anything.
//
// Besides the default timestamping certificate, signers shaped like those of
// real servers are made on demand (loadOrCreateSigner): other key types, an
// intermediate CA between the CA and the signer, long serial numbers, and the
// broken ones (no timeStamping usage, expired).
#ifndef TOOLS_TESTTSA_TSAPKI_H_
#define TOOLS_TESTTSA_TSAPKI_H_

#include <string>
#include <vector>

#include "tools/testtsa/CertMaker.h"

namespace testtsa {

struct TsaPki {
  X509Ptr caCert;
  EvpPkeyPtr caKey;
  X509Ptr tsaCert;
  EvpPkeyPtr tsaKey;
  X509Ptr tlsCert;
  EvpPkeyPtr tlsKey;
  // PEM files in the directory (certificates; keys sit beside them as *-key.pem).
  std::string caFile;
  std::string tsaCertFile;
  std::string tlsCertFile;
};

struct SignerProfile {
  KeyKind key = KeyKind::kRsa;
  bool intermediate = false;  // issued by an intermediate CA under the CA
  int serialBytes = 0;        // certificate serials of this many octets; 0: small ones
  bool timeStamping = true;   // false: the certificate has no extended key usage at all
  bool expired = false;       // validity ended a day ago
};

// One signer: its certificate and key, the CA certificates above it up to and
// including the root, and the PEM file with the certificate followed by the
// intermediate (what a verifier needs as untrusted certificates).
struct Signer {
  X509Ptr cert;
  EvpPkeyPtr key;
  std::vector<X509Ptr> issuers;  // nearest first; the CA last
  std::string certFile;
};

// The signer of profile, from dir (pki's directory) or made and written there.
// The default profile is pki's own timestamping certificate.
bool loadOrCreateSigner(const TsaPki& pki, const SignerProfile& profile, Signer* signer,
                        std::string* error);

// Loads the six PEM files from dir, or creates and writes all of them when any
// is missing. Returns false with a reason in *error.
bool loadOrCreatePki(const std::string& dir, TsaPki* pki, std::string* error);

}  // namespace testtsa

#endif  // TOOLS_TESTTSA_TSAPKI_H_
