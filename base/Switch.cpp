#include "base/Switch.h"

#include "base/String.h"

bool switchIsOn(const char* value) {
  if (value == nullptr) return false;
  String v = String(value).lower();
  if (v == "on") return true;
  if (v == "off") return false;
  return v == "yes" || v == "ja" || v == "true" || v == "1";
}
