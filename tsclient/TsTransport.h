// TsTransport: how one DER TimeStampReq reaches one Timestamp Server and its
// answer comes back. CurlTransport speaks HTTP and HTTPS, TcpTransport the raw
// RFC 3161 TCP transport; the requester chooses by the server's protocol and
// judges what arrived the same way for both.
//
// Threads: a transport keeps nothing of an exchange; one object may serve
// exchanges on several threads at once.
#ifndef TSCLIENT_TSTRANSPORT_H_
#define TSCLIENT_TSTRANSPORT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tsclient/TsServers.h"

class Log;

// The receive buffer of one exchange.
struct ResponseBuffer {
  unsigned char* data;  // capacity bytes (plus one for a terminating NUL)
  uint64_t used;
  uint64_t capacity;  // the answer size limit
};

class TsTransport {
 public:
  TsTransport() = default;
  virtual ~TsTransport() = default;
  TsTransport(const TsTransport&) = delete;
  TsTransport& operator=(const TsTransport&) = delete;

  // Sends request to server and collects its answer into answer (at most
  // answer->capacity bytes), all within timeoutMs. 0 when the exchange ran to
  // its end, whatever arrived (possibly nothing); the answer's DER then starts
  // at *offset, and outcome->mayPass says that the answer was cut short on the
  // way. Else, after a level 2 message on log: -1 the request could not be
  // sent as built; -4 no connection, a transport error, a time-out or a stop;
  // -5 an HTTP status other than 200; -10 a raw TCP answer that is no valid
  // frame. *outcome then says whether the failure may pass.
  virtual int exchange(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
                       long long timeoutMs, ResponseBuffer* answer, unsigned int* offset,
                       TsAttempt* outcome) const = 0;
};

// Where an exchange goes, for messages: the URL (as sent) for HTTP(S),
// host:port for raw TCP. Credentials written into the host ("user:pw@host")
// show as kSecretMask.
std::string serverName(const TsServer& server);

// Whether server is reached through libcurl ("http", "https").
bool isHttpServer(const TsServer& server);

// Milliseconds of the steady clock, for deadlines.
long long steadyNowMs();

#endif  // TSCLIENT_TSTRANSPORT_H_
