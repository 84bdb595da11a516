#include "rpc/Xdr.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "base/Log.h"
#include "base/RateLimit.h"

namespace {

const char kComponent[] = "xdr";

// Logs a decoded length too large to allocate, within the stream's limit.
void logTooLarge(const XDR* xdrs, long long nodesize) {
  int suppressed = 0;
  if (xdrs->x_refusals != nullptr && !xdrs->x_refusals->admit(&suppressed)) return;
  c_logmsg(kComponent, 2, "cannot allocate %lld bytes", nodesize);
  if (suppressed > 0) {
    c_logmsg(kComponent, 2, "cannot allocate ... suppressed %d times", suppressed);
  }
}

bool_t putUint32(XDR* xdrs, uint32_t v) {
  if (xdrs->x_handy < 4) return FALSE;
  uint32_t n = htonl(v);
  memcpy(xdrs->x_private, &n, 4);
  xdrs->x_private += 4;
  xdrs->x_handy -= 4;
  return TRUE;
}

bool_t getUint32(XDR* xdrs, uint32_t* v) {
  if (xdrs->x_handy < 4) return FALSE;
  uint32_t n;
  memcpy(&n, xdrs->x_private, 4);
  *v = ntohl(n);
  xdrs->x_private += 4;
  xdrs->x_handy -= 4;
  return TRUE;
}

// One 4-byte unit in the stream's direction; XDR_FREE has nothing to do.
bool_t xdrUint32(XDR* xdrs, uint32_t* v) {
  switch (xdrs->x_op) {
    case XDR_ENCODE:
      return putUint32(xdrs, *v);
    case XDR_DECODE:
      return getUint32(xdrs, v);
    case XDR_FREE:
      return TRUE;
  }
  return FALSE;
}

// Allocation of a decoded string or byte array: too large a request, or
// running out of memory, is a decoding failure.
char* allocDecoded(const XDR* xdrs, u_int nodesize) {
  if (nodesize > XDR_MAX_ALLOC) {
    logTooLarge(xdrs, nodesize);
    return nullptr;
  }
  char* p = static_cast<char*>(malloc(nodesize == 0 ? 1 : nodesize));
  if (p == nullptr) {
    c_logmsg(kComponent, 1, "Assertion botched: %s", "p != NULL");
    noMemMsg(kComponent, nodesize);
  }
  return p;
}

}  // namespace

void xdrmem_create(XDR* xdrs, caddr_t addr, u_int size, xdr_op op) {
  xdrs->x_op = op;
  xdrs->x_base = addr;
  xdrs->x_private = addr;
  xdrs->x_handy = size;
  xdrs->x_size = size;
  xdrs->x_refusals = nullptr;
}

u_int xdr_getpos(const XDR* xdrs) { return static_cast<u_int>(xdrs->x_private - xdrs->x_base); }

bool_t xdr_setpos(XDR* xdrs, u_int pos) {
  if (pos > xdrs->x_size) return FALSE;
  xdrs->x_private = xdrs->x_base + pos;
  xdrs->x_handy = xdrs->x_size - pos;
  return TRUE;
}

bool_t xdr_void(XDR*, void*) { return TRUE; }

bool_t xdr_u_int(XDR* xdrs, u_int* up) {
  uint32_t v = *up;
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *up = v;
  return TRUE;
}

bool_t xdr_int(XDR* xdrs, int* ip) {
  uint32_t v = static_cast<uint32_t>(*ip);
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *ip = static_cast<int32_t>(v);
  return TRUE;
}

bool_t xdr_int32_t(XDR* xdrs, int32_t* ip) { return xdr_int(xdrs, ip); }
bool_t xdr_uint32_t(XDR* xdrs, uint32_t* up) { return xdr_u_int(xdrs, up); }

bool_t xdr_long(XDR* xdrs, long* lp) {
  uint32_t v = static_cast<uint32_t>(*lp);
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *lp = static_cast<int32_t>(v);
  return TRUE;
}

bool_t xdr_u_long(XDR* xdrs, u_long* ulp) {
  uint32_t v = static_cast<uint32_t>(*ulp);
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *ulp = v;
  return TRUE;
}

bool_t xdr_short(XDR* xdrs, short* sp) {
  uint32_t v = static_cast<uint32_t>(static_cast<int32_t>(*sp));
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *sp = static_cast<short>(v);
  return TRUE;
}

bool_t xdr_u_short(XDR* xdrs, u_short* usp) {
  uint32_t v = *usp;
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *usp = static_cast<u_short>(v);
  return TRUE;
}

bool_t xdr_char(XDR* xdrs, char* cp) {
  uint32_t v = static_cast<uint32_t>(static_cast<int32_t>(*cp));
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *cp = static_cast<char>(v);
  return TRUE;
}

bool_t xdr_u_char(XDR* xdrs, u_char* ucp) {
  uint32_t v = *ucp;
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *ucp = static_cast<u_char>(v);
  return TRUE;
}

bool_t xdr_bool(XDR* xdrs, bool_t* bp) {
  uint32_t v = *bp ? 1 : 0;
  if (!xdrUint32(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *bp = v ? TRUE : FALSE;
  return TRUE;
}

bool_t xdr_enum(XDR* xdrs, enum_t* ep) { return xdr_int(xdrs, ep); }

bool_t xdr_u_hyper(XDR* xdrs, uint64_t* hp) {
  uint32_t hi = static_cast<uint32_t>(*hp >> 32), lo = static_cast<uint32_t>(*hp);
  if (!xdrUint32(xdrs, &hi) || !xdrUint32(xdrs, &lo)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *hp = (static_cast<uint64_t>(hi) << 32) | lo;
  return TRUE;
}

bool_t xdr_hyper(XDR* xdrs, int64_t* hp) {
  uint64_t v = static_cast<uint64_t>(*hp);
  if (!xdr_u_hyper(xdrs, &v)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *hp = static_cast<int64_t>(v);
  return TRUE;
}

bool_t xdr_opaque(XDR* xdrs, caddr_t cp, u_int cnt) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  const uint64_t padded = (static_cast<uint64_t>(cnt) + 3) & ~uint64_t{3};
  if (padded > xdrs->x_handy) return FALSE;
  const u_int pad = static_cast<u_int>(padded - cnt);
  if (xdrs->x_op == XDR_DECODE) {
    if (cnt) memcpy(cp, xdrs->x_private, cnt);
  } else {
    if (cnt) memcpy(xdrs->x_private, cp, cnt);
    memset(xdrs->x_private + cnt, 0, pad);
  }
  xdrs->x_private += padded;
  xdrs->x_handy -= static_cast<u_int>(padded);
  return TRUE;
}

bool_t xdr_bytes(XDR* xdrs, char** cpp, u_int* sizep, u_int maxsize) {
  char* sp = *cpp;
  if (xdrs->x_op == XDR_FREE) {
    free(sp);
    *cpp = nullptr;
    return TRUE;
  }
  if (!xdr_u_int(xdrs, sizep)) return FALSE;
  const u_int nodesize = *sizep;
  if (nodesize > maxsize) return FALSE;
  if (xdrs->x_op == XDR_DECODE) {
    if (nodesize == 0) return TRUE;
    if (nodesize > xdrs->x_handy) return FALSE;  // cannot be there: do not allocate
    if (sp == nullptr) {
      sp = allocDecoded(xdrs, nodesize);
      if (sp == nullptr) return FALSE;
      *cpp = sp;
    }
  }
  return xdr_opaque(xdrs, sp, nodesize);
}

bool_t xdr_string(XDR* xdrs, char** cpp, u_int maxsize) {
  char* sp = *cpp;
  u_int size = 0;
  switch (xdrs->x_op) {
    case XDR_FREE:
      free(sp);
      *cpp = nullptr;
      return TRUE;
    case XDR_ENCODE:
      if (sp == nullptr) return FALSE;
      size = static_cast<u_int>(strlen(sp));
      if (size > maxsize) return FALSE;
      break;
    case XDR_DECODE:
      break;
  }
  if (!xdr_u_int(xdrs, &size)) return FALSE;
  if (size > maxsize) return FALSE;
  if (xdrs->x_op == XDR_DECODE) {
    const uint64_t nodesize = static_cast<uint64_t>(size) + 1;
    if (nodesize > XDR_MAX_ALLOC) {
      logTooLarge(xdrs, static_cast<long long>(nodesize));
      return FALSE;
    }
    if (size > xdrs->x_handy) return FALSE;  // cannot be there: do not allocate
    if (sp == nullptr) {
      sp = allocDecoded(xdrs, static_cast<u_int>(nodesize));
      if (sp == nullptr) return FALSE;
      *cpp = sp;
    }
    sp[size] = '\0';
  }
  return xdr_opaque(xdrs, sp, size);
}

bool_t xdr_wrapstring(XDR* xdrs, char** cpp) { return xdr_string(xdrs, cpp, ~0u); }

bool_t xdr_vector(XDR* xdrs, char* basep, u_int nelem, u_int elemsize, xdrproc_t elproc) {
  char* elptr = basep;
  for (u_int i = 0; i < nelem; ++i) {
    if (!elproc(xdrs, elptr)) return FALSE;
    elptr += elemsize;
  }
  return TRUE;
}

void xdr_free(xdrproc_t proc, void* objp) {
  XDR x;
  xdrmem_create(&x, nullptr, 0, XDR_FREE);
  proc(&x, objp);
}
