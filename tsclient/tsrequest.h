// tsrequest: the timestamp requester. Turns one local file into one stored
// RFC 3161 timestamp: hashes the file, sends a TimeStampReq for the hash to
// the configured Timestamp Server (HTTP or HTTPS POST through libcurl, or the
// raw RFC 3161 TCP transport), checks the TimeStampResp and writes it as one
// line of BASE64 into a timestamp file.
//
// A TsRequester holds one Timestamp Server configuration and its servers; the
// program makes one over the Environment its settings live in and configures
// it with initTimeStamper, initTsServer and initStamperAuth (optionally
// initSSLAuth), then makes any number of per-file requestTimestamp calls. The
// free functions below need no configuration.
// Results: 0 for success, distinct negative codes per failure (listed at each
// function); every failure is logged at level 2.
//
// The parts: the settings (tsclient/TsSettings.h), hashing (tsclient/TsHash.h), the
// exchange behind tsclient/TsTransport.h (tsclient/CurlTransport.h for HTTP and
// HTTPS, tsclient/TcpTransport.h for raw TCP) and the timestamp file
// (tsclient/TsResultFile.h). This header declares the designed interface; the
// hashing and timestamp file functions come with the headers it includes,
// openSocket with tsclient/TcpTransport.h.
//
// Threads: the init functions and getDigest run before any stamping (the
// configuration is not locked; the servers' holds and counts are). After
// that, computeHash, the exchange requestTimestamp(imprint, response) and
// fetchTimestamp may run on several threads at once; storeTimestamp and the
// per-file requestTimestamp too, for different targets.
//
// Time-outs (beyond what a plain RFC 3161 client does): every exchange is
// bounded by a connect time-out and a total time-out in seconds, read by
// initTsServer from the settings TS_CONNECT_TIMEOUT (default 10) and
// TS_TIMEOUT (default 60); a value that is no whole number from 1 to 2147483 is refused with a
// level 2 message and the default is used. The login and password never
// reach the log in any form: messages that would show them show "********"
// instead.
//
// Stops: once the worker's stop is requested (base/Stop.h), hashing gives up
// between blocks (-1) and an exchange is abandoned (-4) within about a
// second, whatever the time-outs say.
#ifndef TSCLIENT_TSREQUEST_H_
#define TSCLIENT_TSREQUEST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tsclient/CurlShare.h"
#include "tsclient/TsHash.h"
#include "tsclient/TsResultFile.h"
#include "tsclient/TsServers.h"
#include "tsclient/TsSettings.h"

class CAsn1messageImprint;
class Environment;
class Metrics;
class SettingsLine;
class CAsn1string;
class CAsn1ietfTSResp;

// The NID of the dotted OID, registered under sn/ln when OpenSSL does not
// know it yet; 0 on failure.
int getOrCreateOID(const char* oid, const char* sn, const char* ln);

// Logs OpenSSL's error queue at level 2 as one message and empties it.
void logOpenSslErrors();

// A random positive 64-bit nonce as INTEGER content octets. False when the
// random generator fails.
bool newNonce(std::vector<unsigned char>* nonce);

// Decodes response into resp. 0 when it decodes and the status is granted or
// grantedWithMods, else -1. (timestampCheck then judges the token.)
int timestampParse(CAsn1string* response, CAsn1ietfTSResp* resp);

// One worker's timestamp requester: the Timestamp Server settings and the
// servers an exchange may go to. Made and configured by the program before
// any stamping; a TsRequester is not copied.
class TsRequester {
 public:
  // initTsServer reads its settings from env; every exchange and server
  // attempt is counted in metrics. Both must outlive the requester.
  TsRequester(const Environment& env, Metrics& metrics)
      : env_(env), metrics_(metrics), servers_(metrics) {}
  TsRequester(const TsRequester&) = delete;
  TsRequester& operator=(const TsRequester&) = delete;

  // Registers the TSTInfo content type and the timestamp policy OIDs with
  // OpenSSL. 0 when both are known, 1 when either could not be registered.
  int initTimeStamper();

  // Sets the Timestamp Server: host, port, protocol ("http" and "https" go
  // through libcurl, anything else is the raw TCP transport) and URL path (null:
  // "/"). Also reads from the environment the time-out variables, the retry
  // and fallback settings (tsclient/TsServers.h), the digest (TS_HASHALG) and
  // the hashing threads (TS_HASH_THREADS), TS_VERFHOST, CURL_DEBUG,
  // QR_PREF_IP, and the request and check settings:
  //   TS_NONCE (switch): send a random 64-bit nonce; the answer must echo it.
  //   TS_CERTREQ (switch): ask for the signer certificate (certReq TRUE).
  //   TS_POLICY=<OID>: send reqPolicy; the answer's policy must equal it.
  //   TS_TRUST_CA=<PEM file or directory>: the signer must chain to these
  //     anchors as of genTime and carry the critical timeStamping usage.
  //   TS_TSA_CERTS=<PEM file>: signer and intermediate certificates for tokens
  //     that carry none.
  //   TS_CAFILE=<PEM file>: HTTPS checks the server's chain and host name.
  //   TS_RESPONSE_LIMIT=<bytes>: the answer size limit.
  // A url (TIMESTAMP_URL, an http or https URL) takes the place of host, port,
  // protocol and path and is posted exactly as written; http(s) fallback
  // entries are then URLs too.
  // 0; -1 (after a level 2 message) when one of these settings is given but
  // unusable (the rest of the configuration is set all the same).
  int initTsServer(const char* host, uint16_t port, const char* protocol, const char* path,
                   const char* url = nullptr);

  // Adds the Timestamp Server settings in effect to the start-up settings
  // line: server (URL, or host:port for raw TCP), protocol, digest, time-outs,
  // TLS checks and whether Basic credentials are set (never their value).
  void describeTimestampSettings(SettingsLine* line) const;

  // Sets the HTTP Basic credentials. -1 (and no credentials) when either is null.
  // A login or password that is not empty draws one level 4 warning when the
  // configured transport is plain HTTP or HTTPS without TS_CAFILE.
  int initStamperAuth(const char* login, const char* password);

  // Sets a DER client key and certificate for TLS client authentication. -1
  // (and none set) when either is null.
  int initSSLAuth(const char* keyFile, const char* certFile);

  // The whole job for one file: hash source, then fetchTimestamp, then
  // storeTimestamp. 0; -1 hashing failed; -2 .. -5 as those two return.
  int requestTimestamp(const char* source, const char* target);

  // The Timestamp Server's checked answer for imprint: the exchange (with a new
  // nonce under TS_NONCE), then timestampParse and timestampCheck. 0; -2
  // exchange failed ("Requesting timestamp failed"); -3 the answer is no
  // TimeStampResp, not granted, or fails timestampCheck ("Parsing timestamp
  // failed"). Nothing is written.
  int fetchTimestamp(CAsn1messageImprint* imprint, CAsn1string* response);

  // One exchange with the Timestamp Server for imprint; the answer's bytes go
  // into response (an OCTET STRING). 0; -1 the request or URL could not be
  // built; -4 transport error (curl error, time-out, no connection, send
  // failed, a stop); -5 HTTP status other than 200; -7 answer of 4096 bytes or more;
  // -8 nothing received; -9 the server answered 05 00 (not working); -10 a raw
  // TCP answer with a flag byte other than 5. With retries or fallback servers
  // configured it may make several attempts (tsclient/TsServers.h); the result and
  // the response are then those of the last one. The request carries nonce
  // (INTEGER content octets) when one is given and not empty.
  int requestTimestamp(CAsn1messageImprint* imprint, CAsn1string* response,
                       const std::vector<unsigned char>* nonce = nullptr);

  // Checks a granted answer against the request it answers (TokenCheck): the
  // token must be there and cover imprint, echo nonce (when not empty) and
  // carry the TS_POLICY policy (when set); its signature must hold when the
  // signer certificate is at hand, and with TS_TRUST_CA its chain. 0, or -1
  // after logging the reason at level 2 (an imprint mismatch names both
  // digests in hex).
  int timestampCheck(CAsn1messageImprint* imprint, CAsn1string* response,
                     const std::vector<unsigned char>& nonce) const;

  // The message digest files are hashed with (TS_HASHALG), set by initTsServer.
  int digest() const { return settings_.digestNid; }
  // The threads the files of one document are hashed on (hashFiles), set by
  // initTsServer.
  int hashThreads() const { return settings_.hashThreads; }

 private:
  const Environment& env_;
  Metrics& metrics_;
  TsSettings settings_;
  TsServers servers_;    // the primary, the fallbacks, their holds and counts
  CurlShare curlShare_;  // connections and TLS sessions of all HTTP(S) exchanges
};

// The system's text for an errno value; one of 256 characters or more is
// cut to 254.
std::string systemErrorText(int code);

#endif  // TSCLIENT_TSREQUEST_H_
