// RPC message headers (RFC 5531): the call header and the three kinds of
// reply, shared by the client and the service side of the runtime. Internal
// to rpc/; callers use Clnt.h and Svc.h.
#ifndef RPC_RPCMSG_H_
#define RPC_RPCMSG_H_

#include "rpc/RpcTypes.h"
#include "rpc/Xdr.h"

#define RPC_MSG_VERSION 2

enum msg_type : int { CALL = 0, REPLY = 1 };
enum reply_stat : int { MSG_ACCEPTED = 0, MSG_DENIED = 1 };
enum accept_stat : int {
  SUCCESS = 0,
  PROG_UNAVAIL = 1,
  PROG_MISMATCH = 2,
  PROC_UNAVAIL = 3,
  GARBAGE_ARGS = 4,
  SYSTEM_ERR = 5
};
enum reject_stat : int { RPC_MISMATCH = 0, AUTH_ERROR = 1 };

// A decoded call header. The credential and verifier bodies point into the
// decoded buffer.
struct rpc_call_hdr {
  uint32_t xid;
  u_int rpcvers;
  u_int prog;
  u_int vers;
  u_int proc;
  opaque_auth cred;
  opaque_auth verf;
};

// Encodes a call header with AUTH_NONE credential and verifier.
bool_t rpcmsg_encode_call(XDR* xdrs, uint32_t xid, u_int prog, u_int vers, u_int proc);
// Decodes a call header (message type CALL); FALSE for anything else or a
// credential longer than MAX_AUTH_BYTES.
bool_t rpcmsg_decode_call(XDR* xdrs, rpc_call_hdr* hdr);

// What a reply says, for encoding (service) and after decoding (client).
struct rpc_reply_parts {
  reply_stat stat = MSG_ACCEPTED;
  accept_stat astat = SUCCESS;       // MSG_ACCEPTED
  reject_stat rstat = RPC_MISMATCH;  // MSG_DENIED
  auth_stat why = AUTH_OK;           // AUTH_ERROR
  u_int low = 0;                     // PROG_MISMATCH, RPC_MISMATCH
  u_int high = 0;
  xdrproc_t results = nullptr;  // SUCCESS: encodes the results
  void* where = nullptr;
};

// Encodes a whole reply; the results (if any) through parts.results.
bool_t rpcmsg_encode_reply(XDR* xdrs, uint32_t xid, const rpc_reply_parts& parts);
// Decodes a reply header after its xid and message type; on an accepted
// SUCCESS reply the stream is left at the results.
bool_t rpcmsg_decode_reply_body(XDR* xdrs, rpc_reply_parts* parts);

#endif  // RPC_RPCMSG_H_
