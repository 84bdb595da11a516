#include "kvrpc/KVprot.h"

#include <cstdio>

#include "base/Log.h"

namespace {

const char kComponent[] = "libkavlet";

const char* clientKind(int family) {
  switch (family) {
    case 23:
      return "IPv6 windows client";
    case 22:
      return "IPv6 HP-UX client";
    case 26:
      return "IPv6 Solaris client";
    case 24:
      return "IPv6 AIX client";
    case 10:
      return "IPv6 Linux client";
  }
  return "unknown client";
}

// The IPv6 family numbers of other systems; the KV knows IPv6 as 23.
bool isForeignIpv6(int family) {
  return family == 10 || family == 22 || family == 24 || family == 26;
}

bool_t xdrStrings(XDR* xdrs, std::initializer_list<std::pair<char**, u_int>> strings) {
  for (const auto& s : strings)
    if (!xdr_string(xdrs, s.first, s.second)) return FALSE;
  return TRUE;
}

// Before decoding, forget what a record's strings pointed to, so the decoder
// allocates fresh ones.
void clearForDecode(XDR* xdrs, std::initializer_list<char**> strings) {
  if (xdrs->x_op != XDR_DECODE) return;
  for (char** s : strings) *s = nullptr;
}

const u_int kUnbounded = ~0u;

}  // namespace

bool_t xdr_sockaddr_kl(XDR* xdrs, sockaddr_kl* objp) {
  if (xdrs->x_op == XDR_FREE) return TRUE;  // owns nothing
  short family = static_cast<short>(objp->family);
  if (!xdr_short(xdrs, &family)) return FALSE;
  u_short fam = static_cast<u_short>(family);
  c_logmsg(kComponent, 9, "us_family=%d (%s)", fam, clientKind(fam));
  if (isForeignIpv6(fam)) {
    fam = KL_AF_INET6;
    c_logmsg(kComponent, 9, "us_family changed to %d (AF_INET6)", fam);
  }
  // Also when encoding: the wire keeps the family given, the record ends with 23.
  objp->family = fam;

  if (!xdr_u_short(xdrs, &objp->port)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) {
    // Swapped on decode only; the KV's records and their readers depend on it.
    objp->port = static_cast<u_short>((objp->port >> 8) | (objp->port << 8));
  }

  if (fam == KL_AF_INET6) return xdr_opaque(xdrs, objp->address, 16);
  if (!xdr_opaque(xdrs, objp->address, 4)) return FALSE;
  for (int i = 0; i < 8; ++i) {
    char filler = 0;  // meaningless; written as 0, read and dropped
    if (!xdr_char(xdrs, &filler)) return FALSE;
  }
  return TRUE;
}

bool_t xdr_hello_kl(XDR* xdrs, hello_kl* objp) {
  clearForDecode(xdrs, {&objp->type});
  return xdr_sockaddr_kl(xdrs, &objp->address) && xdr_string(xdrs, &objp->type, kUnbounded);
}

bool_t xdr_op_kl(XDR* xdrs, op_kl* objp) {
  clearForDecode(xdrs, {&objp->document, &objp->status, &objp->comment});
  return xdr_sockaddr_kl(xdrs, &objp->address) &&
         xdrStrings(xdrs, {{&objp->document, KL_DOCUMENT_MAX},
                           {&objp->status, KL_STATUS_MAX},
                           {&objp->comment, KL_COMMENT_MAX}});
}

bool_t xdr_crt_kl(XDR* xdrs, crt_kl* objp) {
  clearForDecode(xdrs, {&objp->type, &objp->path, &objp->operation, &objp->comment});
  return xdr_string(xdrs, &objp->type, KL_TYPE_MAX) && xdr_sockaddr_kl(xdrs, &objp->address) &&
         xdrStrings(xdrs, {{&objp->path, kUnbounded},
                           {&objp->operation, kUnbounded},
                           {&objp->comment, kUnbounded}});
}

bool_t xdr_order_kl(XDR* xdrs, order_kl* objp) {
  clearForDecode(xdrs, {&objp->text});
  return xdr_int(xdrs, &objp->number) && xdr_string(xdrs, &objp->text, kUnbounded);
}

bool_t xdr_note_kl(XDR* xdrs, note_kl* objp) {
  clearForDecode(xdrs, {&objp->text});
  return xdr_int(xdrs, &objp->number) && xdr_string(xdrs, &objp->text, kUnbounded);
}

bool_t xdr_report_kl(XDR* xdrs, report_kl* objp) {
  clearForDecode(xdrs, {&objp->document, &objp->status, &objp->comment});
  return xdr_sockaddr_kl(xdrs, &objp->address) &&
         xdrStrings(xdrs, {{&objp->document, KL_DOCUMENT_MAX},
                           {&objp->status, KL_STATUS_MAX},
                           {&objp->comment, KL_COMMENT_MAX}});
}

bool_t xdr_pair_kl(XDR* xdrs, pair_kl* objp) {
  clearForDecode(xdrs, {&objp->text});
  return xdr_int(xdrs, &objp->first) && xdr_int(xdrs, &objp->second) &&
         xdr_string(xdrs, &objp->text, kUnbounded);
}

bool_t xdr_texts_kl(XDR* xdrs, texts_kl* objp) {
  clearForDecode(xdrs, {&objp->text1, &objp->text2, &objp->text3, &objp->text4});
  return xdrStrings(xdrs, {{&objp->text1, kUnbounded},
                           {&objp->text2, kUnbounded},
                           {&objp->text3, kUnbounded},
                           {&objp->text4, kUnbounded}});
}

bool_t xdr_peer_kl(XDR* xdrs, peer_kl* objp) {
  clearForDecode(xdrs, {&objp->type});
  return xdr_sockaddr_kl(xdrs, &objp->address) && xdr_string(xdrs, &objp->type, KL_TYPE_MAX);
}

namespace {

struct CodeText {
  int code;
  const char* text;
};

// Searched in this order; the row without text ends the table.
const CodeText kMessages[] = {
    {0, ""},
    {1, "connection to KV lost"},
    {2, "KV has ressource problems"},
    {3, "configuration error"},
    {4, "synchronisation"},
    {5, "Kavlet did not call KVhi"},
    {6, "cannot switch to another queue"},
    {7, "warning: new queue is blocked"},
    {-1, "no need for this kavlettype"},
    {-2, "cannot get address of KV host"},
    {-3, "building connection to KV timed out"},
    {-4, "client create failed (clntudp_create)"},
    {-5, "server create for callback failed"},
    {0, nullptr},
};

const CodeText kRegistrationNames[] = {
    {-1, "currently not needed"},
    {-2, "couldn't find host"},
    {-3, "timeout"},
    {-4, "BADSVC"},
    {-5, "NOSVC"},
};

// Codes 3 and 7 have no name; the lone KV_NOSWITCH is spelled so on purpose.
const CodeText kReportNames[] = {
    {1, "KVOP_NOCONNECT"}, {2, "KVOP_MISCERR"}, {4, "KVOP_SYNCERR"},
    {5, "KVOP_NOHI"},      {6, "KV_NOSWITCH"},
};

const CodeText kControlNames[] = {
    {1, "KVctrlLIVE"},      {2, "KVctrlPRINTLIST"},   {3, "KVctrlREADDIR"},
    {4, "KVctrlREADCF"},    {5, "KVctrlEXIT"},        {6, "KVctrlSTOPTOOL"},
    {7, "KVctrlFORCETOOL"}, {8, "KVctrlSETSTOPNULL"}, {9, "KVctrlSETEXITGONE"},
    {10, "KVctrlSHUTDOWN"}, {11, "KVctrlENABLE"},     {12, "KVctrlDISABLE"},
    {13, "KVctrlLOGLEVEL"}, {14, "KVctrlSLEEP"},      {15, "KVctrlMESSAGE"},
    {16, "KVctrlCut"},      {17, "KVctrlHiStatus"},   {18, "KVctrlSTARTTOOL"},
};

template <size_t N>
const char* lookup(const CodeText (&table)[N], int code) {
  for (const CodeText& row : table)
    if (row.code == code) return row.text;
  return nullptr;
}

String withCode(const char* prefix, int code) {
  char buf[32];
  snprintf(buf, sizeof buf, "%d", code);
  return String(prefix) + buf;
}

}  // namespace

const char* KVstringError(int code) {
  for (const CodeText* row = kMessages; row->text != nullptr; ++row)
    if (row->code == code) return row->text;
  return "not implemented KV error";
}

int KVcodeName(int code, int kind, String& text) {
  if (code == 0) return 0;
  const char* name = nullptr;
  switch (kind) {
    case 1:
      name = lookup(kRegistrationNames, code);
      break;
    case 2:
      name = lookup(kReportNames, code);
      break;
    case 3:
      name = lookup(kControlNames, code);
      break;
    default:
      text = withCode("unknown type ", code);
      return 1;
  }
  text = name ? String(name) : withCode("unknown error ", code);
  return 1;
}
