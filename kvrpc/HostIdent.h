// HostIdent: who this host is.
//
// The tool tells the KV where its callback service can be reached, so it needs
// its own host name and address. Both are computed once per process and kept.
// Not thread-safe on the first call; the worker calls these from its main
// thread only.
#ifndef KVRPC_HOSTIDENT_H_
#define KVRPC_HOSTIDENT_H_

#include <cstddef>

#include "base/Resolver.h"

// The configured host name (MY_HOST_NAME, else MYHOSTNAME) when not empty,
// else the system host name cut at its first '.' and lower-cased (ASCII).
const char* MY_HOST_NAME();

// The system host name as the system gives it (at most 256 characters).
const char* myFullHostName();

// The full host name cut at its first '.', letters A-Z lower-cased.
void shortHostName(const char* fullName, char* buf, size_t size);

// The own address list: the first of MY_HOST_NAME(), the full host name, the
// short host name and $KVHOST that resolves. When none does, logs at level 1
// and returns an empty list.
const HostAddressList& getMyInetAddr();

#endif  // KVRPC_HOSTIDENT_H_
