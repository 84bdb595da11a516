// tsrequest: the timestamp requester. Turns one local file into one stored
// RFC 3161 timestamp: hashes the file, sends a TimeStampReq for the hash to
// the configured Timestamp Server (HTTP or HTTPS POST through libcurl, or the
// raw RFC 3161 TCP transport), checks the TimeStampResp and writes it as one
// line of BASE64 into a timestamp file.
//
// A module of free functions over module-wide state: one Timestamp Server
// configuration per process, set by initTimeStamper, initTsServer and
// initStamperAuth (optionally initSSLAuth), then any number of per-file
// requestTimestamp calls. Results: 0 for success, distinct negative codes per
// failure (listed at each function); every failure is logged at level 2.
//
// Threads: the init functions and getDigest run before any stamping (the
// configuration is not locked). After that, computeHash, the exchange
// requestTimestamp(imprint, response) and fetchTimestamp may run on several
// threads at once; storeTimestamp and the per-file requestTimestamp too, for
// different targets. HTTP(S) exchanges share one libcurl share handle (open
// connections, name lookups, TLS sessions), so keep-alive and TLS session
// resumption work across exchanges and threads; each exchange still has an
// easy handle of its own. The raw TCP transport uses one connection per request.
//
// Time-outs (beyond what a plain RFC 3161 client does): every exchange is
// bounded by a connect time-out and a total time-out in seconds, read by
// initTsServer from TS_CONNECT_TIMEOUT (default 10) and TS_TIMEOUT (default
// 60); a value that is no whole number from 1 to 2147483 is refused with a
// level 2 message and the default is used. The login and password never
// reach the log in any form: messages that would show them show "********"
// instead.
//
// Stops: once the worker's stop is requested (base/Stop.h), hashing gives up
// between blocks (-1) and an exchange is abandoned (-4) within about a
// second, whatever the time-outs say.
#ifndef TSTL_TSREQUEST_H_
#define TSTL_TSREQUEST_H_

#include <cstddef>
#include <cstdint>
#include <vector>

class CAsn1messageImprint;
class SettingsLine;
class CAsn1string;
class CAsn1ietfTSResp;

// The receive buffer of one exchange.
struct ResponseBuffer {
  unsigned char* data;  // capacity bytes (plus one for a terminating NUL)
  uint64_t used;
  uint64_t capacity;  // the answer size limit (kResponseLimit unless TS_RESPONSE_LIMIT)
};

// Largest answer taken from a Timestamp Server unless TS_RESPONSE_LIMIT says
// otherwise (1024 to kMaxResponseLimit bytes); an answer that fills the
// buffer completely is rejected as too large.
constexpr uint64_t kResponseLimit = 4096;
constexpr uint64_t kMaxResponseLimit = 1024 * 1024;

// Registers the TSTInfo content type and the timestamp policy OIDs with
// OpenSSL. 0 when both are known, 1 when either could not be registered.
int initTimeStamper();

// The NID of the dotted OID, registered under sn/ln when OpenSSL does not
// know it yet; 0 on failure.
int getOrCreateOID(const char* oid, const char* sn, const char* ln);

// Logs OpenSSL's error queue at level 2 as one message and empties it.
void logOpenSslErrors();

// Sets the Timestamp Server: host, port, protocol ("http" and "https" go
// through libcurl, anything else is the raw TCP transport) and URL path (null:
// "/"). Also reads the time-out variables, the retry and fallback settings
// (tstl/TsServers.h), and the request and check settings:
//   TS_NONCE (switch): send a random 64-bit nonce; the answer must echo it.
//   TS_CERTREQ (switch): ask for the signer certificate (certReq TRUE).
//   TS_POLICY=<OID>: send reqPolicy; the answer's policy must equal it.
//   TS_TRUST_CA=<PEM file or directory>: the signer must chain to these
//     anchors as of genTime and carry the critical timeStamping usage.
//   TS_TSA_CERTS=<PEM file>: signer and intermediate certificates for tokens
//     that carry none.
//   TS_CAFILE=<PEM file>: HTTPS checks the server's chain and host name.
//   TS_RESPONSE_LIMIT=<bytes>: the answer size limit.
// 0; -1 (after a level 2 message) when one of these settings is given but
// unusable (the rest of the configuration is set all the same).
int initTsServer(const char* host, uint16_t port, const char* protocol, const char* path);

// Adds the Timestamp Server settings in effect to the start-up settings
// line: server (URL, or host:port for raw TCP), protocol, digest, time-outs,
// TLS checks and whether Basic credentials are set (never their value).
void describeTimestampSettings(SettingsLine* line);

// Sets the HTTP Basic credentials. -1 (and no credentials) when either is null.
// A login or password that is not empty draws one level 4 warning when the
// configured transport is plain HTTP or HTTPS without TS_CAFILE.
int initStamperAuth(const char* login, const char* password);

// Sets a DER client key and certificate for TLS client authentication. -1
// (and none set) when either is null.
int initSSLAuth(const char* keyFile, const char* certFile);

// The NID of the message digest chosen by TS_HASHALG ("RIPEMD160", "SHA1",
// "SHA256", "SHA384", "SHA512", "SHA3-256", "SHA3-512"; unset or anything
// else: SHA-256). Read once per process.
int getDigest();

// Hashes the regular file at path with digest nid into imprint. -1 when the
// file cannot be opened or read, is no regular file ("File <path> is no
// regular file", refused at once, without blocking on a FIFO or reading a
// device) or a stop was requested meanwhile; -2 when the digest is not usable.
int computeHash(const char* path, int nid, CAsn1messageImprint* imprint);

// The whole job for one file: hash source, then fetchTimestamp, then
// storeTimestamp. 0; -1 hashing failed; -2 .. -5 as those two return.
int requestTimestamp(const char* source, const char* target);

// The Timestamp Server's checked answer for imprint: the exchange (with a new
// nonce under TS_NONCE), then timestampParse and timestampCheck. 0; -2
// exchange failed ("Requesting timestamp failed"); -3 the answer is no
// TimeStampResp, not granted, or fails timestampCheck ("Parsing timestamp
// failed"). Nothing is written.
int fetchTimestamp(CAsn1messageImprint* imprint, CAsn1string* response);

// Writes the answer of fetchTimestamp for source as one line of BASE64 to
// target. 0; -4 BASE64 failed; -5 target cannot be written (a local
// failure, not the Timestamp Server's). The target is replaced through a
// temporary file and a rename, never written through a symbolic link; a
// failure leaves it as it was.
// With syncDirectory false the target's directory is not synced: the caller
// does that once for several targets (syncDirectoryOf, base/ReplaceFile.h)
// before it counts them as stored.
int storeTimestamp(CAsn1string* response, const char* source, const char* target,
                   bool syncDirectory = true);

// storeTimestamp in two steps, so that the writing and its sync can run on
// the threads that fetch while the renames keep statement order.
// prepareTimestamp writes and syncs the temporary file beside target (0, -4,
// -5; on failure nothing stays); commitTimestamp renames it over target (0 or
// -5); discardTimestamp removes a prepared file that will not be committed.
int prepareTimestamp(CAsn1string* response, const char* target);
int commitTimestamp(const char* source, const char* target, bool syncDirectory);
void discardTimestamp(const char* target);

// One exchange with the Timestamp Server for imprint; the answer's bytes go
// into response (an OCTET STRING). 0; -1 the request or URL could not be
// built; -4 transport error (curl error, time-out, no connection, send
// failed, a stop); -5 HTTP status other than 200; -7 answer of 4096 bytes or more;
// -8 nothing received; -9 the server answered 05 00 (not working); -10 a raw
// TCP answer with a flag byte other than 5. With retries or fallback servers
// configured it may make several attempts (tstl/TsServers.h); the result and
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
                   const std::vector<unsigned char>& nonce);

// A random positive 64-bit nonce as INTEGER content octets. False when the
// random generator fails.
bool newNonce(std::vector<unsigned char>* nonce);

// Decodes response into resp. 0 when it decodes and the status is granted or
// grantedWithMods, else -1. (timestampCheck then judges the token.)
int timestampParse(CAsn1string* response, CAsn1ietfTSResp* resp);

// BASE64 text of response in a new[]-allocated NUL-terminated *out (the
// caller delete[]s it). -1 and *out null on failure.
int timestamp2base64(CAsn1string* response, char** out);

// A TCP socket connected to host:port, or -1. Refused connections are tried
// again every second, up to 10 attempts and within the connect time-out.
int openSocket(const char* host, uint16_t port);

// libcurl callbacks, declared without curl's types (CURL is void, the info
// type and CURLcode are int-sized enums).
// Write callback: appends to the ResponseBuffer at buffer what fits; returns
// the number of bytes taken.
size_t collectResponse(void* data, size_t size, size_t count, void* buffer);
// Debug callback: logs each piece of curl's trace at level 10. Always 0.
int curldbg(void* handle, int type, char* data, size_t size, void* user);
// SSL context callback: does nothing. Always 0 (CURLE_OK).
int sslcb(void* curl, void* sslctx, void* user);

// The system's text for an errno value, in a buffer of the calling thread.
const char* systemErrorText(int code);

#endif  // TSTL_TSREQUEST_H_
