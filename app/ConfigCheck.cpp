#include "app/ConfigCheck.h"

#include <netdb.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "app/Clockette.h"
#include "base/Environment.h"
#include "base/Resolver.h"
#include "base/SandboxHint.h"
#include "base/SecretFile.h"
#include "base/SystemError.h"
#include "kvrpc/HostIdent.h"
#include "kvrpc/ToolService.h"
#include "ossl/OpenSslPtr.h"
#include "tsclient/TokenCheck.h"
#include "tsclient/TsServers.h"

namespace {

// The problems found so far, and the settings the checks look at.
struct Problems {
  const Environment& env;
  int preference;  // the address family tried first (QR_PREF_IP), as the worker does
  std::vector<std::string> lines;

  void push_back(std::string line) { lines.push_back(std::move(line)); }
  // The value of name, "" when unset.
  std::string setting(const char* name) const {
    const char* v = env.get(name);
    return v ? v : "";
  }
  // "" when name resolves, else the resolver's reason.
  std::string unresolved(const std::string& name) const {
    HostAddressList list;
    int rc = resolveHost(name.c_str(), preference, &list);
    return rc == 0 ? "" : gai_strerror(rc);
  }
};

void checkHost(Problems* p, const char* setting, const std::string& host, const char* fix) {
  if (host.empty()) {
    p->push_back(std::string(setting) + ": empty; " + fix);
    return;
  }
  std::string why = p->unresolved(host);
  if (!why.empty()) {
    p->push_back(std::string(setting) + ": '" + host + "' does not resolve (" + why + "); " + fix);
  }
}

void checkTimestampServers(Problems* p, const Clockette& w) {
  checkHost(p, "TIMESTAMP_HOST", w.host.c_str(),
            "set the Timestamp Server's host name or address (-host)");
  if (w.port < 1 || w.port > 65535) {
    p->push_back("TIMESTAMP_PORT: " + std::to_string(w.port) +
                 " is no TCP port; set 1 to 65535 (-port)");
  }
  std::string list = p->setting("TIMESTAMP_FALLBACK");
  for (size_t start = 0; start <= list.size();) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    std::string entry = list.substr(start, comma - start);
    start = comma + 1;
    entry.erase(0, entry.find_first_not_of(" \t"));
    entry.erase(entry.find_last_not_of(" \t") + 1);
    TsServer server;
    if (entry.empty()) continue;
    if (!parseTsServer(entry, &server)) {
      p->push_back("TIMESTAMP_FALLBACK: entry '" + entry +
                   "' is no <protocol>://<host>:<port>[/<path>]; write it so, with protocol "
                   "http, https or tcp");
    } else {
      checkHost(p, "TIMESTAMP_FALLBACK", server.host, "correct the entry's host");
    }
  }
}

void checkCertificates(Problems* p) {
  std::string ca = p->setting("TS_CAFILE");
  if (!ca.empty()) {
    BioPtr bio(BIO_new_file(ca.c_str(), "r"));
    X509Ptr first(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!first) {
      p->push_back("TS_CAFILE: '" + ca +
                   "' cannot be read or holds no PEM certificate; name a PEM file of CA "
                   "certificates (the system's: /etc/ssl/certs/ca-certificates.crt)");
    }
  }
  std::string anchors = p->setting("TS_TRUST_CA");
  std::string certs = p->setting("TS_TSA_CERTS");
  if (!anchors.empty() || !certs.empty()) {
    TokenTrust trust;
    std::string error;
    if (!trust.load(anchors, certs, &error)) {
      p->push_back("TS_TRUST_CA/TS_TSA_CERTS: " + error +
                   "; name PEM files (or a directory of them) that the worker may read");
    }
  }
  std::string policy = p->setting("TS_POLICY");
  if (!policy.empty()) {
    ASN1_OBJECT* oid = OBJ_txt2obj(policy.c_str(), 1);
    if (oid == nullptr) {
      p->push_back("TS_POLICY: '" + policy +
                   "' is no object identifier; write the dotted OID, e.g. 1.2.3.4");
    }
    ASN1_OBJECT_free(oid);
  }
}

void checkPasswordFile(Problems* p) {
  std::string path = p->setting("TIMESTAMP_PASSWORD_FILE");
  if (path.empty()) return;
  std::string secret;
  std::string problem;
  if (!readSecretFile(path.c_str(), &secret, &problem)) {
    p->push_back("TIMESTAMP_PASSWORD_FILE: " + problem);
  }
}

void checkKv(Problems* p, const Clockette& w) {
  std::string own = p->setting("MY_HOST_NAME");
  const char* fix =
      "set MY_HOST_NAME to a name or address of this host that resolves and that the KV can "
      "reach";
  if (!own.empty()) {
    checkHost(p, "MY_HOST_NAME", own, fix);
  } else {
    // The worker tries its short name, then its full name.
    HostIdent host(w.env());
    std::string why = p->unresolved(host.name());
    if (!why.empty() && !p->unresolved(host.fullName()).empty()) {
      p->push_back(std::string("MY_HOST_NAME: unset, and this host's name '") + host.name() +
                   "' does not resolve (" + why + "); " + fix);
    }
  }
  if (!w.testCount.empty()) return;  // test mode needs no KV
  checkHost(p, "KVHOST", w.kvHost.c_str(), "set the KV's host name or address (-kvhost)");
  const char* port = p->env.get("KV_ORDER_PORT");
  if (ToolOrderPort(port) < 0) {
    p->push_back(std::string("KV_ORDER_PORT: '") + port +
                 "' is no UDP port; set 0 (any free port) or 1 to 65535");
  }
  if (w.kvDir.empty()) return;
  std::string probe = std::string(w.kvDir.c_str()) + "/.clockette-check-XXXXXX";
  int fd = mkstemp(&probe[0]);
  if (fd < 0) {
    int error = errno;
    p->push_back("KVDIR: '" + std::string(w.kvDir.c_str()) + "' is not writable (" +
                 systemError(error).c_str() + "); let the worker write there" +
                 (sandboxHint(error).empty() ? "" : ": " + sandboxHint(error)));
    return;
  }
  close(fd);
  unlink(probe.c_str());
}

}  // namespace

std::vector<std::string> checkConfiguration(const Clockette& worker) {
  Problems problems{worker.env(), hostPreference(worker.env()), {}};
  checkTimestampServers(&problems, worker);
  checkCertificates(&problems);
  checkPasswordFile(&problems);
  checkKv(&problems, worker);
  return problems.lines;
}
