// kvprot_peer: encodes and decodes the KV records with the system's ONC RPC
// library (libtirpc, rpcgen output of kvrpc/kvprot.x), so tests can check
// our encoder and decoder against an independent implementation.
//
//   kvprot_peer encode <record> <field>...   prints the XDR bytes in hex
//   kvprot_peer decode <record> <hex>        prints one "name=value" line per field
//
// A sockaddr_kl is given and printed as three fields: family, port, and the
// 16 address bytes in hex. Failure prints "FAILED" and exits with 1.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kvprot.h"

namespace {

std::string toHex(const char* p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += digits[(p[i] >> 4) & 15];
    s += digits[p[i] & 15];
  }
  return s;
}

std::vector<char> fromHex(const std::string& h) {
  std::vector<char> v;
  for (size_t i = 0; i + 1 < h.size(); i += 2) v.push_back(std::stoi(h.substr(i, 2), nullptr, 16));
  return v;
}

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
    std::vector<char> b = fromHex(next());
    memset(a->address, 0, sizeof a->address);
    memcpy(a->address, b.data(), b.size() < 16 ? b.size() : 16);
  }
};

void printAddress(const sockaddr_kl& a) {
  printf("family=%u\nport=%u\naddress=%s\n", a.family, a.port, toHex(a.address, 16).c_str());
}
void printText(const char* name, const char* t) { printf("%s=%s\n", name, t ? t : "(null)"); }

// One record: how to fill it from arguments and how to print it.
template <typename T>
struct Record {
  xdrproc_t proc;
  void (*fill)(Args&, T*);
  void (*print)(const T&);
};

template <typename T>
int run(const Record<T>& rec, bool encode, Args& args) {
  T obj;
  memset(&obj, 0, sizeof obj);
  std::vector<char> buf(65536);
  XDR x;
  if (encode) {
    rec.fill(args, &obj);
    xdrmem_create(&x, buf.data(), buf.size(), XDR_ENCODE);
    if (!rec.proc(&x, &obj)) {
      puts("FAILED");
      return 1;
    }
    puts(toHex(buf.data(), xdr_getpos(&x)).c_str());
    return 0;
  }
  buf = fromHex(args.next());
  xdrmem_create(&x, buf.data(), buf.size(), XDR_DECODE);
  if (!rec.proc(&x, &obj)) {
    xdr_free(rec.proc, reinterpret_cast<char*>(&obj));  // what was decoded before the failure
    puts("FAILED");
    fflush(stdout);
    return 1;
  }
  if (xdr_getpos(&x) != buf.size()) printf("trailing=%u\n", unsigned(buf.size() - xdr_getpos(&x)));
  rec.print(obj);
  xdr_free(rec.proc, reinterpret_cast<char*>(&obj));
  return 0;
}

const Record<sockaddr_kl> kSockaddr = {(xdrproc_t)xdr_sockaddr_kl,
                                       [](Args& a, sockaddr_kl* o) { a.address(o); },
                                       [](const sockaddr_kl& o) { printAddress(o); }};
const Record<hello_kl> kHello = {(xdrproc_t)xdr_hello_kl,
                                 [](Args& a, hello_kl* o) {
                                   a.address(&o->address);
                                   o->type = a.text();
                                 },
                                 [](const hello_kl& o) {
                                   printAddress(o.address);
                                   printText("type", o.type);
                                 }};
template <typename T>
void fillReport(Args& a, T* o) {
  a.address(&o->address);
  o->document = a.text();
  o->status = a.text();
  o->comment = a.text();
}
template <typename T>
void printReport(const T& o) {
  printAddress(o.address);
  printText("document", o.document);
  printText("status", o.status);
  printText("comment", o.comment);
}
const Record<op_kl> kOp = {(xdrproc_t)xdr_op_kl, fillReport<op_kl>, printReport<op_kl>};
const Record<report_kl> kReport = {(xdrproc_t)xdr_report_kl, fillReport<report_kl>,
                                   printReport<report_kl>};
const Record<crt_kl> kCrt = {(xdrproc_t)xdr_crt_kl,
                             [](Args& a, crt_kl* o) {
                               o->type = a.text();
                               a.address(&o->address);
                               o->path = a.text();
                               o->operation = a.text();
                               o->comment = a.text();
                             },
                             [](const crt_kl& o) {
                               printText("type", o.type);
                               printAddress(o.address);
                               printText("path", o.path);
                               printText("operation", o.operation);
                               printText("comment", o.comment);
                             }};
template <typename T>
void fillNumberText(Args& a, T* o) {
  o->number = a.number();
  o->text = a.text();
}
template <typename T>
void printNumberText(const T& o) {
  printf("number=%d\n", o.number);
  printText("text", o.text);
}
const Record<order_kl> kOrder = {(xdrproc_t)xdr_order_kl, fillNumberText<order_kl>,
                                 printNumberText<order_kl>};
const Record<note_kl> kNote = {(xdrproc_t)xdr_note_kl, fillNumberText<note_kl>,
                               printNumberText<note_kl>};
const Record<pair_kl> kPair = {(xdrproc_t)xdr_pair_kl,
                               [](Args& a, pair_kl* o) {
                                 o->first = a.number();
                                 o->second = a.number();
                                 o->text = a.text();
                               },
                               [](const pair_kl& o) {
                                 printf("first=%d\nsecond=%d\n", o.first, o.second);
                                 printText("text", o.text);
                               }};
const Record<texts_kl> kTexts = {(xdrproc_t)xdr_texts_kl,
                                 [](Args& a, texts_kl* o) {
                                   o->text1 = a.text();
                                   o->text2 = a.text();
                                   o->text3 = a.text();
                                   o->text4 = a.text();
                                 },
                                 [](const texts_kl& o) {
                                   printText("text1", o.text1);
                                   printText("text2", o.text2);
                                   printText("text3", o.text3);
                                   printText("text4", o.text4);
                                 }};
const Record<peer_kl> kPeer = {(xdrproc_t)xdr_peer_kl,
                               [](Args& a, peer_kl* o) {
                                 a.address(&o->address);
                                 o->type = a.text();
                               },
                               [](const peer_kl& o) {
                                 printAddress(o.address);
                                 printText("type", o.type);
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
  if (name == "report_kl") return run(kReport, encode, args);
  if (name == "crt_kl") return run(kCrt, encode, args);
  if (name == "order_kl") return run(kOrder, encode, args);
  if (name == "note_kl") return run(kNote, encode, args);
  if (name == "pair_kl") return run(kPair, encode, args);
  if (name == "texts_kl") return run(kTexts, encode, args);
  if (name == "peer_kl") return run(kPeer, encode, args);
  fprintf(stderr, "unknown record %s\n", name.c_str());
  return 2;
}
