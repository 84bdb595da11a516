// TsaServer: a small RFC 3161 Timestamp Server for tests and local runs.
//
// Answers timestamp requests with tokens built on OpenSSL's TS and CMS code
// (TokenMaker), so its replies are an independent reference for the
// requester, in the shapes of real servers when asked. Three listeners on
// one address: HTTP, HTTPS (OpenSSL TLS with a CA-signed localhost
// certificate) and the raw RFC 3161 TCP transport (4-byte big-endian length,
// one flag byte, the DER message). Every HTTP request path is accepted.
//
// A fault mode makes every answer wrong in one chosen way, so clients can be
// tested against broken servers. Good HTTP answers keep the connection open
// (keep-alive). Each connection runs on a thread of its own; the token maker
// is shared under a mutex. run() returns when stop() was
// called (from a signal handler too: it only sets a flag).
#ifndef TOOLS_TESTTSA_TSASERVER_H_
#define TOOLS_TESTTSA_TSASERVER_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/testtsa/TokenMaker.h"
#include "tools/testtsa/TsaPki.h"

struct ssl_ctx_st;

namespace testtsa {

enum class Fault {
  kNone,
  kHttp500,     // HTTP: status 500 with a short text body (raw TCP answers normally)
  kReject,      // a TimeStampResp with PKIStatus rejection (2) and a status text
  kNotWorking,  // the two bytes 05 00 (HTTP body, or the whole raw TCP answer)
  kBody4096,    // exactly 4096 bytes (HTTP body, or the whole raw TCP answer)
  kBodyLarge,   // 8192 bytes
  kBadFlag,     // raw TCP: flag byte 6 instead of 5 (HTTP answers normally)
  kHang,        // read the request, never answer, keep the connection open
  kGarbage,     // bytes that are no DER TimeStampResp, framed correctly
  kEmpty,       // HTTP: 200 with an empty body; raw TCP: close without a byte
  // Granted answers whose token proves nothing:
  kOtherImprint,  // the token covers another digest than the request's
  kReplay,        // the previous answer again (the first request is answered right)
  kBadSignature,  // one octet of the signature value inverted
  kNoCert,        // no certificate in the token, even when the request asks for them
  kNoEku,         // signed by a certificate without the timeStamping usage
  kExpired,       // signed by a certificate that expired before genTime
  kTrailing,      // a good answer with 8 bytes after it (inside the raw TCP frame)
};

// "none", "http500", "reject", "notworking", "body4096", "bodylarge", "badflag",
// "hang", "garbage", "empty", "otherimprint", "replay", "badsignature",
// "nocert", "noeku", "expired", "trailing". Returns false for an unknown name.
bool parseFault(const std::string& name, Fault* fault);

struct TsaOptions {
  std::string bindAddress = "127.0.0.1";
  int httpPort = 0;  // 0: an ephemeral port; -1: no listener
  int httpsPort = 0;
  int tcpPort = 0;
  bool requireAuth = false;  // demand HTTP Basic login:password
  std::string login;
  std::string password;
  TokenShape shape;   // the fault fields are set from fault
  SignerProfile signer;  // the certificate fields are set from fault
  Fault fault = Fault::kNone;
  int delayMs = 0;  // hold every answer this long, like a far-away server
  // Only the first this many requests get a fault of the answer's transport
  // (http500, notworking, body4096, bodylarge, badflag, hang, garbage,
  // empty), later ones a timestamp; -1: all. Faults of the token stay.
  long faultCount = -1;
};

class TsaServer {
 public:
  TsaServer(const TsaOptions& options, TsaPki* pki);  // pki: borrowed, outlives the server
  ~TsaServer();
  TsaServer(const TsaServer&) = delete;
  TsaServer& operator=(const TsaServer&) = delete;

  // Sets up the response context, the TLS context and binds the listeners.
  bool start(std::string* error);
  // The bound ports (-1 for a listener that is off); valid after start().
  int httpPort() const { return ports_[0]; }
  int httpsPort() const { return ports_[1]; }
  int tcpPort() const { return ports_[2]; }
  // PEM file of the signing certificate and its intermediate; valid after start().
  const std::string& signerCertFile() const { return signer_.certFile; }
  // Accepts connections until stop().
  void run();
  void stop() { stopping_ = true; }

 private:
  enum Transport { kHttp = 0, kHttps = 1, kTcp = 2 };
  class Stream;
  class PlainStream;
  class TlsStream;

  bool listenOn(int port, int* fd, int* boundPort, std::string* error);
  void serveConnection(Transport transport, int fd);
  // One HTTP request and its answer. true when the connection stays open for
  // another (HTTP/1.1, no "Connection: close", no fault mode); first: the
  // connection's first request.
  bool serveHttp(Stream* stream, const char* name, bool first);
  void serveTcp(Stream* stream);
  // DER TimeStampResp for a DER TimeStampReq, shaped by the options.
  std::string makeResponse(const std::string& request);
  // The fault for the request in hand (counts it against faultCount).
  Fault nextFault();
  std::string faultBody(size_t size, const std::string& valid) const;
  void hang();
  // Waits delayMs (or until stop) before an answer goes out.
  void holdAnswer();
  void note(const std::string& line);

  TsaOptions options_;
  TsaPki* pki_;
  ssl_ctx_st* sslCtx_ = nullptr;
  Signer signer_;
  std::unique_ptr<TokenMaker> maker_;
  std::mutex respMutex_;  // guards maker_ and lastAnswer_
  std::string lastAnswer_;
  std::atomic<long> faulted_{0};  // requests counted against faultCount
  std::mutex noteMutex_;
  std::atomic<bool> stopping_{false};
  int listenFds_[3] = {-1, -1, -1};
  int ports_[3] = {-1, -1, -1};
  std::string expectedAuth_;  // "Basic " + BASE64(login:password)
};

}  // namespace testtsa

#endif  // TOOLS_TESTTSA_TSASERVER_H_
