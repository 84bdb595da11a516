// Kavlet::control: the control messages of the KV.
#include <cstdlib>
#include <vector>

#include "base/Log.h"
#include "kavlet/Kavlet.h"
#include "docfiles/SplitString.h"

namespace {

constexpr int kFirstNumericLevel = 5;

}  // namespace

int Kavlet::control(int code, const char* text) {
  Log log("Kavlet", "control", __FILE__, __LINE__, 13);
  String message = text ? text : "";
  log.msg(__LINE__, 8, "Got message '%s' with command %d", message.c_str(), code);
  std::vector<String> words;
  int count = SplitString::split(message, words, ' ');
  words.resize(static_cast<size_t>(count));

  for (int i = 0; i < count; ++i) {
    const String& word = words[static_cast<size_t>(i)];
    int left = count - 1 - i;  // words after this one
    if (word == "loglevel" && left >= 1) {
      int value = atoi(words[static_cast<size_t>(++i)].c_str());
      for (int level = kFirstNumericLevel; level <= Log::kMaxLevel; ++level) {
        log.msg(__LINE__, 9, "Setting loglevel '%d'", level);
        if (level <= value) {
          logTarget_.setLevel(level, 1);
        } else {
          logTarget_.setLevel(level, 0);
        }
      }
    } else if (word == "setLogLevel" && left >= 2) {
      const String& name = words[static_cast<size_t>(i + 1)];
      const String& onOff = words[static_cast<size_t>(i + 2)];
      i += 2;
      // Only these four spellings switch; "On" and the like do nothing.
      if (onOff == "on" || onOff == "ON") {
        logTarget_.setLevel(name.c_str(), 1);
      } else if (onOff == "off" || onOff == "OFF") {
        logTarget_.setLevel(name.c_str(), 0);
      }
    } else if (word == "print") {
      log.msg(__LINE__, 8, "print kavlet settings");
      printObject();
    } else if (word == "usage") {
      log.msg(__LINE__, 8, "print usage");
      printUsage();
    } else if (word == "version") {
      log.msg(__LINE__, 8, "print version of kavlet");
      printVersion();
    } else if (word == "kvTestOn") {
      log.msg(__LINE__, 8, "turn kvTest on");
      kvTest = 1;
    } else if (word == "kvTestOff") {
      // The same text as for kvTestOn: operators' log filters look for it.
      log.msg(__LINE__, 8, "turn kvTest on");
      kvTest = 0;
    } else {
      int position = i;
      if (parseAdditionalKvctrlArguments(words, &position) != 0) {
        if (position > i) i = position;
        continue;
      }
      log.msg(__LINE__, 3, "Cannot handle message '%s' for the moment", message.c_str());
      log.msgc("Valid message strings: 'loglevel <val>','print','usage'");
      log.msgc("                       'setLogLevel <level> <on/off>',");
      log.msgc("                       'version', 'kvTestOn, and 'kvTestOff'");
    }
  }
  return 1;
}
