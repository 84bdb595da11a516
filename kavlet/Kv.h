// kv: the worker's entries from outside and how the worker ends. The KV's
// orders and control messages reach the Kavlet as the tool service's handler
// (Kavlet::onWorkOrder, Kavlet::onControlMessage); signals and console events
// are decided by the worker's WorkerEnd (kavlet/WorkerEnd.h). Each says what
// happens next (ToolNext). Nothing here ends the process: main does, once
// connectKV has returned, with the status finishWorker gives it.
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
// thread, under the worker lock (WorkerEnd::lock).
#ifndef KAVLET_KV_H_
#define KAVLET_KV_H_

#include <memory>

#include "kavlet/WorkerEnd.h"
#include "kvrpc/ToolHandler.h"

class Kavlet;

// The end of the worker, for main once connectKV has returned (or init
// failed): after a stop signal, unless the KV's exit order came first, says
// goodbye to the KV and makes the status 1; after a designed entry asked
// for an end, makes the status the one it asked for. Then stops the signal
// thread, writes the last summary (to the worker's log) and metrics (the
// worker's Reporter, kavlet/Reporter.h), destroys worker, which closes its
// log, and flushes stdio. Holds the worker lock until the worker goes.
// Returns the exit status for main to end the process with.
int finishWorker(std::unique_ptr<Kavlet> worker, int status);

// The designed entries, each the decision of kavlet/WorkerEnd.h; an end it
// asks for raises the stop request and gives finishWorker its status.
// callback: worker->onWorkOrder (without a worker: "Internal error" and the
// stop request; there is no worker whose goodbye could be said). ctrl:
// worker->onControlMessage; returns the reply (1 without a worker). worker:
// borrowed for the call.
void callback(Kavlet* worker, int order, const char* directory);
int ctrl(Kavlet* worker, int code, const char* text);

#endif  // KAVLET_KV_H_
