#include "docfiles/Protocol.h"

#include <ctime>
#include <string>

#include "base/Log.h"

Protocol::Protocol(const String& directory, const String& tag, FileSystem& fs)
    : FileH(directory + "/KVprotocol", tag, fs), tag_(tag) {
  Log log("Protocol", "Protocol", __FILE__, __LINE__, 13);
}

Protocol::~Protocol() {
  Log log("Protocol", "~Protocol", __FILE__, __LINE__, 13);
  closeProtocol();
}

int Protocol::appendToBuffer(const String& text) {
  Log log("Protocol", "appendToBuffer", __FILE__, __LINE__, 13);
  time_t now = time(nullptr);
  struct tm local;
  char stamp[100] = "";
  if (localtime_r(&now, &local) != nullptr) {
    strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &local);
  }
  String line = String(stamp) + " [" + tag_ + "] " + text;
  if (toAdd_.put(line) != 1) {
    log.msg(__LINE__, 2, "to_add.put-Error ?? ");
    return 0;
  }
  return 1;
}

int Protocol::openForAppend() {
  Log log("Protocol", "openForAppend", __FILE__, __LINE__, 13);
  if (closeProtocol() != 1) return 0;
  return openFile(kAppendText, 0);
}

int Protocol::closeProtocol() {
  Log log("Protocol", "closeProtocol", __FILE__, __LINE__, 13);
  if (isOpen()) return closeFile();
  log.msg(__LINE__, 9, "nothing open ");
  return 1;
}

int Protocol::write1(const String& line) {
  Log log("Protocol", "write1", __FILE__, __LINE__, 13);
  List<String> lines;
  if (lines.put(line) != 1) return 0;
  return write2(lines);
}

int Protocol::write2(const List<String>& lines) {
  Log log("Protocol", "write2", __FILE__, __LINE__, 13);
  if (openForAppend() != 1) return 0;
  std::string text;
  for (const String& line : lines) text += line.str() + "\n";
  return appendWhole(String(std::move(text)));
}

int Protocol::writeBuffer() {
  Log log("Protocol", "writeBuffer", __FILE__, __LINE__, 13);
  if (toAdd_.empty()) return 1;
  int result = write2(toAdd_);
  toAdd_.clear();
  return result;
}
