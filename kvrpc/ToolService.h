// ToolService: the tool's own callback program, through which the KV hands
// it work orders, control messages and information messages.
//
// The service listens on one ephemeral UDP port with two sockets, IPv4 and
// (when the host has it) IPv6. A ToolService is owned by the KV client
// (KVclient.h), whose first KVhi or KVinfo creates the sockets; they are
// served until the ToolService goes. The handlers it calls (ToolHandler.h)
// are borrowed; the KV client calls install and reset them.
//
// The service never ends the process: when a handler (or the KV's last work
// order) asks for the end, the service stops its loop and leaves every later
// request unanswered, and serve returns what was asked.
//
// Threading: everything runs on the thread of serve. The work handler runs
// inside the dispatch of a work order, so further requests wait in the
// socket's queue until it returns.
#ifndef KVRPC_TOOLSERVICE_H_
#define KVRPC_TOOLSERVICE_H_

#include <cstdint>

#include "kvrpc/KVprot.h"
#include "kvrpc/ToolHandler.h"
#include "rpc/Svc.h"

class KvSenders;

// The port of KV_ORDER_PORT's value: 0 (any free port) for null or empty,
// -1 for anything but a whole number from 0 to 65535.
int ToolOrderPort(const char* text);

// The default handler's work: logs the order and does nothing.
void DefaultWorker(int number, const char* text);
// The default handler's control: logs the message and asks for the end of the
// process (status 0), before anything is answered.
ToolNext DefaultCtrl(int number, const char* text);

class ToolService {
 public:
  ToolService() = default;
  ToolService(const ToolService&) = delete;
  ToolService& operator=(const ToolService&) = delete;

  // Creates the IPv4 service on the port orderPort, the value of
  // KV_ORDER_PORT, names (a value that is no port is logged at level 2;
  // null, empty or 0: an ephemeral port)
  // and an IPv6 one on the same port, both serving only the callers that
  // senders accepts (borrowed for the life of the service; null: everyone).
  // protocol is passed on to the registration (kept for the record only; no
  // port mapper is contacted). Returns the IPv4 socket, or -1 when the IPv4
  // service cannot be made; a missing IPv6 service is logged and tolerated.
  int create(int protocol, KvSenders* senders = nullptr, const char* orderPort = nullptr);

  // Runs the service loop (svc_run) until a handler asks for the end of the
  // process, and returns what it asked; kGoOn when the loop ended otherwise
  // (stop, a failed select).
  ToolNext serve();
  // Ends the loop after the request it serves now (terminateSvcrun).
  void stop();
  // Returns the end a handler asked for (kGoOn when none) and forgets it, so
  // that the service answers requests again.
  ToolNext takeNext();

  // The IPv4 service socket, or 0 when no service exists yet.
  int socket() const { return socket_; }
  // The services' UDP port (host order), 0 before create.
  uint16_t port() const { return port_; }
  // Bit (socket % 32) of the service socket.
  uint32_t socketMask() const { return socketMask_; }
  // The transports of the services (IPv6: null when the host has none).
  SVCXPRT* transport(bool ipv6) const { return ipv6 ? v6_ : v4_; }

  // Installs the handler of work orders and control messages (borrowed: it
  // must stay until it is replaced); null: back to the default handler
  // (DefaultWorker, DefaultCtrl).
  void setHandler(ToolHandler* handler);
  // Installs the handler of information messages (borrowed); null: they are
  // answered PROC_UNAVAIL.
  void setInfoHandler(ToolHandler* handler) { info_ = handler; }

 private:
  // Serves until the first KVhi and again after KVbye.
  class DefaultHandler : public ToolHandler {
   public:
    ToolNext onWorkOrder(int number, const char* text) override;
    ToolNext onControlMessage(int code, const char* text, int* reply) override;
  };

  // The dispatch routine of TOOLPROG version 1, registered with the service
  // as its context. A work order is acknowledged (int 1) before the work
  // handler runs, and not worked at all when the acknowledgement cannot be
  // sent: the KV repeats unacknowledged orders. Work mode 2 is the last
  // order: after the work the process ends (status 0). Procedures of 4 or
  // more, and procedure 3 without an info handler, get PROC_UNAVAIL;
  // arguments that do not decode get GARBAGE_ARGS.
  static void dispatch(svc_req* request, SVCXPRT* transport);
  void handle(u_long proc, SVCXPRT* transport);
  // Stops the loop when next asks for the end of the process.
  void decide(ToolNext next);

  RpcService rpc_;
  int socket_ = 0;  // 0: no service yet
  uint16_t port_ = 0;
  uint32_t socketMask_ = 0;
  SVCXPRT* v4_ = nullptr;  // owned by rpc_
  SVCXPRT* v6_ = nullptr;
  DefaultHandler defaultHandler_;
  ToolHandler* handler_ = &defaultHandler_;
  ToolHandler* info_ = nullptr;
  ToolNext next_ = ToolNext::kGoOn;  // the end a handler asked for
};

#endif  // KVRPC_TOOLSERVICE_H_
