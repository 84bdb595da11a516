// TempDir: a fresh directory under $TMPDIR (or /tmp), removed with its
// contents when the object goes away. Plus small file and text helpers for
// tests.
#ifndef TESTING_TEMPDIR_H_
#define TESTING_TEMPDIR_H_

#include <string>

namespace testing_support {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole-file helpers; they fail the running test on I/O errors.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
// The file's text; "" when there is no such file.
std::string readIfThere(const std::string& path);
// Waits until the file holds part; false after timeoutSeconds.
bool waitForText(const std::string& path, const std::string& part = "", int timeoutSeconds = 20);
void makeDir(const std::string& path);

// Whether text holds part.
inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Occurrences of part in text.
inline int count(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

}  // namespace testing_support

#endif  // TESTING_TEMPDIR_H_
