// CommandsEntries: one statement of a COMMANDS file in memory.
#ifndef DOCFILES_COMMANDSENTRIES_H_
#define DOCFILES_COMMANDSENTRIES_H_

#include <cstdint>

#include "base/String.h"

class CommandsEntries {
 public:
  CommandsEntries() = default;
  CommandsEntries(const String& key, const String& value) : key_(key), value_(value) {}

  // Equal when key and value are byte-equal; the deletion mark is ignored.
  bool operator==(const CommandsEntries& other) const {
    return key_ == other.key_ && value_ == other.value_;
  }
  bool operator!=(const CommandsEntries& other) const { return !(*this == other); }

  // Copy the field into out; return 1.
  int getKey(String& out) const {
    out = key_;
    return 1;
  }
  int getValue(String& out) const {
    out = value_;
    return 1;
  }

  const String& key() const { return key_; }
  const String& value() const { return value_; }
  int32_t deleted() const { return deleted_; }
  void setDeleted(int32_t deleted) { deleted_ = deleted; }

 private:
  String key_;
  String value_;
  int32_t deleted_ = 0;  // 1 once marked for deletion
};

#endif  // DOCFILES_COMMANDSENTRIES_H_
