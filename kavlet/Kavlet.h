// Kavlet: the base class of every worker program of the pipeline.
//
// A Kavlet owns the settings all workers share (KV host, port and directory,
// worker type, log file and level, test mode), reads them from setup packages,
// the environment and the command line, sets up logging and prints the
// common usage, settings and version texts. A tool derives from it, overrides
// the virtual operations below and implements service().
//
// Settings are taken in this order, later sources winning: constructor
// defaults; setup packages ("COMMON", read by main, then the -env packages),
// which set environment variables; the environment (readEnvironment); the
// command line (parseArgv).
//
// Lifetime: main creates exactly one Kavlet (through the tool class) and
// hands it to finishWorker (kavlet/Kv.h), which destroys it at the end.
//
// After init, main calls connectKV: in test mode (-test) the work cycle runs
// over the document directories under -testpath; otherwise the worker
// registers with the KV as the tool service's handler and serves its orders
// in the RPC service loop, until a handler asks for the end (the KV's exit
// order or last order, a failed report, a stop signal) and connectKV returns
// to main, which ends the worker (finishWorker, kavlet/Kv.h).
//
// Logging: a Kavlet owns its log target and installs it for its lifetime
// (base/LogTarget.h). Until initLog gives it its file and levels, it logs as
// the target installed when the Kavlet was made did (the levels and event
// prefix main set up), on standard error.
//
// Metrics: a Kavlet owns its Metrics (base/Metrics.h), made with it and so
// before test mode forks its worker processes, and lends it to its reporter,
// its work cycle and whatever of the tool counts.
//
// Threading: everything runs on the main thread except the signal thread
// (kavlet/Signals.h), which reaches only the worker's WorkerEnd and its log
// target, and the reporter's background thread (kavlet/Reporter.h).
//
// Results follow the framework's rule: 1 for success, 0 for failure.
#ifndef KAVLET_KAVLET_H_
#define KAVLET_KAVLET_H_

#include <memory>
#include <string>
#include <vector>

#include "base/Environment.h"
#include "base/FileSystem.h"
#include "base/LogTarget.h"
#include "base/Metrics.h"
#include "base/Notify.h"
#include "base/String.h"
#include "docfiles/Document.h"
#include "kavlet/Reporter.h"
#include "kavlet/WorkerEnd.h"
#include "kvrpc/KVclient.h"
#include "kvrpc/ToolHandler.h"

class SettingsLine;

class Kavlet : public ToolHandler {
  // First of all members, so that everything the worker logs, from its
  // construction to its destruction, goes to its own target.
  LogTarget logTarget_;
  LogTarget::Installation logInstallation_;

 public:
  static constexpr int kDefaultKvPort = 4032;

  // Sets the defaults and blocks the stop signals for the signal thread.
  // The setup packages are stored in env and every setting is read from it;
  // env must outlive the worker.
  explicit Kavlet(Environment& env);
  Kavlet(const Kavlet&) = delete;
  Kavlet& operator=(const Kavlet&) = delete;

  // The virtual operations keep this order; tools built against the
  // framework override them slot by slot.

  virtual ~Kavlet();
  // Handles a control message from the KV (code, text; text may be null).
  // Returns 1.
  virtual int control(int code, const char* text);
  // Creates the Document for directory and worker type and stores it in
  // document. Returns 1, or 0 when there is none.
  virtual int createDocument(const char* directory, const char* workerType);
  // Called before registering with the KV; 0 stops the start. Base: 1.
  virtual int checkBeforeConnect();
  // Program name, socket start-up, -env packages, environment, command line,
  // logging. Derived classes call it first. Returns 1 when the worker is
  // ready, 0 when it is not or after the usage ("-h", an unknown option:
  // usageShown, for exit code 0).
  virtual int init(int argc, char** argv);
  // Prints the settings to standard error.
  virtual void printObject();
  // The tool's work on one document directory (document is open): 1 done,
  // 0 failed; 2 or more is reported through extendedKVop. The one-shot
  // variant (connectKVForService) calls it once with a null directory and
  // no document.
  virtual int service(const char* directory) = 0;
  // Reports a service result of 2 or more for directory to the KV; returns
  // the result of the report (0 when the KV accepted it).
  virtual int extendedKVop(int result, const char* directory);
  // Called by parseArgv for each argument the base does not know; *position
  // is that argument's index. Returns 1 when the argument (and its value,
  // *position then designating the value) was taken, 0 when it is unknown,
  // which ends the start with the usage. Base: 0.
  virtual int parseOneArgument(int argc, char** argv, int* position);
  // Called for a control word the base does not know; *position is the
  // word's index in words. Returns 1 when taken, with *position left on the
  // last word it consumed (the walk goes on after it), 0 when the word is
  // refused. Base: 0.
  virtual int parseAdditionalKvctrlArguments(std::vector<String>& words, int* position);
  // The usage printers, each under its heading of printUsage; all write to
  // standard error.
  virtual void printAddOnUsage();
  virtual void printArgsUsage();
  virtual void printCommandsUsage();
  virtual void printKvctrlUsage();
  virtual void printEnvUsage();
  virtual void printHintsUsage();
  virtual void printVersion();
  // Reads the common environment variables (KVHOST, LOGLEVEL, KVPORT, KVDIR).
  virtual void readEnvironment();
  // Log file, ZEPH_SRV_LOG, the -parafile package and the numeric log level.
  virtual void initLog();

  // Where this worker logs: its file, levels and event prefix.
  LogTarget& logTarget() { return logTarget_; }
  const LogTarget& logTarget() const { return logTarget_; }

  // Takes the program name from path: the part after the last "/" (or "\"),
  // without a ".exe"/".EXE" suffix when something remains before it. Sets
  // name and type. Returns 1.
  int setProgname(const char* path);
  // Applies the command-line options (see printArgsUsage). "-h" or an
  // unknown option print the usage, set usageShown and stop the parsing.
  void parseArgv(int argc, char** argv);
  // Prints the usage with all its sections to standard error.
  void printUsage();
  // Logs its call and returns 0.
  int makeKVDir();
  // Adds the framework's settings in effect (worker type, mode, KV, KV
  // directory, log file and level) to the start-up settings line.
  void describeSettings(SettingsLine* line) const;

  // --- The work cycle (kavlet/Work.cpp, kavlet/TestMode.cpp) ---

  // Works on one document: creates the Document, runs service, writes the
  // COMMANDS changes and the protocol, and reports the outcome to the KV
  // (a failure while a stop is requested is not reported: see kavlet/Kv.h).
  // Returns, outside test mode, the result of the report (0 when the KV
  // accepted it, else the KV's result-report code); in test mode the
  // tool's result (1 done, 0 failed) and nothing is sent.
  int work(const char* directory);
  // Test mode: works on every subdirectory of testPath (or on testPath
  // itself when it has none), in byte order, atoi(testCount) times (at
  // least once), printing one line per document to standard output.
  // With testJobs above 1, that many worker processes (kavlet/SideBySide.h)
  // work on documents side by side; the lines keep the order and form of a
  // run one after the other. After a stop no further document is started.
  // Returns 1 when every document was done, 0 otherwise (in a worker
  // process: 1 when it ended).
  int test();
  // The local time as "[%Y/%m/%d %H:%M:%S] "; empty when it cannot be had.
  static std::string getTime();

  // --- The KV's requests (kavlet/Kv.cpp) ---

  // A work order: works on the document directory (work). kExitError when
  // the KV did not accept the report or a stop is requested (which ends
  // the service loop); kGoOn otherwise.
  ToolNext onWorkOrder(int order, const char* directory) override;
  // A control message: code 0 is the KV's exit order (kExitOk, nothing
  // answered); any other goes to control, whose result is *reply.
  ToolNext onControlMessage(int code, const char* text, int* reply) override;

  // --- Connecting to the KV (kavlet/Connect.cpp) ---

  // Test mode, or registration and the RPC service loop with this object as
  // the handler. Returns the result of test mode; after serving, 1 when the
  // KV ended the service (its exit order or last order) and 0 when it ended
  // otherwise (a failed report, a failed loop, a stop, checkBeforeConnect
  // refusing the start, a failed registration: then exit code 1).
  int connectKV();
  // The one-shot variant: registers, runs service once without a document,
  // says goodbye and returns service's result (test mode: its result); a
  // failed registration gives 0 for exit code 1, else its exit code.
  int connectKVForService();
  int connectToKV(ToolHandler* handler);
  int connectToKVForService(ToolHandler* handler);
  // Registers with the KV on host under type. Returns the registration
  // result (0 or more); a refused or failed registration is logged and
  // gives the negated exit code the worker ends with: 1 in the serving
  // variant (forService 0), in the one-shot variant 1 for a refusal or an
  // unknown own address and the negated result for any other failure.
  int callKVhi(ToolHandler* handler, const char* host, int forService);
  // The RPC service loop; returns what ended it (ToolService::serve).
  ToolNext run();

  // Settings, in the order the framework has always kept them. Public: the
  // tool, the control callbacks and the work cycle read and set them.
  String parafile;      // -parafile: setup package read in initLog
  String kvDir;         // KVDIR, with "\" turned into "/"
  String kvHost;        // KV host; the local host name by default
  int kvPort;           // KV port
  String serverLogDir;  // ZEPH_SRV_LOG, read in initLog
  String logFile;       // log file; <type>.log when not given
  int logLevel;         // numeric log level 0-12
  String name;          // program name
  String testCount;     // non-empty: test mode; the count or "-test"
  String testPath;      // -testpath: directory worked on in test mode
  int testJobs;         // -jobs: documents worked on at a time in test mode (1 or more)
  String type;          // worker type registered with the KV
  String errorComment;  // comment of a failed document
  String okComment;     // comment of a processed document
  // The document in hand, only during one order.
  std::unique_ptr<Document> document;
  // What the documents' files are written through; borrowed, the system's
  // unless a test puts a double here.
  FileSystem* fileSystem = &FileSystem::posix();
  // Handed to every document; read from the environment by init.
  DocumentOptions documentOptions;
  // The worker's calls to the KV: registration, reports, goodbye.
  KvClient kvClient;
  int kvTest;              // set by the control words kvTestOn/kvTestOff
  String curErrorComment;  // errorComment for the document in hand
  String errorStatus;      // status word of a failed document
  String curOkComment;     // okComment for the document in hand
  String okStatus;         // status word of a processed document
  int suspendTime;
  bool usageShown = false;  // the usage was printed for "-h" or an unknown option

  // Where the worker's settings live.
  Environment& env() const { return env_; }
  // The operators' alarm channel, with the notify file (KV_NOTIFY_FILE) as
  // init found it.
  Notifier& notifier() { return *notifier_; }
  // What the KV's orders, signals and console events decided about the end.
  WorkerEnd& workerEnd() { return end_; }
  // What the worker counts, shared with its test-mode worker processes;
  // lent to whatever counts.
  Metrics& metrics() { return metrics_; }
  // The summary line and the metrics file.
  Reporter& reporter() { return reporter_; }

 private:
  Environment& env_;
  std::unique_ptr<Notifier> notifier_;
  WorkerEnd end_;
  Metrics metrics_;  // before the reporter, which reads it until its end
  Reporter reporter_;
  // Blocks SIGINT, SIGTERM, SIGQUIT and SIGHUP until the signal thread
  // takes them (kavlet/Signals.h), which connectKV starts.
  void installHandlers();
  // Reads the -env setup packages named on the command line.
  void readEnvPackages(int argc, char** argv);
};

#endif  // KAVLET_KAVLET_H_
