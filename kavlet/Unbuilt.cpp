// Bodies of Kavlet operations whose real code belongs to the work cycle, the
// control handling and the signal handling. Until those land, each one says
// in the log that it is missing and answers with the failure value its
// caller expects; none pretends to have done its work. Delete a body here
// when its real one is added.
#include "base/Log.h"
#include "kavlet/Kavlet.h"

void Kavlet::installHandlers() {
  // No handlers yet: SIGINT and SIGTERM keep their default action.
  Log log("Kavlet", "installHandlers", __FILE__, __LINE__, 13);
}

int Kavlet::control(int code, const char* text) {
  Log log("Kavlet", "control", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "control messages are not available in this build: '%s' (%d)",
          text ? text : "", code);
  return 1;
}

int Kavlet::createDocument(const char* directory, const char*) {
  Log log("Kavlet", "createDocument", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "documents are not available in this build: '%s'", directory);
  return 0;
}

int Kavlet::extendedKVop(int result, const char* directory) {
  Log log("Kavlet", "extendedKVop", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "reporting to the KV is not available in this build: '%s' (%d)", directory,
          result);
  return 1;
}
