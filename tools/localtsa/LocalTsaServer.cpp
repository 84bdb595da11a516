#include "tools/localtsa/LocalTsaServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ts.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/Owners.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1string.h"
#include "ossl/OpenSslPtr.h"
#include "tssign/generateTimestamp.h"

namespace localtsa {

namespace {

constexpr size_t kMaxHeader = 16 * 1024;
constexpr size_t kMaxBody = 64 * 1024;

using TsReqPtr = std::unique_ptr<TS_REQ, ossl::Deleter<TS_REQ, TS_REQ_free>>;

const char* reasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Payload Too Large";
    default:
      return "Internal Server Error";
  }
}

Answer textAnswer(int status, const std::string& text) {
  Answer a;
  a.status = status;
  a.body.assign(text.begin(), text.end());
  a.body.push_back('\n');
  return a;
}

bool sendAll(int fd, const void* data, size_t n) {
  const char* p = static_cast<const char*>(data);
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// The value of header name (case-insensitive) in the header block, or "".
std::string headerValue(const std::string& head, const char* name) {
  size_t pos = head.find("\r\n");
  size_t nameLen = strlen(name);
  while (pos != std::string::npos && pos + 2 < head.size()) {
    size_t start = pos + 2;
    size_t end = head.find("\r\n", start);
    std::string line = head.substr(start, end == std::string::npos ? end : end - start);
    if (line.size() > nameLen && line[nameLen] == ':' &&
        strncasecmp(line.c_str(), name, nameLen) == 0) {
      size_t v = line.find_first_not_of(" \t", nameLen + 1);
      return v == std::string::npos ? "" : line.substr(v);
    }
    pos = end;
  }
  return "";
}

}  // namespace

Answer answerTimestampRequest(const std::vector<unsigned char>& request,
                              const ServerOptions& server) {
  // OpenSSL reads the request: this tool is a peer of our requester, so it
  // must not share the requester's decoder.
  const unsigned char* p = request.data();
  TsReqPtr req(
      d2i_TS_REQ(nullptr, &p, static_cast<long>(request.size())));
  if (!req || p != request.data() + request.size()) {
    return textAnswer(400, "not a DER TimeStampReq");
  }
  unsigned char* der = nullptr;
  int n = i2d_TS_MSG_IMPRINT(TS_REQ_get_msg_imprint(req.get()), &der);
  OpenSslBytesPtr owner(der);
  CAsn1messageImprint imprint;
  unsigned int pos = 0;
  if (n <= 0 || imprint.setDER(der, &pos, static_cast<unsigned int>(n)) != 0) {
    return textAnswer(400, "unusable message imprint");
  }
  LocalTimestampOptions options;
  options.includeCertificate = TS_REQ_get_cert_req(req.get()) != 0;
  options.signingTimeWithZone = server.signingTimeWithZone;
  options.ignoreValidityDates = server.ignoreValidityDates;
  CAsn1string response;
  int rc = generateTimestamp(imprint, server.keyFile.c_str(), server.certFile.c_str(), &response,
                             options);
  if (rc != 0) return textAnswer(500, "generateTimestamp failed with " + std::to_string(rc));
  Answer a;
  a.status = 200;
  a.contentType = "application/timestamp-reply";
  a.body.assign(response.data(), response.data() + response.length());
  return a;
}

LocalTsaServer::LocalTsaServer(const ServerOptions& options) : options_(options) {}

LocalTsaServer::~LocalTsaServer() = default;

bool LocalTsaServer::start(std::string* error) {
  sockaddr_storage addr{};
  socklen_t len = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
  if (inet_pton(AF_INET, options_.bindAddress.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(options_.httpPort));
    len = sizeof(*v4);
  } else if (inet_pton(AF_INET6, options_.bindAddress.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(options_.httpPort));
    len = sizeof(*v6);
  } else {
    *error = "not a numeric address: " + options_.bindAddress;
    return false;
  }
  auto fd = std::make_unique<UniqueFd>(socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  if (!fd->valid() || setsockopt(fd->get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
      bind(fd->get(), reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd->get(), 16) != 0 ||
      getsockname(fd->get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    *error = std::string("cannot listen on ") + options_.bindAddress + ": " + strerror(errno);
    return false;
  }
  port_ = ntohs(addr.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
  listen_ = std::move(fd);
  return true;
}

void LocalTsaServer::run() {
  while (!stopping_) {
    pollfd pfd{listen_->get(), POLLIN, 0};
    // A short poll keeps stop() from a signal handler effective without a wake-up pipe.
    int n = poll(&pfd, 1, 200);
    if (n <= 0) continue;
    UniqueFd conn(accept4(listen_->get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!conn.valid()) continue;
    timeval tv{options_.ioTimeoutSeconds, 0};
    setsockopt(conn.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    serve(conn.get());
  }
}

void LocalTsaServer::serve(int fd) {
  std::string data;
  char buf[4096];
  size_t headerEnd = std::string::npos;
  auto readMore = [&]() {
    ssize_t r;
    do {
      r = recv(fd, buf, sizeof(buf), 0);
    } while (r < 0 && errno == EINTR && !stopping_);
    if (r <= 0) return false;
    data.append(buf, static_cast<size_t>(r));
    return true;
  };
  while ((headerEnd = data.find("\r\n\r\n")) == std::string::npos) {
    if (data.size() > kMaxHeader || !readMore()) {
      fprintf(stderr, "connection dropped before a complete request header\n");
      return;
    }
  }
  std::string head = data.substr(0, headerEnd);
  std::string requestLine = head.substr(0, head.find("\r\n"));
  std::string method = requestLine.substr(0, requestLine.find(' '));

  Answer answer;
  if (method != "POST") {
    answer = textAnswer(405, "only POST is served");
  } else {
    std::string lengthText = headerValue(head, "Content-Length");
    char* end = nullptr;
    unsigned long length = strtoul(lengthText.c_str(), &end, 10);
    if (lengthText.empty() || *end != '\0') {
      answer = textAnswer(400, "Content-Length missing or invalid");
    } else if (length > kMaxBody) {
      answer = textAnswer(413, "request too large");
    } else {
      if (strcasecmp(headerValue(head, "Expect").c_str(), "100-continue") == 0) {
        static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
        sendAll(fd, kContinue, sizeof(kContinue) - 1);
      }
      size_t bodyStart = headerEnd + 4;
      while (data.size() - bodyStart < length) {
        if (!readMore()) {
          fprintf(stderr, "%s: connection dropped in the body\n", requestLine.c_str());
          return;
        }
      }
      std::vector<unsigned char> body(data.begin() + static_cast<long>(bodyStart),
                                      data.begin() + static_cast<long>(bodyStart + length));
      answer = answerTimestampRequest(body, options_);
    }
  }
  char header[256];
  int n = snprintf(header, sizeof(header),
                   "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\n"
                   "Connection: close\r\n\r\n",
                   answer.status, reasonOf(answer.status), answer.contentType.c_str(),
                   answer.body.size());
  bool sent = sendAll(fd, header, static_cast<size_t>(n)) &&
              sendAll(fd, answer.body.data(), answer.body.size());
  fprintf(stderr, "%s -> %d (%zu bytes)%s\n", requestLine.c_str(), answer.status,
          answer.body.size(), sent ? "" : " not sent");
  fflush(stderr);
}

}  // namespace localtsa
