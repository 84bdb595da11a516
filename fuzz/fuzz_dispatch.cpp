// Feeds arbitrary datagrams through the callback service's decoding and
// dispatch, as if each had arrived on its UDP port: call header, argument
// decoding, every procedure's branch, and the replies (which go to a local
// sink socket that is emptied after each input).
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz/DiscardedLog.h"
#include "kvrpc/ToolService.h"
#include "rpc/SvcUdp.h"

namespace {

volatile size_t sink;

class FuzzHandler : public ToolHandler {
 public:
  ToolNext onWorkOrder(int number, const char* text) override {
    sink = static_cast<size_t>(number) + strlen(text);
    return ToolNext::kGoOn;
  }
  ToolNext onControlMessage(int number, const char* text, int* reply) override {
    *reply = number + static_cast<int>(strlen(text));
    return number == 0 ? ToolNext::kExitOk : ToolNext::kGoOn;
  }
  void onInfoMessage(const char* text, int number) override {
    sink = static_cast<size_t>(number) + strlen(text);
  }
};

FuzzHandler handler;

struct Service {
  ToolService tool;
  SVCXPRT* transport = nullptr;
  int replySocket = -1;
  sockaddr_in replyTo{};

  Service() {
    // Decoding errors are logged at level 2.
    static DiscardedLog quiet;
    if (tool.create(0) < 0) abort();
    tool.setHandler(&handler);
    transport = tool.transport(false);
    replySocket = socket(AF_INET, SOCK_DGRAM, 0);
    replyTo.sin_family = AF_INET;
    replyTo.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof replyTo;
    if (replySocket < 0 || bind(replySocket, reinterpret_cast<sockaddr*>(&replyTo), len) != 0 ||
        getsockname(replySocket, reinterpret_cast<sockaddr*>(&replyTo), &len) != 0) {
      abort();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Service service;
  // Both branches of the info procedure: with and without a handler.
  service.tool.setInfoHandler(size % 2 ? &handler : nullptr);
  svcudp_dispatch(service.transport, data, size, reinterpret_cast<sockaddr*>(&service.replyTo),
                  sizeof service.replyTo);
  char reply[9000];
  while (recv(service.replySocket, reply, sizeof reply, MSG_DONTWAIT) > 0) {
  }
  // An input that ended the service (work mode 2, control code 0) must not
  // silence the next one.
  service.tool.takeNext();
  return 0;
}
