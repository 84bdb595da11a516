// KVclient: the tool's calls to the KV: registration (KVhi, KVinfo),
// result reports (KVop), document creation (KVcrt, KVcrt2), keep-alive and
// goodbye.
//
// One KvClient per worker, made by its program with the Environment its
// settings live in: it keeps the registration client, the registration
// record, the time-outs, the KV port, the settings it read (getEnv), the
// host's identity (HostIdent.h), who may call back (KvSenders.h) and the tool
// service (ToolService.h) they call, whose sockets the first KVhi/KVinfo
// creates and which serves while the client lives.
// Results: 0 for success, -1 to -5 for registration failures (KVstringError
// gives their texts), 1 when a call itself failed, otherwise the KV's answer.
// Single-threaded: called from the worker's main thread.
//
// Settings, read once by getEnv: kavletHOST and kavletTYPE replace the
// host and type the caller passes; KLCTO is "total[/retry]" in seconds (default
// 60/2); RPC_OFFSET is added to the KV's program number (never to the tool's);
// KVPORT sets the KV's port (default 4032) unless KVSetPort was called first.
// At each registration: KV_ACCEPT_FROM (KvSenders.h), QR_PREF_IP
// (base/Resolver.h); KV_ORDER_PORT when the tool service is made.
#ifndef KVRPC_KVCLIENT_H_
#define KVRPC_KVCLIENT_H_

#include <sys/time.h>

#include <cstdint>
#include <string>

#include "base/Environment.h"
#include "kvrpc/HostIdent.h"
#include "kvrpc/KVprot.h"
#include "kvrpc/KvSenders.h"
#include "kvrpc/ToolService.h"

class Log;
struct CLIENT;

// The own host's address could not be found (logged by HostIdent): the
// result of KVhi, KVinfo, KVconnect and KVcrt that cannot tell the KV where
// this tool is.
constexpr int kKvOwnAddressUnknown = -6;

// Where the last client (KVclnt_create) was meant to reach the KV: host
// (after kavletHOST), port, and, when the host could not be resolved, the
// resolver's reason (else empty). For messages that tell the operator where
// to look.
struct KVtarget {
  std::string host;
  uint16_t port = 0;
  std::string resolverError;
};

class KvClient {
 public:
  // env: where the settings are read, borrowed for the client's life. They
  // are read at the first call that needs them, not here.
  explicit KvClient(const Environment& env);
  // Drops a registration that got no goodbye (nothing is sent).
  ~KvClient();
  KvClient(const KvClient&) = delete;
  KvClient& operator=(const KvClient&) = delete;

  // Registers the tool as a worker of type with the KV on host ("DEBUG":
  // simulation, nothing is sent). Creates the callback service on first use and
  // hands its work orders and control messages to handler (borrowed; null
  // keeps the handler in place). Returns the service socket (>= 0), or -1
  // (type not needed), -2 (host unknown), -3 (no answer), -4 (client creation),
  // -5 (service creation), kKvOwnAddressUnknown.
  int KVhi(const char* host, const char* type, ToolHandler* handler);

  // Registers the tool for information messages, which go to handler
  // (borrowed; null: they are refused). Returns the service socket or -1 to
  // -4 (-1 also when the service cannot be made).
  int KVinfo(const char* host, const char* type, ToolHandler* handler);

  // The registration exchange of KVhi (opOrInfo 1) and KVinfo (0): tells the KV
  // on host that a tool of type serves on servicePort. Returns 0, -1 to -4 or
  // kKvOwnAddressUnknown.
  int KVconnect(const char* host, const char* type, uint16_t servicePort, int opOrInfo);

  // Reports the result of the order on document. Texts longer than their
  // fields (128, 60, 128 bytes) are shortened to fit, marked by "...": the
  // document keeps its end (logged at level 2), the others their start.
  // Returns the KV's result-report code (0 = ok), or 1 when the call failed.
  int KVop(const char* document, const char* text2, const char* text3);

  // Asks the KV on hostname to create the document path, over a client of its
  // own. Sets the client's time-outs to 15 s total / 2 s retry for every later
  // call. Returns 0 (accepted), the KV's refusal code, 1 (call failed), -2 or -4.
  int KVcrt(const char* hostname, const char* type, const char* path, const char* operation,
            const char* comment);

  // The same through the registration client (only after a successful KVhi).
  // Returns the KV's answer or 1.
  int KVcrt2(const char* path, const char* operation, const char* comment);

  // Tells the KV that the tool is alive: sent once, no answer awaited.
  void KValive();
  // Says goodbye and drops the registration; afterwards the default handler
  // is in place again, so a late control message ends the process.
  void KVbye();
  // Fixes the KV's port; KVPORT no longer overrides it.
  void KVSetPort(uint16_t port);

  // Makes a UDP client for the KV's program on host:port, retransmitting every
  // retry interval. Returns 0 with *client set, -2 (host unknown) or -4.
  int KVclnt_create(const char* host, uint16_t port, CLIENT** client);

  // Reads the settings above; only the first call does anything.
  void getEnv();

  // Where the last client was meant to reach the KV.
  KVtarget KVlastTarget() const;

  // The callback service: its port, its loop.
  ToolService& service() { return service_; }
  // Who this host is, as announced to the KV.
  HostIdent& hostIdent() { return host_; }

 private:
  struct State {
    CLIENT* registration = nullptr;
    hello_kl hello{};
    std::string helloType;  // owns hello.type's characters
    int totalTimeout = 60;
    int retryInterval = 2;
    // One value shared by every call, changed by client creation (retry), the
    // registration (total) and KVcrt; later calls inherit what the last one set.
    timeval sharedTimeout{0, 0};
    uint16_t kvPort = KV_DEFAULT_PORT;
    bool portFixed = false;
    long programOffset = 0;
    std::string hostOverride, typeOverride;
    bool hostOverridden = false, typeOverridden = false;
    bool simulation = false;
    bool envRead = false;
    KVtarget lastTarget;
  };

  void applyOverrides(Log& log, const char** host, const char** type);
  // The start of KVhi and KVinfo (caller): simulation for the host "DEBUG",
  // and the callback service, created when none exists yet. false (logged)
  // when it cannot be made.
  bool startService(Log& log, const char* host, const char* caller);
  // The own address (first address of the host) with port 0; false when the
  // host's address is unknown.
  bool ownAddress(sockaddr_kl* own);

  const Environment& env_;
  State state_;
  HostIdent host_;
  // Who may call the callback service; made at registration, checked by
  // the service for as long as it serves.
  KvSenders senders_;
  // Checks callers against senders_, so it goes first.
  ToolService service_;
};

#endif  // KVRPC_KVCLIENT_H_
