#include "base/SandboxHint.h"

#include <cerrno>

std::string sandboxHint(int error) {
  if (error != EROFS && error != EACCES) return "";
  return "as a service the worker may write only where the unit's ReadWritePaths= allow, and "
         "sees nothing of /home unless ProtectHome=read-only: set them in a drop-in (systemctl "
         "edit clockette)";
}
