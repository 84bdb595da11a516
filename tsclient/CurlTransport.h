// CurlTransport: the HTTP and HTTPS exchange through libcurl. The request is
// POSTed as application/timestamp-query to the server's url when it has one
// (exactly as written), else to "<protocol>://<host>:<port>/</<path>", the
// form the deployed servers expect, with HTTP Basic authorization when
// credentials are set and a client certificate when one is set.
//
// Every exchange has an easy handle of its own; all exchanges of one
// requester share its libcurl share handle (tsclient/CurlShare.h: open
// connections, name lookups, TLS sessions), so keep-alive and TLS session
// resumption work across exchanges and threads. A stop of the worker
// (base/Stop.h) abandons a transfer within about a second.
#ifndef TSCLIENT_CURLTRANSPORT_H_
#define TSCLIENT_CURLTRANSPORT_H_

#include "tsclient/TsTransport.h"

class CurlShare;
struct TsSettings;

class CurlTransport : public TsTransport {
 public:
  // settings and share are borrowed and must outlive the transport.
  CurlTransport(const TsSettings* settings, const CurlShare* share)
      : settings_(settings), share_(share) {}

  int exchange(Log& log, const TsServer& server, const std::vector<unsigned char>& request,
               long long timeoutMs, ResponseBuffer* answer, unsigned int* offset,
               TsAttempt* outcome) const override;

 private:
  const TsSettings* settings_;
  const CurlShare* share_;
};

#endif  // TSCLIENT_CURLTRANSPORT_H_
