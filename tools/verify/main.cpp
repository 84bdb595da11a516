// clockette-verify: checks the timestamp files of documents, for operators
// and auditors. For every TIMESTAMP_FILE and COMP_TIMESTAMP_FILE statement of
// every document under the given directories it prints one line: the result,
// the timestamp file, genTime, the serial number in hex, the TSA name and the
// policy (and why, when it failed); then a summary line. Exit code 0 only
// when every timestamp verified; 1 when one did not; 2 for bad usage, trust
// files that cannot be read, or directories without any document.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "base/LogTarget.h"
#include "docfiles/Document.h"
#include "tools/verify/StampAudit.h"
#include "tools/verify/StampedFiles.h"
#include "tsclient/TokenCheck.h"

namespace {

struct Options {
  std::string caPath;
  std::string certsPath;
  bool json = false;
  bool verbose = false;
  std::vector<std::string> dirs;
};

int usage(const char* program) {
  fprintf(stderr,
          "usage: %s [--ca PEM] [--certs PEM] [--json] [--verbose] DIR...\n"
          "  Checks every timestamp file that the documents (directories with COMMANDS) at or\n"
          "  under each DIR name in TIMESTAMP_FILE and COMP_TIMESTAMP_FILE statements: BASE64\n"
          "  and DER, status, the imprint against the file as it is now, the signature.\n"
          "  It also checks what 'openssl ts -verify' cannot: signers named by\n"
          "  subjectKeyIdentifier and RSA-PSS signatures made with an rsaEncryption key\n"
          "  ('openssl cms -verify' checks those too).\n"
          "  --ca PEM      trust anchors (a PEM file or a directory of them): the signer must\n"
          "                chain to one as of genTime and carry the timeStamping usage\n"
          "  --certs PEM   signer and intermediate certificates for tokens that carry none\n"
          "  --json        one JSON document instead of lines\n"
          "  --verbose     the library's error log on standard error\n"
          "Exit code 0 when every timestamp verified, 1 when one did not, 2 on bad usage.\n",
          program);
  return 2;
}

bool parseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if ((arg == "--ca" || arg == "--certs") && i + 1 < argc) {
      (arg == "--ca" ? options->caPath : options->certsPath) = argv[++i];
    } else if (arg == "--json") {
      options->json = true;
    } else if (arg == "--verbose") {
      options->verbose = true;
    } else if (arg.empty() || arg[0] == '-') {
      return false;
    } else {
      while (arg.size() > 1 && arg.back() == '/') arg.pop_back();
      options->dirs.push_back(arg);
    }
  }
  return !options->dirs.empty();
}

std::string jsonText(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

void printLine(const StampedFile& stamp, const StampAudit& audit) {
  const TokenFacts& f = audit.facts;
  printf("%-6s %s genTime=\"%s\" serial=%s tsa=\"%s\" policy=%s", audit.ok ? "ok" : "FAILED",
         stamp.timestamp.c_str(), f.genTime.c_str(),
         f.serialHex.empty() ? "-" : f.serialHex.c_str(), f.tsaName.c_str(),
         f.policyOid.empty() ? "-" : f.policyOid.c_str());
  if (!audit.ok) printf(" reason=\"%s\"", audit.reason.c_str());
  printf("\n");
}

std::string jsonRecord(const StampedFile& stamp, const StampAudit& audit) {
  const TokenFacts& f = audit.facts;
  return "{\"result\":" + jsonText(audit.ok ? "ok" : "failed") +
         ",\"file\":" + jsonText(stamp.timestamp) + ",\"source\":" + jsonText(stamp.source) +
         ",\"document\":" + jsonText(stamp.document) + ",\"genTime\":" + jsonText(f.genTime) +
         ",\"serial\":" + jsonText(f.serialHex) + ",\"tsa\":" + jsonText(f.tsaName) +
         ",\"policy\":" + jsonText(f.policyOid) + ",\"reason\":" + jsonText(audit.reason) + "}";
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, &options)) return usage(argv[0]);
  LogTarget logTarget;
  for (int level = 0; level <= 13; ++level)
    logTarget.setLevel(level, options.verbose && level <= 2);
  LogTarget::Installation logInstalled(logTarget);

  TokenTrust trust;
  std::string error;
  if (!trust.load(options.caPath, options.certsPath, &error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 2;
  }
  std::vector<StampedFile> stamps;
  int documents = 0;
  const int tokenMode =
      readDocumentOptions(nullptr, getenv("DOUBLE_QUOTED_COMMANDS_ARGUMENTS")).tokenMode();
  for (const std::string& dir : options.dirs) {
    int found = findStampedFiles(dir, &stamps, tokenMode);
    if (found < 0) {
      fprintf(stderr, "%s is no directory\n", dir.c_str());
      return 2;
    }
    documents += found;
  }
  if (documents == 0) {
    fprintf(stderr, "no document (a directory with COMMANDS) found\n");
    return 2;
  }

  int failed = 0;
  std::string records;
  for (const StampedFile& stamp : stamps) {
    StampAudit audit;
    try {
      audit = auditStamp(stamp, trust);
    } catch (const std::exception& e) {  // one file's trouble is not the others'
      audit.reason = std::string("cannot check: ") + e.what();
    }
    if (!audit.ok) ++failed;
    if (options.json) {
      records += (records.empty() ? "\n  " : ",\n  ") + jsonRecord(stamp, audit);
    } else {
      printLine(stamp, audit);
    }
  }
  int total = static_cast<int>(stamps.size());
  if (options.json) {
    printf("{\"timestamps\": [%s\n],\n \"documents\": %d, \"ok\": %d, \"failed\": %d}\n",
           records.c_str(), documents, total - failed, failed);
  } else {
    printf("%d timestamp%s in %d document%s: %d ok, %d failed\n", total, total == 1 ? "" : "s",
           documents, documents == 1 ? "" : "s", total - failed, failed);
  }
  return failed == 0 ? 0 : 1;
}
