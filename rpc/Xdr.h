// XDR (RFC 4506): the memory stream and the primitives.
//
// One stream type exists: a cursor over a caller-owned buffer that knows its
// end, so decoding never reads (and encoding never writes) past it. Every
// routine works in the three directions of the stream (XDR_ENCODE,
// XDR_DECODE, XDR_FREE) and returns TRUE on success, FALSE at the first
// element that does not fit or does not decode.
//
// Strings and byte arrays decoded into a null pointer are allocated with
// malloc (length + 1 bytes for strings, NUL-terminated) and released by the
// same routine with XDR_FREE (or xdr_free), which also clears the pointer.
// Not thread-safe per stream; streams share no state.
#ifndef RPC_XDR_H_
#define RPC_XDR_H_

#include "rpc/RpcTypes.h"

enum xdr_op : int { XDR_ENCODE = 0, XDR_DECODE = 1, XDR_FREE = 2 };

#define BYTES_PER_XDR_UNIT 4
#define RNDUP(x) ((((x) + BYTES_PER_XDR_UNIT - 1) / BYTES_PER_XDR_UNIT) * BYTES_PER_XDR_UNIT)

// Largest string or byte array the decoder allocates (including the NUL).
#define XDR_MAX_ALLOC 0x8000000u

class RateLimit;

struct XDR {
  xdr_op x_op;
  char* x_base;     // first byte of the buffer (borrowed)
  char* x_private;  // next byte to read or write
  u_int x_handy;    // bytes left after x_private
  u_int x_size;     // size of the buffer
  // Holds back the log lines of lengths refused as too large to allocate
  // (borrowed); null: each is logged. A service decodes requests anyone can
  // send with its own limit (rpc/Svc.h), at most 20 lines a minute with a
  // "... suppressed N times" line.
  RateLimit* x_refusals;
};

// The generic routine type. Record routines have the form
// bool_t xdr_rec(XDR*, rec*); pass them as xdr_proc<xdr_rec>, which adapts
// the pointer type without a function-pointer cast.
typedef bool_t (*xdrproc_t)(XDR*, void*);

template <typename T>
struct XdrRoutineArg;
template <typename T>
struct XdrRoutineArg<bool_t (*)(XDR*, T*)> {
  using type = T;
};
template <auto F>
bool_t xdr_proc(XDR* xdrs, void* objp) {
  return F(xdrs, static_cast<typename XdrRoutineArg<decltype(F)>::type*>(objp));
}

// Makes a stream over size bytes at addr, without a limit of refusal lines.
void xdrmem_create(XDR* xdrs, caddr_t addr, u_int size, xdr_op op);
// Bytes consumed or produced so far.
u_int xdr_getpos(const XDR* xdrs);
// Moves the cursor; FALSE when pos lies beyond the buffer.
bool_t xdr_setpos(XDR* xdrs, u_int pos);
// Memory streams own nothing; kept for the classic call sequence.
inline void xdr_destroy(XDR*) {}
#define XDR_DESTROY(xdrs) xdr_destroy(xdrs)

// Primitives. short, u_short, char, u_char and bool travel as a full 4-byte
// int; long and u_long as 4 bytes (values are truncated to 32 bits).
bool_t xdr_void(XDR* xdrs, void* unused);
bool_t xdr_int(XDR* xdrs, int* ip);
bool_t xdr_u_int(XDR* xdrs, u_int* up);
bool_t xdr_int32_t(XDR* xdrs, int32_t* ip);
bool_t xdr_uint32_t(XDR* xdrs, uint32_t* up);
bool_t xdr_long(XDR* xdrs, long* lp);
bool_t xdr_u_long(XDR* xdrs, u_long* ulp);
bool_t xdr_short(XDR* xdrs, short* sp);
bool_t xdr_u_short(XDR* xdrs, u_short* usp);
bool_t xdr_char(XDR* xdrs, char* cp);
bool_t xdr_u_char(XDR* xdrs, u_char* ucp);
bool_t xdr_bool(XDR* xdrs, bool_t* bp);
bool_t xdr_enum(XDR* xdrs, enum_t* ep);
bool_t xdr_hyper(XDR* xdrs, int64_t* hp);
bool_t xdr_u_hyper(XDR* xdrs, uint64_t* hp);

// Fixed-length opaque data: cnt bytes, padded to a multiple of 4, no length word.
bool_t xdr_opaque(XDR* xdrs, caddr_t cp, u_int cnt);
// Variable-length opaque data of at most maxsize bytes.
bool_t xdr_bytes(XDR* xdrs, char** cpp, u_int* sizep, u_int maxsize);
// A string of at most maxsize characters. A length beyond maxsize fails in
// every direction; encoding a null string fails.
bool_t xdr_string(XDR* xdrs, char** cpp, u_int maxsize);
// An unbounded string.
bool_t xdr_wrapstring(XDR* xdrs, char** cpp);
// A fixed array of nelem elements of elemsize bytes, each through elproc.
bool_t xdr_vector(XDR* xdrs, char* basep, u_int nelem, u_int elemsize, xdrproc_t elproc);

// Releases what a decode allocated inside *objp (not objp itself).
void xdr_free(xdrproc_t proc, void* objp);

#endif  // RPC_XDR_H_
