#include "tsclient/TsResultFile.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "base/Log.h"
#include "base/ReplaceFile.h"
#include "base/SandboxHint.h"
#include "base/SystemError.h"
#include "der/CAsn1string.h"
#include "encoding/Base64Crc.h"

namespace {

const char kComponent[] = "zpTrequest";

// The timestamp file cannot be written: a local failure, -5.
int unwritable(Log& log, const char* target, const std::string& step, int err) {
  log.msg(__LINE__, 2, "Unable to open %s for writing: %s failed: errno=%d (%s)", target,
          step.c_str(), err, systemError(err).c_str());
  if (!sandboxHint(err).empty()) log.msgc("%s", sandboxHint(err).c_str());
  return -5;
}

}  // namespace

int timestamp2base64(CAsn1string* response, char** out) {
  Log log(kComponent, "timestamp2base64", __FILE__, __LINE__, 13);
  int len = static_cast<int>(response->length());
  int size = (4 * len) / 3 + 10;
  char* text = new (std::nothrow) char[size];
  if (text == nullptr || encodeBase64(response->data(), response->length(), text,
                                      static_cast<unsigned int>(size)) != 0) {
    log.msg(__LINE__, 2, "encodeBase64 failed");
    delete[] text;
    *out = nullptr;
    return -1;
  }
  *out = text;
  return 0;
}

int prepareTimestamp(CAsn1string* response, const char* target, FileSystem& fs) {
  Log log(kComponent, "prepareTimestamp", __FILE__, __LINE__, 13);
  char* base64 = nullptr;
  if (timestamp2base64(response, &base64) != 0) {
    log.msg(__LINE__, 2, "Converting timestamp to base64 failed");
    return -4;
  }
  std::unique_ptr<char[]> text(base64);
  // Through a temporary file and a rename: a crash leaves the old file or
  // the new one, never a cut-off or empty timestamp.
  std::string step;
  int err = writeReplacement(target, text.get(), strlen(text.get()), &step, fs);
  if (err != 0) return unwritable(log, target, step, err);
  return 0;
}

int commitTimestamp(const char* source, const char* target, bool syncDirectory, FileSystem& fs) {
  Log log(kComponent, "commitTimestamp", __FILE__, __LINE__, 13);
  std::string step;
  int err = commitReplacement(target, &step, syncDirectory, fs);
  if (err != 0) return unwritable(log, target, step, err);
  log.msg(__LINE__, 8, "Timestamp for document %s written to %s", source, target);
  return 0;
}

void discardTimestamp(const char* target, FileSystem& fs) { discardReplacement(target, fs); }

int storeTimestamp(CAsn1string* response, const char* source, const char* target,
                   bool syncDirectory, FileSystem& fs) {
  Log log(kComponent, "storeTimestamp", __FILE__, __LINE__, 13);
  int rc = prepareTimestamp(response, target, fs);
  return rc != 0 ? rc : commitTimestamp(source, target, syncDirectory, fs);
}
