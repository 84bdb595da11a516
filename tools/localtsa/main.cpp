// localtsa: a Timestamp Server on loopback that signs with the library's own
// local signer (generateTimestamp). Prints its settings as "name=value" lines
// on standard output, then "ready"; logs one line per request on standard
// error; ends on SIGTERM or SIGINT.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/Environment.h"
#include "base/LogTarget.h"
#include "tools/localtsa/LocalTsaServer.h"
#include "tools/testtsa/CertMaker.h"
#include "ossl/KeyType.h"
#include "ossl/OpenSslErrors.h"
#include "tssign/TsAsymKey.h"
#include "tssign/generateTimestamp.h"

namespace {

localtsa::LocalTsaServer* theServer = nullptr;

void onSignal(int) {
  if (theServer != nullptr) theServer->stop();
}

int usage(const char* program) {
  fprintf(stderr,
          "usage: %s [options]\n"
          "  --dir DIR        keep the CA (ca.pem) and the signer (tsa.pem, tsa.key) in DIR;\n"
          "                   made there when missing (default: a new directory under $TMPDIR\n"
          "                   or /tmp)\n"
          "  --key-type T     rsa or dsa: the key of a newly made signer (default rsa)\n"
          "  --key FILE --cert FILE\n"
          "                   sign with this key (PEM without password, or the proprietary\n"
          "                   format under an empty password) and certificate instead\n"
          "  --bind ADDR      numeric address to listen on (default 127.0.0.1)\n"
          "  --http-port N    HTTP port (default 0 = ephemeral)\n"
          "  --zoned-signing-time\n"
          "                   write the signing time with a 'Z'\n"
          "                   instead of the library's form without zone\n",
          program);
  return 2;
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Makes a throwaway CA and a timestamping signer certificate in dir.
bool makeSigner(const std::string& dir, int keyType, std::string* error) {
  testtsa::CertAuthority ca;
  TsAsymKey key;
  if (!ca.ok()) {
    *error = "cannot make the CA: " + takeOpenSslErrors();
    return false;
  }
  if (key.generateKey(keyType, 2048) != 0) {
    *error = "key generation failed";
    return false;
  }
  X509Ptr cert = ca.issue(key.pkey(), "clockette local TSA", -3600, 365L * 86400);
  if (!cert || !ca.writeCaPem(dir + "/ca.pem") ||
      !testtsa::writeCertificates(dir + "/tsa.pem", {cert.get()}) ||
      key.saveKey((dir + "/tsa.key").c_str(), "") != 0) {
    *error = "cannot write the signer into " + dir + ": " + takeOpenSslErrors();
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // The libraries log through the installed target: the LOG_* variables the
  // program starts with decide what they write.
  LogTarget logTarget;
  logTarget.init(Environment::process());
  LogTarget::Installation logInstalled(logTarget);
  localtsa::ServerOptions options;
  options.ignoreValidityDates = ignoreValidityDatesWanted(Environment::process());
  std::string dir;
  int keyType = kKeyTypeRsa;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--zoned-signing-time") {
      options.signingTimeWithZone = true;
      continue;
    }
    if (arg == "-h" || arg == "--help" || i + 1 >= argc) return usage(argv[0]);
    std::string value = argv[++i];
    if (arg == "--dir") {
      dir = value;
    } else if (arg == "--key-type" && (value == "rsa" || value == "dsa")) {
      keyType = value == "rsa" ? kKeyTypeRsa : kKeyTypeDsa;
    } else if (arg == "--key") {
      options.keyFile = value;
    } else if (arg == "--cert") {
      options.certFile = value;
    } else if (arg == "--bind") {
      options.bindAddress = value;
    } else if (arg == "--http-port") {
      options.httpPort = atoi(value.c_str());
    } else {
      return usage(argv[0]);
    }
  }
  if (options.keyFile.empty() != options.certFile.empty()) return usage(argv[0]);

  std::string caFile;
  if (options.keyFile.empty()) {
    if (dir.empty()) {
      const char* tmp = getenv("TMPDIR");
      std::string templ = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/localtsa-XXXXXX";
      if (mkdtemp(templ.data()) == nullptr) {
        fprintf(stderr, "cannot create a directory from %s: %s\n", templ.c_str(), strerror(errno));
        return 1;
      }
      dir = templ;
    } else if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
      fprintf(stderr, "cannot create %s: %s\n", dir.c_str(), strerror(errno));
      return 1;
    }
    options.keyFile = dir + "/tsa.key";
    options.certFile = dir + "/tsa.pem";
    caFile = dir + "/ca.pem";
    std::string error;
    if (!(exists(options.keyFile) && exists(options.certFile) && exists(caFile)) &&
        !makeSigner(dir, keyType, &error)) {
      fprintf(stderr, "%s\n", error.c_str());
      return 1;
    }
  }

  localtsa::LocalTsaServer server(options);
  std::string error;
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

  if (!dir.empty()) printf("dir=%s\n", dir.c_str());
  if (!caFile.empty()) printf("ca_file=%s\n", caFile.c_str());
  printf("tsa_cert=%s\n", options.certFile.c_str());
  printf("tsa_key=%s\n", options.keyFile.c_str());
  printf("http_port=%d\n", server.httpPort());
  printf("ready\n");
  fflush(stdout);

  server.run();
  fprintf(stderr, "stopped\n");
  return 0;
}
