// KvMiniXdr: the KV protocol's records as the KV emulator sees them, with XDR
// routines written against the system's ONC RPC library (libtirpc). They are
// deliberately independent of the worker's own kvrpc/ code, so that a test
// between the two proves the wire format rather than agreement with itself.
#ifndef TOOLS_KVMINI_KVMINIXDR_H_
#define TOOLS_KVMINI_KVMINIXDR_H_

#include <rpc/rpc.h>

#include <cstdint>

namespace kvmini {

constexpr unsigned long kKvProg = 20231190;  // plus the program offset
constexpr unsigned long kKvVers = 2;
constexpr unsigned long kToolProg = 20231191;  // never offset
constexpr unsigned long kToolVers = 1;

enum KvProc { kHi = 1, kBye = 2, kOp = 3, kInfo = 5, kAlive = 8, kCrt = 10 };
enum ToolProc { kToolNull = 0, kToolWork = 1, kToolCtrl = 2, kToolInfo = 3 };

// The worker's address record. family is kept as the wire carried it.
struct Address {
  uint16_t family;
  uint16_t port;  // the value on the wire: the worker's port in host order
  uint8_t bytes[16];
};

struct Hello {
  Address address;
  char* type;
};

struct OpReport {
  Address address;
  char* document;  // at most 128
  char* text2;     // at most 60
  char* text3;     // at most 128
};

struct CrtRequest {
  char* type;  // at most 25
  Address address;
  char* path;
  char* operation;
  char* comment;
};

struct Order {
  int number;
  char* text;
};

// True for the five family numbers that mean IPv6 (Windows 23, Linux 10,
// HP-UX 22, AIX 24, Solaris 26): those carry 16 address bytes.
bool isIpv6Family(uint16_t family);

bool_t xdrAddress(XDR* xdrs, Address* a);
bool_t xdrHello(XDR* xdrs, Hello* h);
bool_t xdrOpReport(XDR* xdrs, OpReport* r);
bool_t xdrCrtRequest(XDR* xdrs, CrtRequest* r);
bool_t xdrOrder(XDR* xdrs, Order* o);

}  // namespace kvmini

#endif  // TOOLS_KVMINI_KVMINIXDR_H_
