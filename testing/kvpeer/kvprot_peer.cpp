// kvprot_peer: encodes and decodes the KV records with the system's ONC RPC
// library (libtirpc, rpcgen output of kvrpc/kvprot.x), so tests can check
// our encoder and decoder against an independent implementation.
//
//   kvprot_peer encode <record> <field>...   prints the XDR bytes in hex
//   kvprot_peer decode <record> <hex>        decodes, encodes again and prints
//                                            the bytes in hex
//
// A sockaddr_kl is given as three fields: family, port, and the 16 address
// bytes in hex. Failure prints "FAILED" and exits with 1.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kvprot.h"
#include "testing/Hex.h"

namespace {

using testing_support::fromHex;
using testing_support::toHex;

// Reads the arguments one by one.
struct Args {
  char** argv;
  int argc;
  int i;
  const char* next() {
    if (i >= argc) {
      fprintf(stderr, "missing field\n");
      exit(2);
    }
    return argv[i++];
  }
  char* text() { return const_cast<char*>(next()); }
  int number() { return atoi(next()); }
  void address(sockaddr_kl* a) {
    a->family = static_cast<u_short>(atoi(next()));
    a->port = static_cast<u_short>(atoi(next()));
    std::vector<uint8_t> b = fromHex(next());
    memset(a->address, 0, sizeof a->address);
    memcpy(a->address, b.data(), b.size() < 16 ? b.size() : 16);
  }
};

// One record: how to fill it from arguments.
template <typename T>
struct Record {
  xdrproc_t proc;
  void (*fill)(Args&, T*);
};

template <typename T>
int run(const Record<T>& rec, bool encode, Args& args) {
  T obj;
  memset(&obj, 0, sizeof obj);
  std::vector<char> buf(65536);
  XDR x;
  bool ok = true;
  if (encode) {
    rec.fill(args, &obj);
  } else {
    std::vector<uint8_t> in = fromHex(args.next());
    xdrmem_create(&x, reinterpret_cast<char*>(in.data()), in.size(), XDR_DECODE);
    ok = rec.proc(&x, &obj) && xdr_getpos(&x) == in.size();
  }
  if (ok) {
    xdrmem_create(&x, buf.data(), buf.size(), XDR_ENCODE);
    ok = rec.proc(&x, &obj);
  }
  // Decoded strings, also those decoded before a failure, are ours to free.
  if (!encode) xdr_free(rec.proc, reinterpret_cast<char*>(&obj));
  puts(ok ? toHex(reinterpret_cast<uint8_t*>(buf.data()), xdr_getpos(&x)).c_str() : "FAILED");
  return ok ? 0 : 1;
}

const Record<sockaddr_kl> kSockaddr = {(xdrproc_t)xdr_sockaddr_kl,
                                       [](Args& a, sockaddr_kl* o) { a.address(o); }};
const Record<hello_kl> kHello = {(xdrproc_t)xdr_hello_kl, [](Args& a, hello_kl* o) {
                                   a.address(&o->address);
                                   o->type = a.text();
                                 }};
const Record<op_kl> kOp = {(xdrproc_t)xdr_op_kl, [](Args& a, op_kl* o) {
                             a.address(&o->address);
                             o->document = a.text();
                             o->status = a.text();
                             o->comment = a.text();
                           }};
const Record<crt_kl> kCrt = {(xdrproc_t)xdr_crt_kl, [](Args& a, crt_kl* o) {
                               o->type = a.text();
                               a.address(&o->address);
                               o->path = a.text();
                               o->operation = a.text();
                               o->comment = a.text();
                             }};
const Record<order_kl> kOrder = {(xdrproc_t)xdr_order_kl, [](Args& a, order_kl* o) {
                                   o->number = a.number();
                                   o->text = a.text();
                                 }};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: kvprot_peer encode|decode <record> ...\n");
    return 2;
  }
  const bool encode = strcmp(argv[1], "encode") == 0;
  const std::string name = argv[2];
  Args args{argv, argc, 3};
  if (name == "sockaddr_kl") return run(kSockaddr, encode, args);
  if (name == "hello_kl") return run(kHello, encode, args);
  if (name == "op_kl") return run(kOp, encode, args);
  if (name == "crt_kl") return run(kCrt, encode, args);
  if (name == "order_kl") return run(kOrder, encode, args);
  fprintf(stderr, "unknown record %s\n", name.c_str());
  return 2;
}
