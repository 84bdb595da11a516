// kv: the worker's entries from outside: the order and control callbacks
// that the tool service calls, and the handlers of signals and console
// events. All reach the one Kavlet through theKavlet.
//
// Threading: callback and ctrl run on the main thread inside the RPC service
// loop; sig_handler and sigwin_handler run on the signal thread
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
// the stop is reported as usual. Once a stop is requested, callback takes no
// further order and leaves the ending to the signal thread.
#ifndef KAVLET_KV_H_
#define KAVLET_KV_H_

#include <atomic>
#include <mutex>

// 1 once the KV has ordered the exit; a signal then only logs.
extern std::atomic<int> exitInProgress;

// The lock described above. Recursive, so that a handler called on a thread
// that already holds it does not deadlock.
std::recursive_mutex& kvWorkerLock();

// The order callback: works on the document directory and ends the process
// (exit code 1) when the KV does not accept the report.
void callback(int order, const char* directory);
// The control callback: code 0 is the exit order (ends the process with
// exit code 0 at once); any other code goes to Kavlet::control, whose result
// (1) it returns.
int ctrl(int code, const char* text);
// A signal: says goodbye to the KV and ends the process with exit code 1,
// unless the KV's exit order is already being carried out.
void sig_handler(int signal);

// Console control events, as the signal thread maps the signals to them.
constexpr int kConsoleBreakEvent = 1;   // SIGQUIT
constexpr int kConsoleCloseEvent = 2;   // SIGTERM
constexpr int kConsoleLogoffEvent = 5;  // SIGHUP
// A console event: the log-off event is ignored; any other ends the worker
// through sig_handler(15). Returns 1 (handled) when it returns at all.
int sigwin_handler(int event);

#endif  // KAVLET_KV_H_
