// kv: the worker's entries from outside and how the worker ends. The KV's
// orders and control messages reach the Kavlet as the tool service's handler
// (Kavlet::onWorkOrder, Kavlet::onControlMessage); signals and console events
// are decided here (onStopSignal, onConsoleEvent). Each says what happens
// next (ToolNext). Nothing here ends the process: main does, once connectKV
// has returned, with the status finishWorker gives it.
//
// Threading: the KV's requests are handled on the main thread inside the RPC
// service loop; signals and console events on the signal thread
// (kavlet/Signals.h), in ordinary thread context, never inside an
// asynchronous signal handler. A stop signal only raises the stop request
// (base/Stop.h): hashing and Timestamp Server exchanges give up on it, a
// document cut short that way is left unchanged and not reported
// (Kavlet::work), a document that ended before the stop is reported as
// usual, no further order is taken, the RPC service loop and test mode end,
// and connectKV returns. finishWorker then says the goodbye on the main
// thread, so KVbye never runs on the KV client's state at the same time as
// KVhi or KVop. kvWorkerLock is held by the main thread while it registers,
// works on an order or handles a control message, and by finishWorker from
// then on.
#ifndef KAVLET_KV_H_
#define KAVLET_KV_H_

#include <atomic>
#include <memory>
#include <mutex>

#include "kvrpc/ToolHandler.h"

class Kavlet;

// 1 once the KV has ordered the exit; a signal then only logs, and no goodbye
// is said.
extern std::atomic<int> exitInProgress;

// The lock described above. Recursive, so that a handler called on a thread
// that already holds it does not deadlock.
std::recursive_mutex& kvWorkerLock();

// The end of the worker, for main once connectKV has returned (or init
// failed): after a stop signal, unless the KV's exit order came first, says
// goodbye to the KV and makes the status 1; after a designed entry asked
// for an end, makes the status the one it asked for. Then stops the signal
// thread, writes the last summary (to the worker's log) and metrics
// (kavlet/Reporter.h), destroys worker, which closes its log, and flushes
// stdio. Takes kvWorkerLock for good. Returns the exit status for main to
// end the process with.
int finishWorker(std::unique_ptr<Kavlet> worker, int status);

// A stop signal: asks for the goodbye and exit status 1 (kExitError; the
// caller raises the stop request), unless the KV's exit order is already
// being carried out (kGoOn: only logged).
ToolNext onStopSignal(int signal);

// Console control events, as the signal thread maps the signals to them.
constexpr int kConsoleBreakEvent = 1;   // SIGQUIT
constexpr int kConsoleCloseEvent = 2;   // SIGTERM
constexpr int kConsoleLogoffEvent = 5;  // SIGHUP
// A console event: the log-off event is ignored (kGoOn, not logged); any
// other is the stop signal 15.
ToolNext onConsoleEvent(int event);

// The designed entries, each the decision above; an end it asks for raises
// the stop request and gives finishWorker its status. callback:
// worker->onWorkOrder (without a worker: "Internal error", then the goodbye
// from finishWorker, exit status 1). ctrl: worker->onControlMessage; returns the reply (1 without a
// worker). sigwin_handler returns 1 (handled). worker: borrowed for the call.
void callback(Kavlet* worker, int order, const char* directory);
int ctrl(Kavlet* worker, int code, const char* text);
void sig_handler(int signal);
int sigwin_handler(int event);

#endif  // KAVLET_KV_H_
