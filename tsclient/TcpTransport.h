// TcpTransport: the raw RFC 3161 TCP transport. One connection per request:
// connect (refused connections are tried again, within the connect
// time-out), send one frame, receive until the server closes the connection,
// the buffer is full or the time is up. A stop of the worker (base/Stop.h)
// ends the connect and the receive at once.
//
// The framing is two pure functions, so that recorded answers can be judged
// without a socket.
#ifndef TSCLIENT_TCPTRANSPORT_H_
#define TSCLIENT_TCPTRANSPORT_H_

#include <cstdint>
#include <vector>

#include "tsclient/TsSettings.h"
#include "tsclient/TsTransport.h"

// The frame of a request: a 4-byte big-endian length (that of der plus the
// flag byte), the flag tsaMsg (0), then der.
std::vector<unsigned char> tcpRequestFrame(const std::vector<unsigned char>& der);

// What a received raw TCP answer holds.
struct TcpReply {
  int result;           // 0, or -10 when it is no valid frame
  unsigned int offset;  // where the answer's bytes start
  bool cutShort;        // the frame announces more bytes than arrived
};

// Judges the used bytes that arrived in a buffer of capacity bytes. A frame
// is a 4-byte length, the flag finalMsgRep (5) and the answer; the two bytes
// 05 00 (the server is not working) stand for themselves (offset 0). A frame
// with another flag, and 1 to 5 bytes other than 05 00, are no valid frame.
// Bytes beyond the announced length stay part of the answer; nothing at all
// is left for the caller to judge. A full buffer is never cut short.
TcpReply readTcpReply(const unsigned char* data, uint64_t used, uint64_t capacity);

// A TCP socket connected to host:port, or -1. The host's addresses are
// ordered by preference (resolveHost, base/Resolver.h). Refused connections
// are tried again every second, up to 10 attempts and within connectTimeoutS.
int openSocket(const char* host, uint16_t port, int preference,
               long connectTimeoutS = kDefaultConnectTimeoutS);

class TcpTransport : public TsTransport {
 public:
  // preference: the address family tried first (resolveHost).
  TcpTransport(long connectTimeoutS, int preference)
      : connectTimeoutS_(connectTimeoutS), preference_(preference) {}

  int exchange(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
               long long timeoutMs, ResponseBuffer* answer, unsigned int* offset,
               TsAttempt* outcome) const override;

 private:
  long connectTimeoutS_;
  int preference_;
};

#endif  // TSCLIENT_TCPTRANSPORT_H_
