// Reporter: what a running worker tells its operator besides its errors.
//   - The summary line (level 3): documents done and failed, files stamped,
//     seconds and documents per second since the reporter started; at the
//     end of a test run, every hour while serving the KV, and when a serving
//     worker ends.
//   - The metrics file named by CLOCKETTE_METRICS_FILE (base/Metrics.h):
//     written when something changed, at most once a minute, and at exit.
//
// One reporter per process. reporterStart starts a background thread when
// there is something to do in the background; reporterFinish may be called
// from any thread, more than once (only the first call acts); the worker's
// end (finishWorker, kavlet/Kv.h) calls it.
#ifndef KAVLET_REPORTER_H_
#define KAVLET_REPORTER_H_

#include <string>

// Starts reporting; serving: the worker serves the KV (hourly summary and a
// summary at the end). Only the first call acts.
void reporterStart(bool serving);

// The summary line's text for what was counted so far.
std::string reporterSummary();

// Ends reporting: logs the summary when serving and writes the metrics file.
void reporterFinish();

#endif  // KAVLET_REPORTER_H_
