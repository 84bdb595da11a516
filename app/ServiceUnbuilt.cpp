// Clockette::service until the timestamping service is built: it refuses
// every document (result 0, reported as "error") and says why in the log.
// Delete this file when the real service lands.
#include "app/Clockette.h"
#include "base/Log.h"

int Clockette::service(const char* directory) {
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 2, "timestamping not available in this build: '%s'", directory);
  return 0;
}
