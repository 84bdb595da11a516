// TimestampFile: checks a timestamp file as the worker writes it (one line,
// the BASE64 text of a DER TimeStampResp) with OpenSSL against the data file
// and the test Timestamp Server's CA and TSA certificate.
#ifndef TESTING_TIMESTAMPFILE_H_
#define TESTING_TIMESTAMPFILE_H_

#include <openssl/evp.h>

#include <string>

#include "testing/TempDir.h"
#include "testing/TestTsa.h"

namespace testing_support {

// The bytes of a BASE64 text without line ends; empty when it is not BASE64.
inline std::string decodeBase64Line(const std::string& text) {
  if (text.empty() || text.size() % 4 != 0) return std::string();
  std::string out(text.size() / 4 * 3, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) return std::string();
  size_t pad = text[text.size() - 1] == '=' ? (text[text.size() - 2] == '=' ? 2 : 1) : 0;
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

// "" when tstFile holds one BASE64 line whose TimeStampResp verifies for the
// content of dataFile; else what went wrong.
inline std::string verifyTimestampFile(const std::string& tstFile, const std::string& dataFile,
                                       const TestTsa& tsa) {
  if (!fileExists(tstFile)) return "no timestamp file " + tstFile;
  std::string text = readFile(tstFile);
  if (text.find_first_of("\r\n") != std::string::npos) return "line end in " + tstFile;
  std::string der = decodeBase64Line(text);
  if (der.empty()) return "no BASE64 in " + tstFile;
  return verifyTimestampResponse(der, dataFile, tsa.caFile(), tsa.tsaCertFile());
}

}  // namespace testing_support

#endif  // TESTING_TIMESTAMPFILE_H_
