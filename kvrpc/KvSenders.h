// KvSenders: who may call the tool's callback service.
//
// Work orders and control messages (one of which ends the worker) are
// carried out only when they come from the KV: from an address that the KV
// host resolves to. KV_ACCEPT_FROM=<host>[,<host>...] adds the addresses of
// more hosts; KV_ACCEPT_FROM=any lets everyone call. Calls from elsewhere are
// dropped without a reply and logged at level 3 (a few lines a minute, then
// a "... suppressed N times" line).
//
// A KV on a loopback address may send from 127.0.0.1 or ::1 whatever address
// its host name has (the system picks those as the source), so with a
// loopback KV address both count as the KV's. That lets in no one new: every
// local process can send from the KV's loopback address anyway.
//
// The set is made at registration (KVconnect) and kept; before that, and in
// simulation, every caller is served. Main thread only.
#ifndef KVRPC_KVSENDERS_H_
#define KVRPC_KVSENDERS_H_

#include <sys/socket.h>

struct SVCXPRT;

// Makes the set from the KV host (as resolved now) and KV_ACCEPT_FROM.
// Names that do not resolve are logged at level 2 and left out.
void KVsetSenders(const char* kvHost);

// True when a call from addr is to be carried out.
bool KVsenderAccepted(const sockaddr* addr, socklen_t len);

// The check of the tool service's transports (rpc/Svc.h): KVsenderAccepted on
// the caller of the current request; logs the calls it refuses.
int ToolSenderCheck(SVCXPRT* xprt);

#endif  // KVRPC_KVSENDERS_H_
