// Basic types of the ONC RPC runtime (RFC 5531 / RFC 4506).
//
// The runtime is our own implementation with the classic names. Its headers
// are deliberately not called types.h/xdr.h/clnt.h/svc.h, so that a test peer
// built with the system library (libtirpc, <rpc/rpc.h>) never picks up one of
// ours by accident. Never include the system's <rpc/rpc.h> next to these
// headers, and never link libtirpc into a program that uses this runtime: the
// symbols clash.
#ifndef RPC_RPCTYPES_H_
#define RPC_RPCTYPES_H_

#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>

typedef int bool_t;
typedef int enum_t;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// Passed as the socket of a client or service: let the runtime create one.
#define RPC_ANYSOCK (-1)

// Authentication flavours; this runtime sends AUTH_NONE and accepts
// AUTH_NONE, AUTH_SYS and AUTH_SHORT credentials without checking them.
enum { AUTH_NONE = 0, AUTH_SYS = 1, AUTH_UNIX = 1, AUTH_SHORT = 2 };
#define MAX_AUTH_BYTES 400

struct opaque_auth {
  enum_t oa_flavor;
  caddr_t oa_base;  // borrowed, not owned
  u_int oa_length;
};

enum auth_stat : int {
  AUTH_OK = 0,
  AUTH_BADCRED = 1,
  AUTH_REJECTEDCRED = 2,
  AUTH_BADVERF = 3,
  AUTH_REJECTEDVERF = 4,
  AUTH_TOOWEAK = 5,
  AUTH_INVALIDRESP = 6,
  AUTH_FAILED = 7
};

#endif  // RPC_RPCTYPES_H_
