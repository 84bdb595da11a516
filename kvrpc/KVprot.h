// The KV protocol: program, version and procedure numbers of the KV's
// program and of the tool's callback program, the records they carry with
// their XDR routines, and the three code vocabularies (registration results,
// result-report codes, control codes) with their texts.
//
// Records own their strings (malloc'ed, NUL-terminated). Each xdr_* routine
// works in the three directions of the stream; before decoding it clears the
// record's string pointers, so the decoder allocates fresh strings, which
// xdr_free(xdr_proc<xdr_rec>, &rec) releases. Strings must not be null when
// encoding. Pass the routines to the runtime as xdr_proc<xdr_hello_kl>.
#ifndef KVRPC_KVPROT_H_
#define KVRPC_KVPROT_H_

#include "base/String.h"
#include "rpc/Xdr.h"

// The KV's program; RPC_OFFSET is added to this number (and only to this one).
#define KVPROG 20231190u
#define KVVERS 2u
#define KVPROC_HI 1u
#define KVPROC_BYE 2u
#define KVPROC_OP 3u
#define KVPROC_INFO 5u
#define KVPROC_ALIVE 8u
#define KVPROC_CRT 10u
#define KV_DEFAULT_PORT 4032

// The tool's callback program; never offset.
#define TOOLPROG 20231191u
#define TOOLVERS 1u
#define TOOLPROC_NULL 0u
#define TOOLPROC_WORK 1u
#define TOOLPROC_CTRL 2u
#define TOOLPROC_INFO 3u

// Address families as the KV numbers them on the wire.
#define KL_AF_INET 2
#define KL_AF_INET6 23

// Bounds of the bounded strings.
#define KL_DOCUMENT_MAX 128
#define KL_STATUS_MAX 60
#define KL_COMMENT_MAX 128
#define KL_TYPE_MAX 25

// The tool's network address. IPv4 uses the first 4 address bytes (network
// order), IPv6 all 16. On the wire: family (short), port (unsigned short),
// then 16 opaque bytes for IPv6 or 4 opaque bytes and 8 chars of filler.
struct sockaddr_kl {
  u_short family;
  u_short port;  // host byte order
  char address[16];
};

// Registration; argument of hello, info, alive and bye. Wire order: address, type.
struct hello_kl {
  char* type;
  sockaddr_kl address;
};

// Result report of an order.
struct op_kl {
  sockaddr_kl address;
  char* document;  // at most 128
  char* status;    // at most 60
  char* comment;   // at most 128
};

// Asks the KV to create a document.
struct crt_kl {
  char* type;  // at most 25
  sockaddr_kl address;
  char* path;
  char* operation;
  char* comment;
};

// Argument of every procedure of the tool's program.
struct order_kl {
  int number;
  char* text;
};

// Records of the protocol that this tool neither sends nor receives.
struct note_kl {
  int number;
  char* text;
};
struct report_kl {
  sockaddr_kl address;
  char* document;  // at most 128
  char* status;    // at most 60
  char* comment;   // at most 128
};
struct pair_kl {
  int first;
  int second;
  char* text;
};
struct texts_kl {
  char* text1;
  char* text2;
  char* text3;
  char* text4;
};
struct peer_kl {
  sockaddr_kl address;
  char* type;  // at most 25
};

bool_t xdr_sockaddr_kl(XDR* xdrs, sockaddr_kl* objp);
bool_t xdr_hello_kl(XDR* xdrs, hello_kl* objp);
bool_t xdr_op_kl(XDR* xdrs, op_kl* objp);
bool_t xdr_crt_kl(XDR* xdrs, crt_kl* objp);
bool_t xdr_order_kl(XDR* xdrs, order_kl* objp);
bool_t xdr_note_kl(XDR* xdrs, note_kl* objp);
bool_t xdr_report_kl(XDR* xdrs, report_kl* objp);
bool_t xdr_pair_kl(XDR* xdrs, pair_kl* objp);
bool_t xdr_texts_kl(XDR* xdrs, texts_kl* objp);
bool_t xdr_peer_kl(XDR* xdrs, peer_kl* objp);

// Registration result codes (-1..-5) and result-report codes (0..7).
#define KV_NOTNEEDED (-1)
#define KV_NOHOST (-2)
#define KV_TIMEOUT (-3)
#define KV_BADSVC (-4)
#define KV_NOSVC (-5)
#define KVOP_OK 0
#define KVOP_NOCONNECT 1
#define KVOP_MISCERR 2
#define KVOP_CONFERR 3
#define KVOP_SYNCERR 4
#define KVOP_NOHI 5
#define KV_NOSWITCH 6
#define KVOP_BLOCKED 7

// Control codes (number of TOOLPROC_CTRL).
enum KVctrl {
  KVctrlLIVE = 1,
  KVctrlPRINTLIST = 2,
  KVctrlREADDIR = 3,
  KVctrlREADCF = 4,
  KVctrlEXIT = 5,
  KVctrlSTOPTOOL = 6,
  KVctrlFORCETOOL = 7,
  KVctrlSETSTOPNULL = 8,
  KVctrlSETEXITGONE = 9,
  KVctrlSHUTDOWN = 10,
  KVctrlENABLE = 11,
  KVctrlDISABLE = 12,
  KVctrlLOGLEVEL = 13,
  KVctrlSLEEP = 14,
  KVctrlMESSAGE = 15,
  KVctrlCut = 16,
  KVctrlHiStatus = 17,
  KVctrlSTARTTOOL = 18
};

// The message of a registration or result-report code; "not implemented KV
// error" for any other code. A constant text.
const char* KVstringError(int code);

// Names a code of a kind (1 registration results, 2 result-report codes,
// 3 control codes). Code 0: returns 0 and leaves text unchanged. Otherwise
// sets text and returns 1: the name, "unknown error <code>" for a code
// without a name in its kind, "unknown type <code>" for any other kind.
int KVcodeName(int code, int kind, String& text);

#endif  // KVRPC_KVPROT_H_
