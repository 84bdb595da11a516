// UnixDatagram: a bound AF_UNIX datagram socket that plays the service
// manager's or the journal's end in tests. The socket file is removed with it.
#ifndef TESTING_UNIXDATAGRAM_H_
#define TESTING_UNIXDATAGRAM_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace testing_support {

class UnixDatagram {
 public:
  explicit UnixDatagram(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
  }
  ~UnixDatagram() {
    close(fd_);
    if (bound_) unlink(path_.c_str());
  }
  UnixDatagram(const UnixDatagram&) = delete;
  UnixDatagram& operator=(const UnixDatagram&) = delete;

  bool bound() const { return bound_; }
  // The next datagram, or "" when none comes within a second.
  std::string receive() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 1000) != 1) return "";
    char buffer[16384];
    ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

}  // namespace testing_support

#endif  // TESTING_UNIXDATAGRAM_H_
