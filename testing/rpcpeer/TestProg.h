// Shared by the runtime's tests and the libtirpc peer: the numbers of the
// small test program, and (for the tests) a plain UDP socket on 127.0.0.1.
#ifndef TESTING_RPCPEER_TESTPROG_H_
#define TESTING_RPCPEER_TESTPROG_H_

#define TESTPROG 0x20001234u
#define TESTVERS 1u
#define TESTPROC_NULL 0u
#define TESTPROC_ADD 1u   // two ints -> their sum
#define TESTPROC_ECHO 2u  // string -> the same string

#ifndef TESTPROG_NO_SOCKET
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace rpc_test {

// Big-endian words: messages are built by hand so that each side is checked
// against the wire format, not against our own encoder.
inline std::vector<uint8_t> words(std::initializer_list<uint32_t> ws) {
  std::vector<uint8_t> b;
  for (uint32_t w : ws)
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(w >> s));
  return b;
}

// Word i of a message (its xid for i = 0); the message must hold it.
inline uint32_t wordAt(const std::vector<uint8_t>& b, size_t i) {
  return (uint32_t{b[4 * i]} << 24) | (uint32_t{b[4 * i + 1]} << 16) |
         (uint32_t{b[4 * i + 2]} << 8) | b[4 * i + 3];
}

// A datagram socket bound to 127.0.0.1 (or another loopback address, host
// order) on an ephemeral port.
class UdpSocket {
 public:
  explicit UdpSocket(uint32_t host = INADDR_LOOPBACK) {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = loopback(0);
    a.sin_addr.s_addr = htonl(host);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
  ~UdpSocket() { close(fd_); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  static sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
  }
  int fd() const { return fd_; }
  int port() const { return port_; }
  sockaddr_in address() const { return loopback(port_); }

  // Next datagram within timeoutMs, and its sender in *from if given; false
  // when none came.
  bool receive(std::vector<uint8_t>* data, int timeoutMs, sockaddr_in* from = nullptr) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    data->resize(65536);
    socklen_t len = sizeof *from;
    ssize_t n = recvfrom(fd_, data->data(), data->size(), 0, reinterpret_cast<sockaddr*>(from),
                         from ? &len : nullptr);
    if (n < 0) return false;
    data->resize(static_cast<size_t>(n));
    return true;
  }
  void sendTo(const std::vector<uint8_t>& data, const sockaddr_in& to) {
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace rpc_test
#endif  // TESTPROG_NO_SOCKET

#endif  // TESTING_RPCPEER_TESTPROG_H_
