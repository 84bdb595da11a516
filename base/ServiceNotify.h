// ServiceNotify: tells the service manager (systemd, Type=notify) that the
// worker is ready and how far it got. Without a manager (NOTIFY_SOCKET
// unset) every call does nothing. Thread-safe.
#ifndef BASE_SERVICENOTIFY_H_
#define BASE_SERVICENOTIFY_H_

#include <string>

namespace service {

// The worker takes orders now (registered with the KV, or test mode started).
// Returns true when a manager was told.
bool notifyReady();
// A one-line status that "systemctl status" shows. Returns true when told.
bool notifyStatus(const std::string& status);

}  // namespace service

#endif  // BASE_SERVICENOTIFY_H_
