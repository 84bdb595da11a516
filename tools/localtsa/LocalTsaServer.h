// LocalTsaServer: a small HTTP Timestamp Server whose answers are signed by
// the library's own local signer (generateTimestamp), so that the worker can
// be run end to end against our signer instead of OpenSSL's TSA code.
//
// Any request path is accepted; a POST body is a DER TimeStampReq and the
// answer is the DER TimeStampResp (Content-Type application/timestamp-reply).
// The signer certificate goes into the token when the request asks for it
// (certReq). One connection at a time, one request per connection; a client
// that stalls is cut off after a time-out. Runs on the calling thread until
// stop() (async-signal-safe) is called.
#ifndef TOOLS_LOCALTSA_LOCALTSASERVER_H_
#define TOOLS_LOCALTSA_LOCALTSASERVER_H_

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class UniqueFd;

namespace localtsa {

struct ServerOptions {
  std::string bindAddress = "127.0.0.1";  // numeric IPv4 or IPv6 address
  int httpPort = 0;                       // 0: ephemeral
  std::string keyFile;                    // signer key (PEM without password)
  std::string certFile;                   // signer certificate (PEM)
  int ioTimeoutSeconds = 10;              // per read/write on a connection
  bool signingTimeWithZone = false;       // see LocalTimestampOptions
  bool ignoreValidityDates = false;       // see LocalTimestampOptions
};

// What an HTTP exchange answered: status code and body.
struct Answer {
  int status = 500;
  std::string contentType = "text/plain";
  std::vector<unsigned char> body;
};

// Signs an answer for one DER TimeStampReq (exposed for tests): 200 with the
// response, 400 for a body that is no TimeStampReq, 500 when signing fails.
Answer answerTimestampRequest(const std::vector<unsigned char>& request, const std::string& keyFile,
                              const std::string& certFile);

class LocalTsaServer {
 public:
  explicit LocalTsaServer(const ServerOptions& options);
  ~LocalTsaServer();
  LocalTsaServer(const LocalTsaServer&) = delete;
  LocalTsaServer& operator=(const LocalTsaServer&) = delete;

  // Binds and listens. False with *error on failure.
  bool start(std::string* error);
  int httpPort() const { return port_; }
  // Serves until stop().
  void run();
  void stop() { stopping_ = true; }

 private:
  void serve(int fd);

  ServerOptions options_;
  std::unique_ptr<UniqueFd> listen_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
};

}  // namespace localtsa

#endif  // TOOLS_LOCALTSA_LOCALTSASERVER_H_
