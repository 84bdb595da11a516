// Stop: the process-wide request to stop, raised by the signal thread and
// watched by every long wait or loop (hashing, Timestamp Server exchanges,
// back-off sleeps), so that a SIGTERM ends the worker promptly wherever it is.
//
// Process-wide by nature, and with the signal thread one of the two
// exceptions to "state is owned by main and handed down" (the other: which
// log target is installed, base/Log.h): a stop signal is delivered to the
// process, not to an object, and requestStop must work where nothing can be reached (a signal
// handler, a library deep in a wait). The flag and its wake-up pipe are the
// only state kept here; the decisions about the worker's end live in its
// WorkerEnd (kavlet/WorkerEnd.h).
//
// requestStop is async-signal-safe and may be called from any thread; the
// others may be called from any thread too. A request cannot be taken back.
#ifndef BASE_STOP_H_
#define BASE_STOP_H_

// Raises the stop request: stopRequested() turns true and stopWakeFd() becomes
// readable. Calling it again changes nothing.
void requestStop();

// True once a stop has been requested.
bool stopRequested();

// A descriptor that becomes readable once a stop has been requested (and
// stays readable): poll it beside a socket to wake at once. Never read it.
int stopWakeFd();

// Sleeps up to milliseconds (0 or less: not at all). true as soon as a stop
// is requested (at once when one was requested before), false when the time
// ran out.
bool waitForStop(int milliseconds);

// In a process just forked from this one, before it starts any thread: a
// wake-up descriptor of its own (same number), so that a stop of either
// process does not wake the other. A stop requested before the fork stays.
void renewStopAfterFork();

#endif  // BASE_STOP_H_
