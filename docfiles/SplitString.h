// SplitString: cuts a text at every occurrence of one separator character.
#ifndef DOCFILES_SPLITSTRING_H_
#define DOCFILES_SPLITSTRING_H_

#include <vector>

#include "base/String.h"

class SplitString {
 public:
  // Stores the pieces of text between separators into parts[0], parts[1], ...
  // (growing parts as needed; slots past the result are left as they were).
  // Empty pieces are kept: "a,,b" gives three parts, "a," two. Returns the
  // number of parts, 0 for an empty text.
  static int split(const String& text, std::vector<String>& parts, char sep);
};

#endif  // DOCFILES_SPLITSTRING_H_
