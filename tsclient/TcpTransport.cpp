#include "tsclient/TcpTransport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include "base/Log.h"
#include "base/Owners.h"
#include "base/Resolver.h"
#include "base/Stop.h"
#include "base/SystemError.h"

namespace {

const char kComponent[] = "zpTrequest";
constexpr int kConnectAttempts = 10;
constexpr int kRefusedRetryMs = 1000;
constexpr unsigned char kTsaMsg = 0;       // flag of a request
constexpr unsigned char kFinalMsgRep = 5;  // flag of the final answer
constexpr unsigned int kHeaderSize = 5;    // length and flag

bool notWorking(const unsigned char* data, uint64_t used) {
  return used == 2 && data[0] == 0x05 && data[1] == 0x00;
}

// Connects fd to addr within timeoutMs. 0, or an errno value.
int connectWithin(int fd, const sockaddr* addr, socklen_t len, long long timeoutMs) {
  int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  int err = 0;
  if (connect(fd, addr, len) != 0) {
    err = errno;
    if (err == EINPROGRESS) {
      pollfd p[2] = {{fd, POLLOUT, 0}, {stopWakeFd(), POLLIN, 0}};
      int r;
      do {
        r = poll(p, 2, static_cast<int>(timeoutMs < 0 ? 0 : timeoutMs));
      } while (r < 0 && errno == EINTR);
      if (r == 0) {
        err = ETIMEDOUT;
      } else if (r < 0) {
        err = errno;
      } else if (p[1].revents != 0) {
        err = ECANCELED;  // the worker is stopping
      } else {
        socklen_t errLen = sizeof err;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errLen) != 0) err = errno;
      }
    }
  }
  fcntl(fd, F_SETFL, flags);
  return err;
}

// Receives until the peer closes, the buffer is full, an error, deadlineMs
// passes (then errno is ETIMEDOUT) or a stop is requested (ECANCELED).
// Returns the number of bytes received.
uint64_t receiveAll(int fd, unsigned char* buffer, uint64_t capacity, long long deadlineMs) {
  uint64_t used = 0;
  while (used < capacity) {
    long long left = deadlineMs - steadyNowMs();
    if (left <= 0) {
      errno = ETIMEDOUT;
      break;
    }
    pollfd p[2] = {{fd, POLLIN, 0}, {stopWakeFd(), POLLIN, 0}};
    int r = poll(p, 2, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) {
      errno = ETIMEDOUT;
      break;
    }
    if (r > 0 && p[1].revents != 0) {
      errno = ECANCELED;
      break;
    }
    ssize_t got = r < 0 ? -1 : recv(fd, buffer + used, capacity - used, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // closed by the peer, or an error (errno kept)
    used += static_cast<uint64_t>(got);
  }
  return used;
}

// openSocket, giving up after connectTimeoutS or at notAfterMs (steady
// clock), whichever comes first.
int openSocketBefore(const char* host, uint16_t port, int preference, long connectTimeoutS,
                     long long notAfterMs) {
  Log log(kComponent, "openSocket", __FILE__, __LINE__, 13);
  if (port == 0) return -1;
  HostAddressList addresses;
  if (resolveHost(host, preference, &addresses) != 0) {
    log.msg(__LINE__, 2, "timestamp server host %s unknown", maskCredentials(host).c_str());
    return -1;
  }
  HostAddress address = addresses.front();
  address.setPort(port);
  // Refused connections are retried (the server may be restarting), but
  // never beyond the connect time-out.
  long long deadline = std::min(steadyNowMs() + connectTimeoutS * 1000LL, notAfterMs);
  int fd = -1;
  int err = 0;
  for (int attempt = 0; attempt < kConnectAttempts; ++attempt) {
    UniqueFd sock(socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) {
      err = errno;
      break;
    }
    err = connectWithin(sock.get(), address.sa(), address.len, deadline - steadyNowMs());
    if (err == 0) {
      fd = sock.release();
      break;
    }
    if (err != ECONNREFUSED || attempt + 1 == kConnectAttempts ||
        steadyNowMs() + kRefusedRetryMs >= deadline) {
      break;
    }
    if (waitForStop(kRefusedRetryMs)) {
      err = ECANCELED;
      break;
    }
  }
  log.msg(__LINE__, 10, "made new socket FD%d", fd);
  if (fd < 0) {
    char text[NI_MAXHOST + 2];
    log.msg(__LINE__, 2,
            "cannot connect to timestamp server host %s, port %d, addr %s, errno=%d(%s)",
            maskCredentials(host).c_str(), port, addressText(address.sa(), 0, text, sizeof text),
            err, systemError(err).c_str());
    return -1;
  }
  sockaddr_storage local{};
  socklen_t localLen = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen);
  int localPort =
      ntohs(local.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                                        : reinterpret_cast<sockaddr_in*>(&local)->sin_port);
  log.msg(__LINE__, 10, "connected local port %d to remote port %d on FD%d", localPort, port, fd);
  return fd;
}

}  // namespace

std::vector<unsigned char> tcpRequestFrame(const std::vector<unsigned char>& der) {
  const uint32_t length = static_cast<uint32_t>(der.size() + 1);
  std::vector<unsigned char> frame(kHeaderSize + der.size());
  for (int i = 0; i < 4; ++i) frame[i] = static_cast<unsigned char>(length >> (24 - 8 * i));
  frame[4] = kTsaMsg;
  std::copy(der.begin(), der.end(), frame.begin() + kHeaderSize);
  return frame;
}

TcpReply readTcpReply(const unsigned char* data, uint64_t used, uint64_t capacity) {
  if (notWorking(data, used)) return {0, 0, false};
  // A reply too short to hold the frame header is no timestamp either.
  if ((used > kHeaderSize && data[4] != kFinalMsgRep) || (used > 0 && used <= kHeaderSize)) {
    return {-10, 0, false};
  }
  // The frame says how long the answer is: one that ends early was cut off
  // on the way and is worth another attempt.
  bool cutShort = false;
  if (used >= kHeaderSize && used < capacity) {
    uint64_t framed =
        (uint64_t{data[0]} << 24) | (uint64_t{data[1]} << 16) | (uint64_t{data[2]} << 8) | data[3];
    cutShort = used - 4 < framed;
  }
  return {0, kHeaderSize, cutShort};
}

int openSocket(const char* host, uint16_t port, int preference, long connectTimeoutS) {
  return openSocketBefore(host, port, preference, connectTimeoutS, LLONG_MAX);
}

int TcpTransport::exchange(Log& log, const TsServer& server,
                           const std::vector<unsigned char>& request, long long timeoutMs,
                           ResponseBuffer* answer, unsigned int* offset, TsAttempt* outcome) const {
  long long deadline = steadyNowMs() + timeoutMs;
  const std::vector<unsigned char> frame = tcpRequestFrame(request);
  UniqueFd sock(
      openSocketBefore(server.host.c_str(), server.port, preference_, connectTimeoutS_, deadline));
  if (!sock.valid()) {
    log.msg(__LINE__, 2, "openSocket failed");
    *outcome = {-4, true, "no connection"};
    log.msgc("Timestamp Server %s", serverName(server).c_str());
    return -4;
  }
  long long left = deadline - steadyNowMs();
  timeval sendTimeout{left > 0 ? left / 1000 : 0, left > 0 ? (left % 1000) * 1000 : 1000};
  setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
  ssize_t sent = send(sock.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(frame.size())) {
    int err = sent < 0 ? errno : EMSGSIZE;
    log.msg(__LINE__, 2, "send failed (errno %d)", err);
    log.msgc("Timestamp Server %s: %s", serverName(server).c_str(), systemError(err).c_str());
    *outcome = {-4, true, "send failed"};
    return -4;
  }
  errno = 0;
  answer->used = receiveAll(sock.get(), answer->data, answer->capacity, deadline);
  if (stopRequested()) {
    log.msg(__LINE__, 2, "exchange with timestamp server %s given up: the worker is stopping",
            maskCredentials(server.host).c_str());
    *outcome = {-4, false, "stopped"};
    return -4;
  }
  const TcpReply reply = readTcpReply(answer->data, answer->used, answer->capacity);
  if (reply.result != 0) {
    log.msg(__LINE__, 2, "timestamp server %s did not respond with a valid timestamp",
            maskCredentials(server.host).c_str());
    *outcome = {-10, false, "no valid timestamp"};
    return -10;
  }
  *offset = reply.offset;
  if (reply.cutShort) *outcome = {0, true, "answer cut short"};
  return 0;
}
