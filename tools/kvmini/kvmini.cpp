// kvmini: a small KV emulator for people and tests.
//
//   kvmini serve [options]           serves the KV program and logs every call
//   kvmini work --to H:P [--mode N] DIR
//   kvmini ctrl --to H:P CODE [TEXT]
//   kvmini info --to H:P NUMBER [TEXT]
//   kvmini call --to H:P PROC [--number N] [--text T] [--noargs] [--prog P]
//                             [--vers V] [--timeout S] [--retry S]
// The client commands take --from ADDR: send from that local address (say
// 127.0.0.2, to play a host other than the KV).
//
// serve prints "kvmini listening port=<port> prog=<prog> vers=2" first, then one
// line per datagram it dispatches and one per order it sends, all on standard
// output, flushed at once. It reads commands on standard input (see usage()).
// With --queue it serves any number of workers, each named by the address and
// port it registered with: every idle worker gets the next document, one
// order at a time; a document whose worker said goodbye, refused the order or
// did not report within --order-timeout goes back to the front of the queue.
// The end of the queue prints "QUEUE done", sends --final-ctrl to every
// worker still serving and prints "SUMMARY ..." with the reports per worker.
// Built on libtirpc and the rpcgen records of kvrpc/kvprot.x only: it is the
// independent peer the worker is tested against.
#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "base/Owners.h"
#include "kvprot.h"

namespace kvmini {
namespace {

constexpr int kUsageExit = 64;
constexpr int kRpcErrorExit = 2;

// The five family numbers that mean IPv6 (Windows 23, Linux 10, HP-UX 22,
// AIX 24, Solaris 26): their addresses carry 16 bytes.
bool isIpv6Family(u_short family) {
  return family == 23 || family == 10 || family == 22 || family == 24 || family == 26;
}

void usage() {
  fprintf(stderr,
          "usage: kvmini serve [--port P] [--bind ADDR] [--offset N] [--refuse]\n"
          "                    [--op-answer N] [--crt-answer N] [--silent]\n"
          "                    [--worker-host H] [--queue DIR] [--mode N]\n"
          "                    [--final-ctrl CODE] [--final-text T] [--exit-on-bye]\n"
          "                    [--call-timeout S] [--order-timeout S] [--wait-workers N]\n"
          "       kvmini work --to HOST:PORT [--mode N] DIR\n"
          "       kvmini ctrl --to HOST:PORT CODE [TEXT]\n"
          "       kvmini info --to HOST:PORT NUMBER [TEXT]\n"
          "       kvmini call --to HOST:PORT PROC [--number N] [--text T] [--noargs]\n"
          "                   [--prog P] [--vers V] [--timeout S] [--retry S]\n"
          "       (work, ctrl, info and call also take --from ADDR: the local source address)\n"
          "serve reads commands on standard input, one a line:\n"
          "  work N DIR | ctrl CODE [TEXT] | info N [TEXT] | null | refuse on|off |\n"
          "  op-answer N | crt-answer N | silent on|off | quit\n");
}

// Text for a log line: quoted, with quotes, backslashes and control bytes escaped,
// so that every call stays on one line.
std::string quote(const char* s) {
  if (s == nullptr) return "NULL";
  std::string out = "\"";
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p) {
    if (*p == '"' || *p == '\\') {
      out += '\\';
      out += static_cast<char>(*p);
    } else if (*p < 0x20 || *p >= 0x7f) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", *p);
      out += hex;
    } else {
      out += static_cast<char>(*p);
    }
  }
  return out + "\"";
}

std::string sockaddrText(const sockaddr* sa, socklen_t len) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  if (getnameinfo(sa, len, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) !=
      0) {
    return "?";
  }
  return sa->sa_family == AF_INET6 ? std::string("[") + host + "]:" + port
                                   : std::string(host) + ":" + port;
}

std::string addressText(const sockaddr_kl& a) {
  char text[INET6_ADDRSTRLEN];
  const char* ok = isIpv6Family(a.family) ? inet_ntop(AF_INET6, a.address, text, sizeof text)
                                          : inet_ntop(AF_INET, a.address, text, sizeof text);
  return "family=" + std::to_string(a.family) + " address=" + (ok ? text : "?") +
         " port=" + std::to_string(a.port);
}

// libtirpc's xdrproc_t is variadic; going through void(*)() keeps the
// conversion explicit without a function-type-cast warning.
template <typename F>
xdrproc_t asProc(F f) {
  return reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(f));
}

void emit(const std::string& line) {
  fputs(line.c_str(), stdout);
  fputc('\n', stdout);
  fflush(stdout);
}

bool parseInt(const char* text, long* value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  *value = strtol(text, &end, 0);
  return errno == 0 && *end == '\0';
}

struct Target {
  sockaddr_storage addr{};
  socklen_t len = 0;
};

// "host:port" or "[v6]:port".
bool parseTarget(const std::string& text, Target* t) {
  std::string host, port;
  if (!text.empty() && text[0] == '[') {
    size_t close = text.find("]:");
    if (close == std::string::npos) return false;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* raw = nullptr;
  const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &raw);
  AddrInfoPtr res(raw);
  if (rc != 0 || !res) return false;
  memcpy(&t->addr, res->ai_addr, res->ai_addrlen);
  t->len = res->ai_addrlen;
  return true;
}

// The outcome of one call to a worker's callback service (or any RPC service).
struct CallResult {
  bool ok = false;
  bool hasInt = false;
  int value = 0;
  std::string error;  // the library's status text when !ok
  std::string text() const {
    if (!ok) return "error " + error;
    return hasInt ? std::to_string(value) : "void";
  }
};

struct CallSpec {
  unsigned long prog = TOOLPROG;
  unsigned long vers = TOOLVERS;
  unsigned long proc = TOOLPROC_WORK;
  bool noArgs = false;
  order_kl order{0, nullptr};
  int timeoutSeconds = 5;
  int retrySeconds = 1;
  std::string from;  // local source address; empty: the system's choice
};

int bindSocket(const std::string& bindAddr, long port);

CallResult callService(const Target& target, const CallSpec& callReq) {
  CallResult r;
  UniqueFd fd(callReq.from.empty() ? socket(target.addr.ss_family, SOCK_DGRAM, 0)
                                   : bindSocket(callReq.from, 0));
  if (!fd.valid()) {
    r.error = std::string("socket: ") + strerror(errno);
    return r;
  }
  netbuf nb{};
  nb.buf = const_cast<sockaddr_storage*>(&target.addr);
  nb.len = nb.maxlen = target.len;
  CLIENT* clnt = clnt_dg_create(fd.get(), &nb, callReq.prog, callReq.vers, 0, 0);
  if (clnt == nullptr) {
    r.error = clnt_spcreateerror("clnt_dg_create");
    return r;
  }
  clnt_control(clnt, CLSET_FD_CLOSE, nullptr);
  fd.release();
  timeval retry{callReq.retrySeconds, 0};
  clnt_control(clnt, CLSET_RETRY_TIMEOUT, reinterpret_cast<char*>(&retry));
  timeval total{callReq.timeoutSeconds, 0};
  order_kl order = callReq.order;
  xdrproc_t argProc = callReq.noArgs ? asProc(xdr_void) : asProc(xdr_order_kl);
  bool wantInt = callReq.proc != TOOLPROC_NULL;
  int value = 0;
  xdrproc_t resProc = wantInt ? asProc(xdr_int) : asProc(xdr_void);
  clnt_stat st = clnt_call(clnt, callReq.proc, argProc, reinterpret_cast<char*>(&order), resProc,
                           reinterpret_cast<char*>(&value), total);
  if (st == RPC_SUCCESS) {
    r.ok = true;
    r.hasInt = wantInt;
    r.value = value;
  } else {
    r.error = clnt_sperrno(st);
  }
  clnt_destroy(clnt);
  return r;
}

const char* toolProcName(unsigned long proc) {
  switch (proc) {
    case TOOLPROC_NULL:
      return "NULL";
    case TOOLPROC_WORK:
      return "WORK";
    case TOOLPROC_CTRL:
      return "CTRL";
    case TOOLPROC_INFO:
      return "INFO";
  }
  return "PROC";
}

// ---- serve -------------------------------------------------------------

// A registered worker, named by the address and port it announced.
struct Worker {
  std::string name;
  Target target;
  std::string inHand;  // the document ordered and not reported yet; empty: none
  double orderedAt = 0;
  // No more orders: it said goodbye or did not take an order (gone), or it
  // did not report within --order-timeout (late: the document it was ordered,
  // until it reports).
  bool gone = false;
  std::string late;
  int ok = 0;
  int error = 0;
  bool idle() const { return !gone && late.empty() && inHand.empty(); }
};

struct Server {
  int hiAnswer = 1;
  int opAnswer = 0;
  int crtAnswer = 0;
  bool silent = false;
  bool exitOnBye = false;
  int mode = 1;
  int callTimeout = 5;
  long orderTimeout = 0;   // seconds; 0: wait for every report for ever
  size_t waitWorkers = 0;  // no order before this many workers registered
  std::string workerHost;
  bool queueMode = false;
  std::deque<std::string> queue;  // documents not handed out yet
  size_t documents = 0;
  double firstOrderAt = -1;
  bool queueReported = false;
  bool finalCtrlSet = false;  // code 0 is the exit order
  long finalCtrl = 0;
  std::string finalText;
  std::vector<Worker> workers;
  size_t current = 0;  // the worker registered last: commands from standard input go there
  bool quit = false;
};

Server server;

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string callerText(SVCXPRT* xprt) {
  netbuf* nb = svc_getrpccaller(xprt);
  if (nb == nullptr || nb->buf == nullptr) return "?";
  return sockaddrText(static_cast<sockaddr*>(nb->buf), nb->len);
}

std::string workerName(const sockaddr_kl& a) {
  char text[INET6_ADDRSTRLEN];
  const char* ok = isIpv6Family(a.family) ? inet_ntop(AF_INET6, a.address, text, sizeof text)
                                          : inet_ntop(AF_INET, a.address, text, sizeof text);
  std::string host = ok ? text : "?";
  if (isIpv6Family(a.family)) host = "[" + host + "]";
  return host + ":" + std::to_string(a.port);
}

Worker* findWorker(const std::string& name) {
  for (Worker& w : server.workers) {
    if (w.name == name) return &w;
  }
  return nullptr;
}

// A document a worker has not finished goes back to the front of the queue.
void giveBack(Worker* w, const std::string& why) {
  emit("REQUEUE document=" + quote(w->inHand.c_str()) + " worker=" + w->name + " " + why);
  server.queue.push_front(w->inHand);
  w->inHand.clear();
}

// Remembers where a registered worker's callback service listens; fresh: a
// registration (HI), not an information call.
void rememberWorker(const sockaddr_kl& a, bool fresh) {
  Target t;
  if (!server.workerHost.empty()) {
    if (!parseTarget(server.workerHost + ":" + std::to_string(a.port), &t) &&
        !parseTarget("[" + server.workerHost + "]:" + std::to_string(a.port), &t)) {
      emit("kvmini: cannot resolve worker host " + server.workerHost);
      return;
    }
  } else if (isIpv6Family(a.family)) {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&t.addr);
    s6->sin6_family = AF_INET6;
    s6->sin6_port = htons(a.port);
    memcpy(&s6->sin6_addr, a.address, 16);
    t.len = sizeof *s6;
  } else {
    auto* s4 = reinterpret_cast<sockaddr_in*>(&t.addr);
    s4->sin_family = AF_INET;
    s4->sin_port = htons(a.port);
    memcpy(&s4->sin_addr, a.address, 4);
    t.len = sizeof *s4;
  }
  Worker* w = findWorker(workerName(a));
  if (w == nullptr) {
    server.workers.push_back(Worker());
    w = &server.workers.back();
    w->name = workerName(a);
  }
  w->target = t;
  w->gone = false;
  // Registered anew (restarted, say): what it held is not being worked on.
  if (fresh && !w->inHand.empty()) giveBack(w, "(registered again)");
  if (fresh) w->late.clear();
  server.current = static_cast<size_t>(w - server.workers.data());
}

CallResult sendTo(const Worker& w, unsigned long proc, int number, const std::string& text) {
  CallSpec callReq;
  callReq.proc = proc;
  callReq.order.number = number;
  callReq.order.text = const_cast<char*>(text.c_str());
  callReq.timeoutSeconds = server.callTimeout;
  CallResult r = callService(w.target, callReq);
  emit(std::string("SEND ") + toolProcName(proc) + " " + std::to_string(number) + " " +
       quote(text.c_str()) +
       " to=" + sockaddrText(reinterpret_cast<const sockaddr*>(&w.target.addr), w.target.len) +
       " -> " + r.text());
  return r;
}

void sendToWorker(unsigned long proc, int number, const std::string& text) {
  if (server.workers.empty()) {
    emit(std::string("SEND ") + toolProcName(proc) + " no worker registered");
    return;
  }
  sendTo(server.workers[server.current], proc, number, text);
}

// Whether a report's document names directory: the same text, or, for a
// path too long for the report, "..." and the path's end.
bool reportNames(const std::string& reported, const std::string& directory) {
  if (reported == directory) return true;
  if (reported.compare(0, 3, "...") != 0 || directory.size() < reported.size()) return false;
  return directory.compare(directory.size() - (reported.size() - 3), std::string::npos, reported, 3,
                           std::string::npos) == 0;
}

void reportQueueDone() {
  for (const Worker& w : server.workers) {
    if (!w.inHand.empty()) return;
  }
  server.queueReported = true;
  emit("QUEUE done");
  // The time of the queue ends with its last report: the final orders below
  // wait for workers that end without answering, which is no document's time.
  char seconds[32];
  snprintf(seconds, sizeof seconds, "%.3f",
           server.firstOrderAt < 0 ? 0.0 : now() - server.firstOrderAt);
  if (server.finalCtrlSet) {
    for (const Worker& w : server.workers) {
      if (!w.gone && w.late.empty())
        sendTo(w, TOOLPROC_CTRL, static_cast<int>(server.finalCtrl), server.finalText);
    }
  }
  int ok = 0, error = 0;
  std::string perWorker;
  for (const Worker& w : server.workers) {
    ok += w.ok;
    error += w.error;
    perWorker +=
        " | " + w.name + " ok=" + std::to_string(w.ok) + " error=" + std::to_string(w.error);
  }
  emit("SUMMARY documents=" + std::to_string(server.documents) + " ok=" + std::to_string(ok) +
       " error=" + std::to_string(error) + " seconds=" + seconds + perWorker);
}

// Hands each idle worker the next queued document, one order per worker at a
// time, and reports the finished queue once.
void advanceQueue() {
  if (!server.queueMode || server.queueReported || server.workers.size() < server.waitWorkers) {
    return;
  }
  for (Worker& w : server.workers) {
    if (server.queue.empty()) break;
    if (!w.idle()) continue;
    w.inHand = server.queue.front();
    server.queue.pop_front();
    w.orderedAt = now();
    if (server.firstOrderAt < 0) server.firstOrderAt = w.orderedAt;
    if (!sendTo(w, TOOLPROC_WORK, server.mode, w.inHand).ok) {
      w.gone = true;
      giveBack(&w, "(the order was not taken)");
    }
  }
  if (server.queue.empty()) reportQueueDone();
}

// Gives back the documents of workers that did not report in time; the
// seconds until the next such check is due (-1: none).
double checkOrderTimeouts() {
  if (server.orderTimeout <= 0) return -1;
  double next = -1;
  bool gaveBack = false;
  for (Worker& w : server.workers) {
    if (w.inHand.empty()) continue;
    double left = w.orderedAt + static_cast<double>(server.orderTimeout) - now();
    if (left <= 0) {
      w.late = w.inHand;
      giveBack(&w, "(no report within " + std::to_string(server.orderTimeout) + " s)");
      gaveBack = true;
    } else if (next < 0 || left < next) {
      next = left;
    }
  }
  if (gaveBack) advanceQueue();
  return gaveBack ? checkOrderTimeouts() : next;
}

// A report of document: the worker holding it (the reporter first) is free
// again; a late report takes the document out of the queue.
void documentReported(Worker* reporter, const std::string& document) {
  Worker* holder = reporter && reportNames(document, reporter->inHand) ? reporter : nullptr;
  for (Worker& w : server.workers) {
    if (holder == nullptr && !w.inHand.empty() && reportNames(document, w.inHand)) holder = &w;
  }
  if (holder != nullptr) holder->inHand.clear();
  if (reporter != nullptr && !reporter->late.empty() && reportNames(document, reporter->late)) {
    for (auto it = server.queue.begin(); it != server.queue.end(); ++it) {
      if (reportNames(document, *it)) {
        server.queue.erase(it);
        break;
      }
    }
    reporter->late.clear();
  }
  advanceQueue();
}

template <typename Record>
bool getArgs(SVCXPRT* xprt, bool_t (*proc)(XDR*, Record*), Record* rec, const char* name,
             const std::string& from) {
  memset(rec, 0, sizeof *rec);
  if (svc_getargs(xprt, asProc(proc), reinterpret_cast<char*>(rec))) {
    return true;
  }
  emit(std::string(name) + " from=" + from + " GARBAGE_ARGS");
  svcerr_decode(xprt);
  return false;
}

template <typename Record>
void freeArgs(SVCXPRT* xprt, bool_t (*proc)(XDR*, Record*), Record* rec) {
  svc_freeargs(xprt, asProc(proc), reinterpret_cast<char*>(rec));
}

// Sends an int answer unless the server plays dead; returns the log suffix.
std::string answerInt(SVCXPRT* xprt, int answer) {
  if (server.silent) return " -> (no reply)";
  if (!svc_sendreply(xprt, asProc(xdr_int), reinterpret_cast<char*>(&answer)))
    return " -> (reply failed)";
  return " -> " + std::to_string(answer);
}

void kvDispatch(svc_req* rq, SVCXPRT* xprt) {
  std::string from = callerText(xprt);
  switch (rq->rq_proc) {
    case NULLPROC: {
      emit("NULL from=" + from);
      if (!server.silent) svc_sendreply(xprt, asProc(xdr_void), nullptr);
      return;
    }
    case KVPROC_HI:
    case KVPROC_INFO: {
      const char* name = rq->rq_proc == KVPROC_HI ? "HI" : "INFO";
      hello_kl h;
      if (!getArgs(xprt, xdr_hello_kl, &h, name, from)) return;
      std::string line = std::string(name) + " from=" + from + " " + addressText(h.address) +
                         " type=" + quote(h.type);
      line += answerInt(xprt, server.hiAnswer);
      if (server.hiAnswer != 0) rememberWorker(h.address, rq->rq_proc == KVPROC_HI);
      freeArgs(xprt, xdr_hello_kl, &h);
      emit(line);
      if (!server.silent && server.hiAnswer != 0 && rq->rq_proc == KVPROC_HI) advanceQueue();
      return;
    }
    case KVPROC_BYE:
    case KVPROC_ALIVE: {
      const char* name = rq->rq_proc == KVPROC_BYE ? "BYE" : "ALIVE";
      hello_kl h;
      if (!getArgs(xprt, xdr_hello_kl, &h, name, from)) return;
      std::string line = std::string(name) + " from=" + from + " " + addressText(h.address) +
                         " type=" + quote(h.type);
      // The worker waits for the goodbye's reply but never for an alive one.
      if (rq->rq_proc == KVPROC_BYE && !server.silent) {
        svc_sendreply(xprt, asProc(xdr_void), nullptr);
      }
      Worker* w = rq->rq_proc == KVPROC_BYE ? findWorker(workerName(h.address)) : nullptr;
      freeArgs(xprt, xdr_hello_kl, &h);
      emit(line);
      if (w != nullptr) {
        w->gone = true;
        if (!w->inHand.empty()) giveBack(w, "(goodbye)");
        advanceQueue();
      }
      bool anyLeft = false;
      for (const Worker& other : server.workers) anyLeft = anyLeft || !other.gone;
      if (rq->rq_proc == KVPROC_BYE && server.exitOnBye && !anyLeft) server.quit = true;
      return;
    }
    case KVPROC_OP: {
      op_kl r;
      if (!getArgs(xprt, xdr_op_kl, &r, "OP", from)) return;
      std::string line = "OP from=" + from + " " + addressText(r.address) +
                         " document=" + quote(r.document) + " text2=" + quote(r.status) +
                         " text3=" + quote(r.comment);
      line += answerInt(xprt, server.opAnswer);
      Worker* reporter = findWorker(workerName(r.address));
      line += " worker=" + workerName(r.address);
      std::string document = r.document != nullptr ? r.document : "";
      bool ok = r.status != nullptr && strcmp(r.status, "ok") == 0;
      freeArgs(xprt, xdr_op_kl, &r);
      emit(line);
      if (reporter != nullptr) ++(ok ? reporter->ok : reporter->error);
      if (!server.silent) documentReported(reporter, document);
      return;
    }
    case KVPROC_CRT: {
      crt_kl r;
      if (!getArgs(xprt, xdr_crt_kl, &r, "CRT", from)) return;
      std::string line = "CRT from=" + from + " type=" + quote(r.type) + " " +
                         addressText(r.address) + " path=" + quote(r.path) +
                         " operation=" + quote(r.operation) + " comment=" + quote(r.comment);
      line += answerInt(xprt, server.crtAnswer);
      freeArgs(xprt, xdr_crt_kl, &r);
      emit(line);
      return;
    }
    default:
      emit("PROC " + std::to_string(rq->rq_proc) + " from=" + from + " -> PROC_UNAVAIL");
      svcerr_noproc(xprt);
      return;
  }
}

std::vector<std::string> listQueue(const std::string& dir) {
  std::vector<std::string> docs;
  DirPtr d(opendir(dir.c_str()));
  if (!d) return docs;
  while (dirent* e = readdir(d.get())) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string path = dir + "/" + name;
    if (DirPtr(opendir(path.c_str()))) docs.push_back(path);
  }
  std::sort(docs.begin(), docs.end());
  return docs;
}

bool onOff(const std::string& word, bool* value) {
  if (word == "on")
    *value = true;
  else if (word == "off")
    *value = false;
  else
    return false;
  return true;
}

// One command line from standard input.
void runCommand(const std::string& line) {
  char word[32] = "";
  int used = 0;
  if (sscanf(line.c_str(), "%31s %n", word, &used) < 1) return;
  std::string cmd = word;
  std::string rest = line.substr(static_cast<size_t>(used));
  long number = 0;
  char argWord[32] = "";
  int used2 = 0;
  bool hasNumber =
      sscanf(rest.c_str(), "%31s %n", argWord, &used2) >= 1 && parseInt(argWord, &number);
  std::string text = hasNumber ? rest.substr(static_cast<size_t>(used2)) : "";
  bool flag = false;
  if ((cmd == "work" || cmd == "ctrl" || cmd == "info") && hasNumber) {
    unsigned long proc = cmd == "work"   ? TOOLPROC_WORK
                         : cmd == "ctrl" ? TOOLPROC_CTRL
                                         : TOOLPROC_INFO;
    sendToWorker(proc, static_cast<int>(number), text);
  } else if (cmd == "null") {
    sendToWorker(TOOLPROC_NULL, 0, "");
  } else if (cmd == "refuse" && onOff(argWord, &flag)) {
    server.hiAnswer = flag ? 0 : 1;
  } else if (cmd == "silent" && onOff(argWord, &flag)) {
    server.silent = flag;
  } else if (cmd == "op-answer" && hasNumber) {
    server.opAnswer = static_cast<int>(number);
  } else if (cmd == "crt-answer" && hasNumber) {
    server.crtAnswer = static_cast<int>(number);
  } else if (cmd == "quit") {
    server.quit = true;
    return;
  } else {
    emit("kvmini: unknown command: " + line);
    return;
  }
  emit("OK " + cmd);
}

int bindSocket(const std::string& bindAddr, long port) {
  Target t;
  std::string hostPart = bindAddr.find(':') != std::string::npos ? "[" + bindAddr + "]" : bindAddr;
  if (!parseTarget(hostPart + ":" + std::to_string(port), &t)) return -1;
  UniqueFd fd(socket(t.addr.ss_family, SOCK_DGRAM, 0));
  if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&t.addr), t.len) != 0) return -1;
  return fd.release();
}

int boundPort(int fd) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return -1;
  return ss.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port)
                                  : ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

int serve(int argc, char** argv) {
  long port = 4032;
  long offset = 0;
  std::string bindAddr = "0.0.0.0";
  if (const char* env = getenv("RPC_OFFSET")) parseInt(env, &offset);
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    bool hasValue = i + 1 < argc;
    long n = 0;
    if (a == "--refuse")
      server.hiAnswer = 0;
    else if (a == "--silent")
      server.silent = true;
    else if (a == "--exit-on-bye")
      server.exitOnBye = true;
    else if (hasValue && a == "--bind")
      bindAddr = argv[++i];
    else if (hasValue && a == "--worker-host")
      server.workerHost = argv[++i];
    else if (hasValue && a == "--queue") {
      std::vector<std::string> docs = listQueue(argv[++i]);
      server.queue.assign(docs.begin(), docs.end());
      server.documents = docs.size();
      server.queueMode = true;
    } else if (hasValue && a == "--final-text")
      server.finalText = argv[++i];
    else if (hasValue && parseInt(argv[i + 1], &n)) {
      ++i;
      if (a == "--port")
        port = n;
      else if (a == "--offset")
        offset = n;
      else if (a == "--op-answer")
        server.opAnswer = static_cast<int>(n);
      else if (a == "--crt-answer")
        server.crtAnswer = static_cast<int>(n);
      else if (a == "--mode")
        server.mode = static_cast<int>(n);
      else if (a == "--final-ctrl")
        server.finalCtrl = n, server.finalCtrlSet = true;
      else if (a == "--call-timeout")
        server.callTimeout = static_cast<int>(n);
      else if (a == "--order-timeout")
        server.orderTimeout = n;
      else if (a == "--wait-workers")
        server.waitWorkers = static_cast<size_t>(n);
      else
        return usage(), kUsageExit;
    } else {
      return usage(), kUsageExit;
    }
  }
  int fd = bindSocket(bindAddr, port);
  if (fd < 0) {
    fprintf(stderr, "kvmini: cannot bind %s port %ld: %s\n", bindAddr.c_str(), port,
            strerror(errno));
    return 1;
  }
  SVCXPRT* xprt = svc_dg_create(fd, 0, 0);
  unsigned long prog = KVPROG + static_cast<unsigned long>(offset);
  // Protocol 0: no port mapper; the worker is told the port directly.
  if (xprt == nullptr || !svc_register(xprt, prog, KVVERS, kvDispatch, 0)) {
    fprintf(stderr, "kvmini: cannot create the RPC service\n");
    return 1;
  }
  emit("kvmini listening port=" + std::to_string(boundPort(fd)) + " prog=" + std::to_string(prog) +
       " vers=" + std::to_string(KVVERS));

  bool stdinOpen = true;
  std::string pending;
  while (!server.quit) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    if (stdinOpen) FD_SET(0, &readable);
    double wait = checkOrderTimeouts();
    timeval timeout{static_cast<time_t>(wait),
                    static_cast<suseconds_t>((wait - static_cast<long>(wait)) * 1e6) + 1000};
    int r = select(fd + 1, &readable, nullptr, nullptr, wait < 0 ? nullptr : &timeout);
    if (r < 0) {
      if (errno == EINTR) continue;
      perror("kvmini: select");
      return 1;
    }
    if (FD_ISSET(fd, &readable)) svc_getreq_common(fd);
    if (stdinOpen && FD_ISSET(0, &readable)) {
      char buf[4096];
      ssize_t n = read(0, buf, sizeof buf);
      if (n <= 0) {
        stdinOpen = false;  // keep serving; tests often start us without input
        continue;
      }
      pending.append(buf, static_cast<size_t>(n));
      size_t nl;
      while ((nl = pending.find('\n')) != std::string::npos && !server.quit) {
        std::string line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        runCommand(line);
      }
    }
  }
  svc_destroy(xprt);
  return 0;
}

// ---- one-shot client commands ---------------------------------------------

int client(const std::string& cmd, int argc, char** argv) {
  CallSpec callReq;
  callReq.order.number = 0;
  std::string to;
  std::vector<std::string> positional;
  bool textGiven = false;
  bool numberGiven = false;  // "work" defaults to mode 1, "call" to 0
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    bool hasValue = i + 1 < argc;
    long n = 0;
    if (a == "--noargs") {
      callReq.noArgs = true;
    } else if (hasValue && a == "--to") {
      to = argv[++i];
    } else if (hasValue && a == "--from") {
      callReq.from = argv[++i];
    } else if (hasValue && a == "--text") {
      callReq.order.text = argv[++i];
      textGiven = true;
    } else if (hasValue && a.compare(0, 2, "--") == 0 && parseInt(argv[i + 1], &n)) {
      ++i;
      if (a == "--mode" || a == "--number") {
        callReq.order.number = static_cast<int>(n);
        numberGiven = true;
      } else if (a == "--prog") {
        callReq.prog = static_cast<unsigned long>(n);
      } else if (a == "--vers") {
        callReq.vers = static_cast<unsigned long>(n);
      } else if (a == "--timeout") {
        callReq.timeoutSeconds = static_cast<int>(n);
      } else if (a == "--retry") {
        callReq.retrySeconds = static_cast<int>(n);
      } else {
        return usage(), kUsageExit;
      }
    } else if (a.compare(0, 2, "--") == 0) {
      return usage(), kUsageExit;
    } else {
      positional.push_back(a);
    }
  }
  Target target;
  if (to.empty() || !parseTarget(to, &target)) {
    fprintf(stderr, "kvmini: --to HOST:PORT is required and must resolve\n");
    return kUsageExit;
  }
  long n = 0;
  std::string text;
  if (cmd == "work" && positional.size() == 1) {
    callReq.proc = TOOLPROC_WORK;
    if (!numberGiven) callReq.order.number = 1;
    text = positional[0];
  } else if ((cmd == "ctrl" || cmd == "info") && !positional.empty() && positional.size() <= 2 &&
             parseInt(positional[0].c_str(), &n)) {
    callReq.proc = cmd == "ctrl" ? TOOLPROC_CTRL : TOOLPROC_INFO;
    callReq.order.number = static_cast<int>(n);
    text = positional.size() == 2 ? positional[1] : "";
  } else if (cmd == "call" && positional.size() == 1 && parseInt(positional[0].c_str(), &n)) {
    callReq.proc = static_cast<unsigned long>(n);
    text = textGiven ? callReq.order.text : "";
  } else {
    return usage(), kUsageExit;
  }
  callReq.order.text = const_cast<char*>(text.c_str());
  CallResult r = callService(target, callReq);
  emit(std::string(r.ok ? "reply " : "") + r.text());
  return r.ok ? 0 : kRpcErrorExit;
}

}  // namespace
}  // namespace kvmini

int main(int argc, char** argv) {
  if (argc < 2) {
    kvmini::usage();
    return kvmini::kUsageExit;
  }
  std::string cmd = argv[1];
  if (cmd == "serve") return kvmini::serve(argc - 2, argv + 2);
  if (cmd == "work" || cmd == "ctrl" || cmd == "info" || cmd == "call") {
    return kvmini::client(cmd, argc - 2, argv + 2);
  }
  kvmini::usage();
  return kvmini::kUsageExit;
}
