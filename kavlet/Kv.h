// kv: the worker's entries from outside and the one way the worker process
// ends. The KV's orders and control messages reach the Kavlet as the tool
// service's handler (Kavlet::onWorkOrder, Kavlet::onControlMessage); signals
// and console events are decided here (onStopSignal, onConsoleEvent). Each
// says what happens next (ToolNext); only endProcess ends the process, called
// by main once the service loop has returned, and by the signal thread. The
// designed entries callback, ctrl, sig_handler and sigwin_handler are thin
// wrappers that decide and end the process when asked.
//
// Threading: the KV's requests are handled on the main thread inside the RPC
// service loop; signals and console events on the signal thread
// (kavlet/Signals.h), in ordinary thread context, never inside an
// asynchronous signal handler. kvWorkerLock keeps them apart: the main
// thread holds it while it registers, works on an order (including the
// order's KVop) or handles a control message, and the signal thread holds
// it from the goodbye to the end of the process. So KVbye never runs on the
// KV client's state at the same time as KVhi or KVop, and the Kavlet is never
// destroyed under a running order. The wait is short: the signal thread has
// raised the stop request (base/Stop.h) first, hashing and Timestamp Server
// exchanges give up on it, and a document cut short that way is left
// unchanged and not reported (Kavlet::work). A document that ended before
// the stop is reported as usual. Once a stop is requested, onWorkOrder takes no
// further order and leaves the ending to the signal thread.
#ifndef KAVLET_KV_H_
#define KAVLET_KV_H_

#include <atomic>
#include <mutex>

#include "kvrpc/ToolHandler.h"

// 1 once the KV has ordered the exit; a signal then only logs.
extern std::atomic<int> exitInProgress;

// The lock described above. Recursive, so that a handler called on a thread
// that already holds it does not deadlock.
std::recursive_mutex& kvWorkerLock();

// Ends the process with status, without the C runtime's exit handlers: the
// signal and reporter threads may still run, and a late request must not reach
// torn-down state. Takes kvWorkerLock for good (a signal arriving now waits
// instead of saying goodbye under the ending), destroys theKavlet, writes the
// last summary and metrics (kavlet/Reporter.h) and flushes the log and stdio.
[[noreturn]] void endProcess(int status);

// A stop signal: says goodbye to the KV and asks for exit status 1 (kExitError),
// unless the KV's exit order is already being carried out (kGoOn: only logged).
// On kExitError kvWorkerLock stays held, for endProcess.
ToolNext onStopSignal(int signal);

// Console control events, as the signal thread maps the signals to them.
constexpr int kConsoleBreakEvent = 1;   // SIGQUIT
constexpr int kConsoleCloseEvent = 2;   // SIGTERM
constexpr int kConsoleLogoffEvent = 5;  // SIGHUP
// A console event: the log-off event is ignored (kGoOn, not logged); any
// other is the stop signal 15.
ToolNext onConsoleEvent(int event);

// The designed entries, each the decision above and endProcess when it asks
// for the end. callback: Kavlet::onWorkOrder (without a Kavlet: "Internal
// error", goodbye, exit status 1). ctrl: Kavlet::onControlMessage; returns the
// reply. sigwin_handler returns 1 (handled) when it returns at all.
void callback(int order, const char* directory);
int ctrl(int code, const char* text);
void sig_handler(int signal);
int sigwin_handler(int event);

#endif  // KAVLET_KV_H_
