#include "rpc/RpcMsg.h"

namespace {

bool_t putU(XDR* xdrs, u_int v) { return xdr_u_int(xdrs, &v); }

// A null authentication (flavor AUTH_NONE, empty body).
bool_t putNullAuth(XDR* xdrs) { return putU(xdrs, AUTH_NONE) && putU(xdrs, 0); }

// An opaque_auth whose body is left in the buffer and pointed to.
bool_t getAuth(XDR* xdrs, opaque_auth* auth) {
  u_int flavor = 0, len = 0;
  if (!xdr_u_int(xdrs, &flavor) || !xdr_u_int(xdrs, &len)) return FALSE;
  if (len > MAX_AUTH_BYTES) return FALSE;
  const u_int padded = RNDUP(len);
  if (padded > xdrs->x_handy) return FALSE;
  auth->oa_flavor = static_cast<enum_t>(flavor);
  auth->oa_base = xdrs->x_private;
  auth->oa_length = len;
  xdrs->x_private += padded;
  xdrs->x_handy -= padded;
  return TRUE;
}

}  // namespace

bool_t rpcmsg_encode_call(XDR* xdrs, uint32_t xid, u_int prog, u_int vers, u_int proc) {
  return putU(xdrs, xid) && putU(xdrs, CALL) && putU(xdrs, RPC_MSG_VERSION) && putU(xdrs, prog) &&
         putU(xdrs, vers) && putU(xdrs, proc) && putNullAuth(xdrs) && putNullAuth(xdrs);
}

bool_t rpcmsg_decode_call(XDR* xdrs, rpc_call_hdr* hdr) {
  u_int type = 0;
  if (!xdr_u_int(xdrs, &hdr->xid) || !xdr_u_int(xdrs, &type) || type != CALL) return FALSE;
  return xdr_u_int(xdrs, &hdr->rpcvers) && xdr_u_int(xdrs, &hdr->prog) &&
         xdr_u_int(xdrs, &hdr->vers) && xdr_u_int(xdrs, &hdr->proc) && getAuth(xdrs, &hdr->cred) &&
         getAuth(xdrs, &hdr->verf);
}

bool_t rpcmsg_encode_reply(XDR* xdrs, uint32_t xid, const rpc_reply_parts& parts) {
  if (!putU(xdrs, xid) || !putU(xdrs, REPLY) || !putU(xdrs, parts.stat)) return FALSE;
  if (parts.stat == MSG_DENIED) {
    if (!putU(xdrs, parts.rstat)) return FALSE;
    if (parts.rstat == RPC_MISMATCH) return putU(xdrs, parts.low) && putU(xdrs, parts.high);
    return putU(xdrs, parts.why);
  }
  if (!putNullAuth(xdrs) || !putU(xdrs, parts.astat)) return FALSE;
  switch (parts.astat) {
    case SUCCESS:
      return parts.results == nullptr || parts.results(xdrs, parts.where);
    case PROG_MISMATCH:
      return putU(xdrs, parts.low) && putU(xdrs, parts.high);
    default:
      return TRUE;
  }
}

bool_t rpcmsg_decode_reply_body(XDR* xdrs, rpc_reply_parts* parts) {
  u_int stat = 0;
  if (!xdr_u_int(xdrs, &stat)) return FALSE;
  if (stat == MSG_DENIED) {
    parts->stat = MSG_DENIED;
    u_int rstat = 0;
    if (!xdr_u_int(xdrs, &rstat)) return FALSE;
    parts->rstat = static_cast<reject_stat>(rstat);
    if (rstat == RPC_MISMATCH) return xdr_u_int(xdrs, &parts->low) && xdr_u_int(xdrs, &parts->high);
    u_int why = 0;
    if (!xdr_u_int(xdrs, &why)) return FALSE;
    parts->why = static_cast<auth_stat>(why);
    return TRUE;
  }
  if (stat != MSG_ACCEPTED) return FALSE;
  parts->stat = MSG_ACCEPTED;
  opaque_auth verf;
  u_int astat = 0;
  if (!getAuth(xdrs, &verf) || !xdr_u_int(xdrs, &astat)) return FALSE;
  parts->astat = static_cast<accept_stat>(astat);
  if (astat == PROG_MISMATCH) return xdr_u_int(xdrs, &parts->low) && xdr_u_int(xdrs, &parts->high);
  return TRUE;
}
