#include "tools/kvmini/KvMiniXdr.h"

namespace kvmini {

namespace {

constexpr u_int kUnbounded = ~0u;

bool_t xdrText(XDR* xdrs, char** text, u_int bound) { return xdr_string(xdrs, text, bound); }

}  // namespace

bool isIpv6Family(uint16_t family) {
  return family == 23 || family == 10 || family == 22 || family == 24 || family == 26;
}

bool_t xdrAddress(XDR* xdrs, Address* a) {
  short family = static_cast<short>(a->family);
  if (!xdr_short(xdrs, &family)) return FALSE;
  a->family = static_cast<uint16_t>(family);
  u_short port = a->port;
  if (!xdr_u_short(xdrs, &port)) return FALSE;
  a->port = port;
  if (isIpv6Family(a->family)) return xdr_opaque(xdrs, reinterpret_cast<char*>(a->bytes), 16);
  if (!xdr_opaque(xdrs, reinterpret_cast<char*>(a->bytes), 4)) return FALSE;
  for (int i = 0; i < 8; ++i) {
    char filler = 0;
    if (!xdr_char(xdrs, &filler)) return FALSE;
  }
  return TRUE;
}

bool_t xdrHello(XDR* xdrs, Hello* h) {
  return xdrAddress(xdrs, &h->address) && xdrText(xdrs, &h->type, kUnbounded);
}

bool_t xdrOpReport(XDR* xdrs, OpReport* r) {
  return xdrAddress(xdrs, &r->address) && xdrText(xdrs, &r->document, 128) &&
         xdrText(xdrs, &r->text2, 60) && xdrText(xdrs, &r->text3, 128);
}

bool_t xdrCrtRequest(XDR* xdrs, CrtRequest* r) {
  return xdrText(xdrs, &r->type, 25) && xdrAddress(xdrs, &r->address) &&
         xdrText(xdrs, &r->path, kUnbounded) && xdrText(xdrs, &r->operation, kUnbounded) &&
         xdrText(xdrs, &r->comment, kUnbounded);
}

bool_t xdrOrder(XDR* xdrs, Order* o) {
  return xdr_int(xdrs, &o->number) && xdrText(xdrs, &o->text, kUnbounded);
}

}  // namespace kvmini
