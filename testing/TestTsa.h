// TestTsa: runs the test Timestamp Server (tools/testtsa) as a child process
// on loopback and reads the ports and certificate files it prints.
//
// The server creates a throwaway CA, TSA and TLS certificate in dir (a fresh
// temporary directory unless given) and answers on ephemeral HTTP, HTTPS and
// raw TCP ports. It is stopped with SIGTERM when the object goes away.
#ifndef TESTING_TESTTSA_H_
#define TESTING_TESTTSA_H_

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"

namespace testing_support {

struct TestTsaOptions {
  std::string dir;       // certificate directory; empty: the server makes one
  std::string fault;     // fault mode name (see testtsa --help); empty: none
  long faultCount = -1;  // only the first this many requests get the fault; -1: all
  bool requireAuth = false;
  std::string login;  // with requireAuth: the Basic credentials it demands
  std::string password;
  std::string bindAddress;             // numeric address to listen on; empty: 127.0.0.1
  std::vector<std::string> extraArgs;  // token shape options (see testtsa --help)
};

class TestTsa {
 public:
  // program: path of the testtsa binary (testTsaProgram() in tests).
  explicit TestTsa(const std::string& program, const TestTsaOptions& options = {});
  ~TestTsa();
  TestTsa(const TestTsa&) = delete;
  TestTsa& operator=(const TestTsa&) = delete;

  // True when the server printed "ready" with all its settings.
  bool ready() const { return ready_; }
  int httpPort() const { return port("http_port"); }
  int httpsPort() const { return port("https_port"); }
  int tcpPort() const { return port("tcp_port"); }
  int portFor(const std::string& protocol) const { return port(protocol + "_port"); }
  std::string caFile() const { return value("ca_file"); }
  std::string tsaCertFile() const { return value("tsa_cert"); }
  // Stops the server and returns its request log (standard error). Later
  // calls return the same text.
  std::string stop();

 private:
  std::string value(const std::string& key) const;
  int port(const std::string& key) const;

  std::unique_ptr<BackgroundChild> child_;
  // Reads the request log as it comes: a server whose log pipe is full
  // stops answering.
  std::thread logReader_;
  std::string logBuffer_;  // written by logReader_ only until it is joined
  std::map<std::string, std::string> values_;
  bool ready_ = false;
  std::string log_;
};

// The one check of a timestamp by OpenSSL itself: "openssl ts -verify" of a
// DER TimeStampResp against the data file and the CA, with the signer's
// certificate file (and intermediates) as untrusted ones unless empty.
// Returns "" when it verifies, else openssl's output, which says why not.
std::string verifyTimestampResponse(const std::string& responseDer, const std::string& dataFile,
                                    const std::string& caFile,
                                    const std::string& untrustedFile = "");

// The server's DER answer to "openssl ts -query -data dataFile -sha256"
// (with -cert when certReq), asked over its raw TCP port; empty on failure.
std::string requestOverTcp(const TestTsa& tsa, const std::string& dataFile, bool certReq);

#ifdef CLOCKETTE_BINARY_DIR
inline std::string testTsaProgram() { return CLOCKETTE_BINARY_DIR "/tools/testtsa/testtsa"; }
#endif

}  // namespace testing_support

#endif  // TESTING_TESTTSA_H_
