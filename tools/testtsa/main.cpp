// testtsa: a throwaway RFC 3161 Timestamp Server on loopback for tests and
// local runs. Prints its settings as "name=value" lines on standard output,
// then "ready"; logs one line per request on standard error; ends on SIGTERM
// or SIGINT.
#include <openssl/ssl.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tools/testtsa/TsaPki.h"
#include "tools/testtsa/TsaServer.h"

namespace {

testtsa::TsaServer* theServer = nullptr;

void onSignal(int) {
  if (theServer) theServer->stop();
}

int usage(const char* program) {
  fprintf(
      stderr,
      "usage: %s [options]\n"
      "  --dir DIR          load the CA, TSA and TLS certificates from DIR, or create them\n"
      "                     there (default: a new directory under $TMPDIR or /tmp)\n"
      "  --bind ADDR        numeric address to listen on (default 127.0.0.1)\n"
      "  --http-port N      HTTP port (default 0 = ephemeral, -1 = off)\n"
      "  --https-port N     HTTPS port (default 0 = ephemeral, -1 = off)\n"
      "  --tcp-port N       raw RFC 3161 TCP port (default 0 = ephemeral, -1 = off)\n"
      "  --login L --password P\n"
      "                     demand HTTP Basic authorization with these credentials\n"
      "  --policy OID       default TSA policy (default 1.2.3.4.1)\n"
      "  --fault MODE       answer every request wrongly: http500, reject, notworking,\n"
      "                     body4096, bodylarge, badflag, hang, garbage, empty (default none)\n",
      program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  testtsa::TsaOptions options;
  std::string dir;
  bool haveLogin = false, havePassword = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") return usage(argv[0]);
    if (i + 1 >= argc) return usage(argv[0]);
    std::string value = argv[++i];
    if (arg == "--dir") {
      dir = value;
    } else if (arg == "--bind") {
      options.bindAddress = value;
    } else if (arg == "--http-port") {
      options.httpPort = atoi(value.c_str());
    } else if (arg == "--https-port") {
      options.httpsPort = atoi(value.c_str());
    } else if (arg == "--tcp-port") {
      options.tcpPort = atoi(value.c_str());
    } else if (arg == "--login") {
      options.login = value;
      haveLogin = true;
    } else if (arg == "--password") {
      options.password = value;
      havePassword = true;
    } else if (arg == "--policy") {
      options.policyOid = value;
    } else if (arg == "--fault") {
      if (!testtsa::parseFault(value, &options.fault)) {
        fprintf(stderr, "unknown fault mode '%s'\n", value.c_str());
        return 2;
      }
    } else {
      return usage(argv[0]);
    }
  }
  options.requireAuth = haveLogin || havePassword;

  if (dir.empty()) {
    const char* tmp = getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/testtsa-XXXXXX";
    if (!mkdtemp(templ.data())) {
      fprintf(stderr, "cannot create a directory from %s: %s\n", templ.c_str(), strerror(errno));
      return 1;
    }
    dir = templ;
  }
  OPENSSL_init_ssl(0, nullptr);
  testtsa::TsaPki pki;
  std::string error;
  if (!testtsa::loadOrCreatePki(dir, &pki, &error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  testtsa::TsaServer server(options, &pki);
  if (!server.start(&error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  theServer = &server;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  printf("dir=%s\n", dir.c_str());
  printf("ca_file=%s\n", pki.caFile.c_str());
  printf("tsa_cert=%s\n", pki.tsaCertFile.c_str());
  printf("tls_cert=%s\n", pki.tlsCertFile.c_str());
  printf("http_port=%d\n", server.httpPort());
  printf("https_port=%d\n", server.httpsPort());
  printf("tcp_port=%d\n", server.tcpPort());
  printf("ready\n");
  fflush(stdout);

  server.run();
  fprintf(stderr, "stopped\n");
  fflush(stderr);
  // Connection threads may still be parked in a hang: leave without running
  // destructors under their feet.
  _Exit(0);
}
