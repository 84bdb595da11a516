#include "base/SystemError.h"

#include <cstdio>
#include <cstring>

String systemError(int code) {
  // strerror_r would invent "Unknown error N" for numbers without a message;
  // the name lookup tells the two cases apart so callers get the fixed text.
  if (strerrorname_np(code) == nullptr) {
    char text[64];
    snprintf(text, sizeof text, "Unknown error %d.", code);
    return String(text);
  }
  char buffer[256];
  // GNU form: returns a pointer that may or may not be into buffer.
  const char* text = strerror_r(code, buffer, sizeof buffer);
  return String(text);
}
