#include "docfiles/SplitString.h"

#include "base/Log.h"

int SplitString::split(const String& text, std::vector<String>& parts, char sep) {
  Log log("SplitString", "split", __FILE__, __LINE__, 13);
  if (text.empty()) return 0;
  int len = static_cast<int>(text.length());
  log.msg(__LINE__, 9, "Parsing string %s with length %d", text.c_str(), len);
  size_t count = 0;
  auto store = [&](size_t start, size_t end) {
    if (parts.size() <= count) parts.resize(count + 1);
    parts[count] = text.subString(start, end - start);
    ++count;
  };
  size_t lastPos = 0;
  size_t i = 0;
  for (; i < text.length(); ++i) {
    if (text[i] != sep) continue;
    store(lastPos, i);
    log.msg(__LINE__, 9, "S[%d] '%s'", static_cast<int>(count - 1), parts[count - 1].c_str());
    lastPos = i + 1;
  }
  log.msg(__LINE__, 9, "Lastpos = %d, i = %d, len = %d", static_cast<int>(lastPos),
          static_cast<int>(i), len);
  store(lastPos, text.length());
  return static_cast<int>(count);
}
