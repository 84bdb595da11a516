// ToolHandler: what the tool's callback service (ToolService.h) hands the
// KV's requests to, and what the handler wants to happen next.
//
// A handler never ends the process itself: it says so in its result, the
// service stops its loop, and the one who runs the loop (the worker's main)
// ends the process. So the decision to end it is taken in one place.
//
// Threading: the service calls its handlers on the thread of its loop.
#ifndef KVRPC_TOOLHANDLER_H_
#define KVRPC_TOOLHANDLER_H_

// What happens after a request was handled.
enum class ToolNext {
  kGoOn,       // serve the next request
  kExitOk,     // end the process with exit status 0
  kExitError,  // end the process with exit status 1
};

// The exit status that next asks for (0 for kGoOn).
inline int toolExitStatus(ToolNext next) { return next == ToolNext::kExitError ? 1 : 0; }

class ToolHandler {
 public:
  ToolHandler() = default;
  ToolHandler(const ToolHandler&) = delete;
  ToolHandler& operator=(const ToolHandler&) = delete;
  virtual ~ToolHandler() = default;

  // A work order, called after the KV's call has been acknowledged: number
  // is the work mode, text the document directory (null when sent so).
  virtual ToolNext onWorkOrder(int number, const char* text) = 0;
  // A control message (text may be null). *reply is the answer sent back
  // when the result is kGoOn; with any other result nothing is answered.
  virtual ToolNext onControlMessage(int code, const char* text, int* reply) = 0;
  // An information message (note the order: text first); never answered.
  // Called only on the handler installed for them (ToolService::setInfoHandler).
  virtual void onInfoMessage(const char* text, int number) {
    (void)text;
    (void)number;
  }
};

#endif  // KVRPC_TOOLHANDLER_H_
