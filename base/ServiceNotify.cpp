#include "base/ServiceNotify.h"

#include <systemd/sd-daemon.h>

namespace service {

bool notifyReady() { return sd_notify(0, "READY=1") > 0; }

bool notifyStatus(const std::string& status) {
  return sd_notify(0, ("STATUS=" + status).c_str()) > 0;
}

}  // namespace service
