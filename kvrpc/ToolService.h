// ToolService: the tool's own callback program, through which the KV hands
// it work orders, control messages and information messages.
//
// The service listens on one ephemeral UDP port with two sockets, IPv4 and
// (when the host has it) IPv6. It is created once per process by KVhi or
// KVinfo and lives until the process ends. The callbacks it calls are module
// state shared with the KV client calls (KVclient.h), which install and reset
// them.
//
// Threading: everything runs on the thread of svc_run. The work callback runs
// inside the dispatch of a work order, so further requests wait in the
// socket's queue until it returns.
#ifndef KVRPC_TOOLSERVICE_H_
#define KVRPC_TOOLSERVICE_H_

#include <cstdint>

#include "kvrpc/KVprot.h"

struct SVCXPRT;
struct svc_req;

// Work order: number is the work mode, text the document directory.
typedef void (*ToolWorkCallback)(int number, const char* text);
// Control message: code and message text; the result is the reply.
typedef int (*ToolCtrlCallback)(int number, const char* text);
// Information message; note the order: text first.
typedef void (*ToolInfoCallback)(const char* text, int number);

// Creates the IPv4 service on an ephemeral port and an IPv6 one on the same
// port, both dispatching to ToolDispatch and serving only the callers that
// KvSenders.h accepts. protocol is passed on to the
// registration (kept for the record only; no port mapper is contacted).
// Returns the IPv4 socket, or -1 when the IPv4 service cannot be made; a
// missing IPv6 service is logged and tolerated.
int ToolCreateService(int protocol);

// The dispatch routine of TOOLPROG version 1. A work order is acknowledged
// (int 1) before the work callback runs, and not worked at all when the
// acknowledgement cannot be sent: the KV repeats unacknowledged orders. Work
// mode 2 ends the process (status 0) after the work. Procedures of 4 or more,
// and procedure 3 without an info callback, get PROC_UNAVAIL; arguments that
// do not decode get GARBAGE_ARGS.
void ToolDispatch(svc_req* request, SVCXPRT* transport);

// Default work callback: logs the order and does nothing.
void DefaultWorker(int number, const char* text);
// Default control callback: logs the message and ends the process (status 0).
int DefaultCtrl(int number, const char* text);

// The IPv4 service socket, or 0 when no service exists yet.
int ToolServiceSocket();
// The services' UDP port (host order), 0 before ToolCreateService.
uint16_t ToolServicePort();
// Bit (socket % 32) of the service socket.
uint32_t ToolSocketMask();
// The transports of the services (IPv6: null when the host has none).
SVCXPRT* ToolServiceTransport(bool ipv6);

// Installs callbacks; a null argument keeps the one in place.
void ToolSetCallbacks(ToolWorkCallback work, ToolCtrlCallback ctrl);
// Back to DefaultWorker and DefaultCtrl.
void ToolResetCallbacks();
// Installs the info callback; null removes it.
void ToolSetInfoCallback(ToolInfoCallback info);

// How the module ends the process (exit by default). Tests and the fuzz
// target replace it so that the process survives a work order of mode 2.
void ToolSetExitFunction(void (*exitFn)(int status));

#endif  // KVRPC_TOOLSERVICE_H_
