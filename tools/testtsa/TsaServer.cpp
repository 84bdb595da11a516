#include "tools/testtsa/TsaServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "ossl/OpenSslErrors.h"

namespace testtsa {
namespace {

using SslPtr = std::unique_ptr<SSL, ossl::Deleter<SSL, SSL_free>>;

// OpenSSL's error queue on one line of the request log; empties the queue.
std::string openSslErrorText() {
  std::string text = takeOpenSslErrors();
  for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) text.replace(at, 1, "; ");
  return text;
}

constexpr size_t kMaxHeader = 64 * 1024;
constexpr size_t kMaxBody = 1024 * 1024;
constexpr int kIdleSeconds = 30;  // a silent client is dropped after this
constexpr unsigned char kTsaMsg = 0;
constexpr unsigned char kFinalMsgRep = 5;
constexpr unsigned char kErrorMsgRep = 6;

struct Fd {
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int fd;
};

std::string lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  size_t e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::string base64(const std::string& in) {
  std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(in.data()),
                          static_cast<int>(in.size()));
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

std::string frame(unsigned char flag, const std::string& der) {
  uint32_t length = static_cast<uint32_t>(der.size() + 1);
  std::string out;
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((length >> shift) & 0xFF);
  out += static_cast<char>(flag);
  return out + der;
}

const char* faultName(Fault f) {
  switch (f) {
    case Fault::kNone:
      return "none";
    case Fault::kHttp500:
      return "http500";
    case Fault::kReject:
      return "reject";
    case Fault::kNotWorking:
      return "notworking";
    case Fault::kBody4096:
      return "body4096";
    case Fault::kBodyLarge:
      return "bodylarge";
    case Fault::kBadFlag:
      return "badflag";
    case Fault::kHang:
      return "hang";
    case Fault::kGarbage:
      return "garbage";
    case Fault::kEmpty:
      return "empty";
    case Fault::kOtherImprint:
      return "otherimprint";
    case Fault::kReplay:
      return "replay";
    case Fault::kBadSignature:
      return "badsignature";
    case Fault::kNoCert:
      return "nocert";
    case Fault::kNoEku:
      return "noeku";
    case Fault::kExpired:
      return "expired";
    case Fault::kTrailing:
      return "trailing";
  }
  return "?";
}

// A SEQUENCE header that claims far more content than follows: a decoder that
// trusts the length reads past the received bytes.
const std::string kGarbage = std::string("\x30\x82\x0f\xa0", 4) + "garbage from the test server";

}  // namespace

bool parseFault(const std::string& name, Fault* fault) {
  for (Fault f :
       {Fault::kNone, Fault::kHttp500, Fault::kReject, Fault::kNotWorking, Fault::kBody4096,
        Fault::kBodyLarge, Fault::kBadFlag, Fault::kHang, Fault::kGarbage, Fault::kEmpty,
        Fault::kOtherImprint, Fault::kReplay, Fault::kBadSignature, Fault::kNoCert, Fault::kNoEku,
        Fault::kExpired, Fault::kTrailing}) {
    if (name == faultName(f)) {
      *fault = f;
      return true;
    }
  }
  return false;
}

// A byte stream over an accepted connection: plain socket or TLS.
class TsaServer::Stream {
 public:
  virtual ~Stream() = default;
  // Up to n bytes; 0 at end of stream or on error.
  virtual size_t read(char* buf, size_t n) = 0;
  virtual bool writeAll(const std::string& data) = 0;
  // Ends our side of the connection after the answer.
  virtual void finish() = 0;

  // Reads until exactly n bytes are in *out; false when the stream ends first.
  bool readExactly(size_t n, std::string* out) {
    char buf[4096];
    while (out->size() < n) {
      size_t got = read(buf, std::min(sizeof buf, n - out->size()));
      if (got == 0) return false;
      out->append(buf, got);
    }
    return true;
  }
};

class TsaServer::PlainStream : public Stream {
 public:
  explicit PlainStream(int fd) : fd_(fd) {}
  size_t read(char* buf, size_t n) override {
    for (;;) {
      ssize_t r = recv(fd_, buf, n, 0);
      if (r >= 0) return static_cast<size_t>(r);
      if (errno != EINTR) return 0;
    }
  }
  bool writeAll(const std::string& data) override {
    size_t done = 0;
    while (done < data.size()) {
      ssize_t w = send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += static_cast<size_t>(w);
    }
    return true;
  }
  void finish() override {
    // Half-close, then wait for the client to close, so the last bytes are
    // not lost to a reset when the client still had something in flight.
    shutdown(fd_, SHUT_WR);
    char buf[512];
    while (read(buf, sizeof buf) > 0) {
    }
  }

 private:
  int fd_;  // borrowed from the connection
};

class TsaServer::TlsStream : public Stream {
 public:
  explicit TlsStream(SSL* ssl) : ssl_(ssl) {}
  size_t read(char* buf, size_t n) override {
    int r = SSL_read(ssl_, buf, static_cast<int>(n));
    return r > 0 ? static_cast<size_t>(r) : 0;
  }
  bool writeAll(const std::string& data) override {
    size_t done = 0;
    while (done < data.size()) {
      int w = SSL_write(ssl_, data.data() + done, static_cast<int>(data.size() - done));
      if (w <= 0) return false;
      done += static_cast<size_t>(w);
    }
    return true;
  }
  void finish() override { SSL_shutdown(ssl_); }

 private:
  SSL* ssl_;  // borrowed from the connection
};

TsaServer::TsaServer(const TsaOptions& options, TsaPki* pki) : options_(options), pki_(pki) {
  expectedAuth_ = "Basic " + base64(options_.login + ":" + options_.password);
}

TsaServer::~TsaServer() {
  for (int fd : listenFds_) {
    if (fd >= 0) close(fd);
  }
  if (sslCtx_) SSL_CTX_free(sslCtx_);
}

bool TsaServer::start(std::string* error) {
  SignerProfile profile = options_.signer;
  if (options_.fault == Fault::kNoEku) profile.timeStamping = false;
  if (options_.fault == Fault::kExpired) profile.expired = true;
  if (!loadOrCreateSigner(*pki_, profile, &signer_, error)) return false;
  TokenShape shape = options_.shape;
  if (options_.fault == Fault::kReject) {
    shape.status = 2;  // rejection
    shape.statusTexts = {"request rejected by the test server"};
    shape.failureBits = {17};  // addInfoNotAvailable
  }
  shape.otherImprint = options_.fault == Fault::kOtherImprint;
  shape.flipSignature = options_.fault == Fault::kBadSignature;
  shape.noCertificates = options_.fault == Fault::kNoCert;
  shape.trailingBytes = options_.fault == Fault::kTrailing ? 8 : 0;
  maker_ = std::make_unique<TokenMaker>(shape, &signer_);

  if (options_.httpsPort >= 0) {
    sslCtx_ = SSL_CTX_new(TLS_server_method());
    if (!sslCtx_ || SSL_CTX_use_certificate(sslCtx_, pki_->tlsCert.get()) != 1 ||
        SSL_CTX_use_PrivateKey(sslCtx_, pki_->tlsKey.get()) != 1 ||
        SSL_CTX_add1_chain_cert(sslCtx_, pki_->caCert.get()) != 1) {
      *error = "cannot set up TLS: " + openSslErrorText();
      return false;
    }
  }
  const int wanted[3] = {options_.httpPort, options_.httpsPort, options_.tcpPort};
  for (int t = 0; t < 3; ++t) {
    if (wanted[t] >= 0 && !listenOn(wanted[t], &listenFds_[t], &ports_[t], error)) return false;
  }
  return true;
}

bool TsaServer::listenOn(int port, int* fd, int* boundPort, std::string* error) {
  sockaddr_storage addr{};
  socklen_t len;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
  if (inet_pton(AF_INET, options_.bindAddress.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    len = sizeof *v4;
  } else if (inet_pton(AF_INET6, options_.bindAddress.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    len = sizeof *v6;
  } else {
    *error = "not a numeric address: " + options_.bindAddress;
    return false;
  }
  *fd = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  if (*fd < 0 || setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(*fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(*fd, 64) != 0 ||
      getsockname(*fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    *error = "cannot listen on " + options_.bindAddress + " port " + std::to_string(port) + ": " +
             strerror(errno);
    return false;
  }
  *boundPort = ntohs(addr.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
  return true;
}

void TsaServer::run() {
  while (!stopping_) {
    pollfd fds[3];
    for (int t = 0; t < 3; ++t) fds[t] = {listenFds_[t], POLLIN, 0};
    if (poll(fds, 3, 200) <= 0) continue;
    for (int t = 0; t < 3; ++t) {
      if (!(fds[t].revents & POLLIN)) continue;
      int fd = accept4(listenFds_[t], nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      std::thread([this, t, fd] { serveConnection(static_cast<Transport>(t), fd); }).detach();
    }
  }
}

void TsaServer::serveConnection(Transport transport, int rawFd) {
  Fd fd(rawFd);
  timeval idle{kIdleSeconds, 0};
  setsockopt(fd.fd, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
  setsockopt(fd.fd, SOL_SOCKET, SO_SNDTIMEO, &idle, sizeof idle);
  if (transport == kTcp) {
    PlainStream stream(fd.fd);
    serveTcp(&stream);
  } else if (transport == kHttp) {
    PlainStream stream(fd.fd);
    for (bool first = true; serveHttp(&stream, "http", first); first = false) {
    }
  } else {
    SslPtr ssl(SSL_new(sslCtx_));
    if (!ssl || SSL_set_fd(ssl.get(), fd.fd) != 1 || SSL_accept(ssl.get()) != 1) {
      note("request transport=https tls handshake failed: " + openSslErrorText());
      return;
    }
    TlsStream stream(ssl.get());
    for (bool first = true; serveHttp(&stream, "https", first); first = false) {
    }
  }
}

bool TsaServer::serveHttp(Stream* stream, const char* name, bool first) {
  std::string data;
  size_t headerEnd;
  char buf[4096];
  while ((headerEnd = data.find("\r\n\r\n")) == std::string::npos) {
    size_t got = data.size() < kMaxHeader ? stream->read(buf, sizeof buf) : 0;
    if (got == 0) {
      // A kept connection that the client closes between requests is no fault.
      if (first || !data.empty()) {
        note(std::string("request transport=") + name + " incomplete header");
      }
      return false;
    }
    data.append(buf, got);
  }
  std::string header = data.substr(0, headerEnd);
  std::string body = data.substr(headerEnd + 4);
  std::string requestLine = header.substr(0, header.find("\r\n"));
  size_t sp1 = requestLine.find(' ');
  size_t sp2 = requestLine.rfind(' ');
  std::string path = sp1 != sp2 ? requestLine.substr(sp1 + 1, sp2 - sp1 - 1) : std::string();
  size_t contentLength = 0;
  std::string authorization;
  std::string contentType;
  bool expectContinue = false;
  bool keepAlive =
      requestLine.size() > 8 && requestLine.compare(requestLine.size() - 8, 8, "HTTP/1.1") == 0;
  size_t pos = header.find("\r\n");
  while (pos != std::string::npos) {
    size_t next = header.find("\r\n", pos + 2);
    std::string line = header.substr(pos + 2, next == std::string::npos ? next : next - pos - 2);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string key = lower(line.substr(0, colon));
      std::string value = trim(line.substr(colon + 1));
      if (key == "content-length") contentLength = std::strtoul(value.c_str(), nullptr, 10);
      if (key == "authorization") authorization = value;
      if (key == "content-type") contentType = value;
      if (key == "expect" && lower(value) == "100-continue") expectContinue = true;
      if (key == "connection" && lower(value) == "close") keepAlive = false;
    }
    pos = next;
  }
  if (contentLength > kMaxBody) contentLength = kMaxBody;
  if (expectContinue && body.size() < contentLength) {
    stream->writeAll("HTTP/1.1 100 Continue\r\n\r\n");
  }
  if (body.size() < contentLength && !stream->readExactly(contentLength, &body)) {
    note(std::string("request transport=") + name + " incomplete body");
    return false;
  }
  body.resize(contentLength);

  Fault fault = nextFault();
  const char* auth = authorization.empty() ? "none" : authorization == expectedAuth_ ? "ok" : "bad";
  note(std::string("request transport=") + name + " path=" + path +
       " bytes=" + std::to_string(body.size()) + " content_type=" + contentType + " auth=" + auth +
       " fault=" + faultName(fault));

  holdAnswer();
  int status = 200;
  std::string type = "application/timestamp-reply";
  std::string reply;
  if (options_.requireAuth && authorization != expectedAuth_) {
    stream->writeAll(
        "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"testtsa\"\r\n"
        "Content-Type: text/plain\r\nContent-Length: 13\r\nConnection: close\r\n\r\n"
        "login needed\n");
    stream->finish();
    return false;
  }
  switch (fault) {
    case Fault::kHttp500:
      status = 500;
      type = "text/plain";
      reply = "test server fault: internal error";
      break;
    case Fault::kNotWorking:
      reply = std::string("\x05\x00", 2);
      break;
    case Fault::kBody4096:
      reply = faultBody(4096, makeResponse(body));
      break;
    case Fault::kBodyLarge:
      reply = faultBody(8192, makeResponse(body));
      break;
    case Fault::kHang:
      hang();
      return false;
    case Fault::kGarbage:
      reply = kGarbage;
      break;
    case Fault::kEmpty:
      break;
    default:
      reply = makeResponse(body);
      break;
  }
  // Like real servers, a good answer keeps the connection for the next request.
  keepAlive = keepAlive && options_.fault == Fault::kNone;
  std::string head =
      "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Internal Server Error") +
      "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(reply.size()) +
      (keepAlive ? "\r\nConnection: keep-alive\r\n\r\n" : "\r\nConnection: close\r\n\r\n");
  bool sent = stream->writeAll(head + reply);
  if (keepAlive && sent) return true;
  stream->finish();
  return false;
}

void TsaServer::serveTcp(Stream* stream) {
  std::string head;
  if (!stream->readExactly(5, &head)) {
    note("request transport=tcp incomplete frame header");
    return;
  }
  uint32_t length = 0;
  for (int i = 0; i < 4; ++i) length = (length << 8) | static_cast<unsigned char>(head[i]);
  unsigned char flag = static_cast<unsigned char>(head[4]);
  std::string der;
  if (length == 0 || length - 1 > kMaxBody || !stream->readExactly(length - 1, &der)) {
    note("request transport=tcp bad frame length " + std::to_string(length));
    return;
  }
  Fault fault = nextFault();
  note("request transport=tcp flag=" + std::to_string(flag) +
       " bytes=" + std::to_string(der.size()) + " fault=" + faultName(fault));
  if (flag != kTsaMsg) {
    stream->writeAll(frame(kErrorMsgRep, "unexpected message type"));
    stream->finish();
    return;
  }
  holdAnswer();
  std::string reply;
  switch (fault) {
    case Fault::kNotWorking:
      reply = std::string("\x05\x00", 2);
      break;
    case Fault::kBody4096:
      reply = frame(kFinalMsgRep, faultBody(4096 - 5, makeResponse(der)));
      break;
    case Fault::kBodyLarge:
      reply = frame(kFinalMsgRep, faultBody(8192, makeResponse(der)));
      break;
    case Fault::kBadFlag:
      reply = frame(kErrorMsgRep, makeResponse(der));
      break;
    case Fault::kHang:
      hang();
      return;
    case Fault::kGarbage:
      reply = frame(kFinalMsgRep, kGarbage);
      break;
    case Fault::kEmpty:
      break;
    default:
      reply = frame(kFinalMsgRep, makeResponse(der));
      break;
  }
  stream->writeAll(reply);
  stream->finish();
}

Fault TsaServer::nextFault() {
  if (options_.faultCount < 0 || ++faulted_ <= options_.faultCount) return options_.fault;
  return Fault::kNone;
}

std::string TsaServer::makeResponse(const std::string& request) {
  std::lock_guard<std::mutex> lock(respMutex_);
  if (options_.fault == Fault::kReplay && !lastAnswer_.empty()) return lastAnswer_;
  std::string error;
  std::string der = maker_->answer(request, &error);
  if (der.empty()) note("cannot create a response: " + error + openSslErrorText());
  lastAnswer_ = der;
  return der;
}

std::string TsaServer::faultBody(size_t size, const std::string& valid) const {
  std::string body = valid.substr(0, size);
  body.resize(size, 'x');
  return body;
}

void TsaServer::hang() {
  while (!stopping_) std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

void TsaServer::holdAnswer() {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.delayMs);
  while (!stopping_ && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_until(
        std::min(until, std::chrono::steady_clock::now() + std::chrono::milliseconds(100)));
  }
}

void TsaServer::note(const std::string& line) {
  std::lock_guard<std::mutex> lock(noteMutex_);
  fprintf(stderr, "%s\n", line.c_str());
  fflush(stderr);
}

}  // namespace testtsa
