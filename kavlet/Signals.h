// Signals: the worker's signal thread.
//
// A Linux worker gets the stop requests that a console program elsewhere
// gets as console events. They are not handled in asynchronous signal
// handlers, which could run in the middle of anything the worker does:
// SIGINT, SIGTERM, SIGQUIT and SIGHUP are blocked in the main thread as soon
// as the Kavlet exists (a signal that comes early stays pending), and so in
// every thread it starts later; once the process will not fork any more
// (kavlet/SideBySide.h), one thread takes them with sigwait and hands them,
// in ordinary thread context, to the WorkerEnd (kavlet/WorkerEnd.h) of the
// worker that started it:
//   SIGINT  -> signal(2)
//   SIGTERM -> consoleEvent(close event)   (service stop, shutdown)
//   SIGQUIT -> consoleEvent(break event)
//   SIGHUP  -> consoleEvent(log-off event), which ignores it, so the
//              worker survives a closed terminal.
// Every signal but SIGHUP then raises the process-wide stop request
// (base/Stop.h), which cuts the order in hand short and lets main end the
// worker (kavlet/Kv.h); the thread itself ends nothing.
//
// Process-wide by nature: signals are delivered to the process, so there is
// one signal thread per process, and its thread handle and started flag are
// the only state kept here. That is the rule: one worker per process starts
// it, and stops it (stopSignalThread, from finishWorker) before that
// worker's WorkerEnd goes.
// Child processes inherit the blocked mask across exec; a worker that starts
// programs must unblock the signals in the child.
#ifndef KAVLET_SIGNALS_H_
#define KAVLET_SIGNALS_H_

#include <csignal>

class WorkerEnd;

// Blocks the four signals in the calling thread.
void blockWorkerSignals();

// Blocks the four signals in the calling thread and starts the signal thread
// on the first call, handing the signals to end (borrowed until
// stopSignalThread); later calls only block them in the calling thread.
// Returns 1, or 0 when the thread could not be started (the signals then
// keep their default actions).
int startSignalThread(WorkerEnd* end);

// Ends the signal thread and waits for it, from the main thread at the end
// of the process (later signals stay pending). Only the first call acts.
void stopSignalThread();

// The console event a signal stands for, or -1 for a signal that is not
// mapped to one (SIGINT goes to WorkerEnd::signal directly).
int consoleEventForSignal(int signal);

// Fills set with the signals the signal thread takes.
void workerSignalSet(sigset_t* set);

#endif  // KAVLET_SIGNALS_H_
