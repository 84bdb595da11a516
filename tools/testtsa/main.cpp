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

#include "base/Environment.h"
#include "base/LogTarget.h"
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
      "  --policy OID       TSA policy (default 1.2.3.4.1); a request for another is rejected\n"
      "  --fault MODE       answer every request wrongly: http500, reject, notworking,\n"
      "                     body4096, bodylarge, badflag, hang, garbage, empty (default none);\n"
      "                     or grant a token that proves nothing: otherimprint (another\n"
      "                     digest), replay (the previous answer again), badsignature (one\n"
      "                     signature octet inverted), nocert (no certificate even on\n"
      "                     certReq), noeku (signer without timeStamping usage), expired\n"
      "                     (signer expired before genTime), trailing (8 bytes after the\n"
      "                     answer)\n"
      "  --delay-ms N       hold every answer N milliseconds (default 0)\n"
      "  --fault-count N    only the first N requests get a fault of the first line but\n"
      "                     reject, later ones a timestamp (default: all)\n"
      "Token shapes of real servers:\n"
      "  --key KIND         signing key: rsa (default), rsa-pss, ec256, ec384 (signs with "
      "SHA-384)\n"
      "  --pss              an rsa key signs with RSASSA-PSS (the key stays rsaEncryption)\n"
      "  --intermediate     the signer is issued by an intermediate CA under the CA\n"
      "  --serial-bytes N   token serial numbers and the signer's (and intermediate's)\n"
      "                     certificate serials (at most 20) of exactly N octets, 1..64\n"
      "                     (default: 1, 2, ...)\n"
      "  --accuracy S,MS,US accuracy in seconds, milliseconds, microseconds (default 1,0,0);\n"
      "                     \"none\" leaves it out\n"
      "  --ordering         ordering TRUE\n"
      "  --tsa-name         the signer's subject as TSA name\n"
      "  --sid issuer|ski   the SignerInfo names its signer by issuer and serial (version 1,\n"
      "                     default) or by subjectKeyIdentifier (version 3)\n"
      "  --ess v1|v2|both   signingCertificate (ESSCertID, default), signingCertificateV2\n"
      "                     (ESSCertIDv2, SHA-256) or both\n"
      "  --unsigned-attr    an unsigned attribute in the SignerInfo\n"
      "  --time-digits N    genTime with N digits of fractions of a second, 0..6 (default 0)\n"
      "Certificates go into a token only when the request asks for them (certReq);\n"
      "tsa_cert names a PEM file with the signer and its intermediate.\n",
      program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // The libraries log through the installed target: the LOG_* variables the
  // program starts with decide what they write.
  LogTarget logTarget;
  logTarget.init(Environment::process());
  LogTarget::Installation logInstalled(logTarget);
  testtsa::TsaOptions options;
  std::string dir;
  bool haveLogin = false, havePassword = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") return usage(argv[0]);
    if (arg == "--intermediate") {
      options.signer.intermediate = true;
      continue;
    }
    if (arg == "--ordering" || arg == "--tsa-name" || arg == "--unsigned-attr" || arg == "--pss") {
      bool& flag = arg == "--ordering"   ? options.shape.ordering
                   : arg == "--tsa-name" ? options.shape.tsaName
                   : arg == "--pss"      ? options.shape.pssPadding
                                         : options.shape.unsignedAttribute;
      flag = true;
      continue;
    }
    if (i + 1 >= argc) return usage(argv[0]);
    std::string value = argv[++i];
    if (arg == "--key") {
      if (!testtsa::parseKeyKind(value, &options.signer.key)) return usage(argv[0]);
      if (options.signer.key == testtsa::KeyKind::kEc384) options.shape.signerDigest = EVP_sha384();
    } else if (arg == "--serial-bytes") {
      int n = atoi(value.c_str());
      if (n < 1 || n > 64) return usage(argv[0]);
      options.shape.serialBytes = n;
      options.signer.serialBytes = n < 20 ? n : 20;  // certificates keep to RFC 5280's 20
    } else if (arg == "--accuracy") {
      testtsa::TokenShape& shape = options.shape;
      shape.accuracy = value != "none";
      if (shape.accuracy && sscanf(value.c_str(), "%d,%d,%d", &shape.accuracySeconds,
                                   &shape.accuracyMillis, &shape.accuracyMicros) != 3) {
        return usage(argv[0]);
      }
    } else if (arg == "--sid") {
      if (value != "issuer" && value != "ski") return usage(argv[0]);
      options.shape.signerByKeyId = value == "ski";
    } else if (arg == "--ess") {
      if (value == "v1") {
        options.shape.ess = testtsa::EssCertId::kV1;
      } else if (value == "v2") {
        options.shape.ess = testtsa::EssCertId::kV2;
      } else if (value == "both") {
        options.shape.ess = testtsa::EssCertId::kBoth;
      } else {
        return usage(argv[0]);
      }
    } else if (arg == "--time-digits") {
      options.shape.fractionDigits = atoi(value.c_str());
      if (options.shape.fractionDigits < 0 || options.shape.fractionDigits > 6) {
        return usage(argv[0]);
      }
    } else if (arg == "--dir") {
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
      options.shape.policyOid = value;
    } else if (arg == "--delay-ms") {
      options.delayMs = atoi(value.c_str());
    } else if (arg == "--fault-count") {
      options.faultCount = atol(value.c_str());
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
  printf("tsa_cert=%s\n", server.signerCertFile().c_str());
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
