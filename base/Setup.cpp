#include "base/Setup.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/Owners.h"
#include "base/SystemError.h"

namespace {

// Longest line of a ".conf" file that is looked at.
constexpr size_t kConfLineMax = 1022;

// Reads the next line without its end, keeping at most max characters (the
// rest of an over-long line is dropped). The text of a line ends at a NUL
// byte: what follows it up to the line end is dropped too, since a name cut
// there would set or clear another variable ("PATH\0x=" would clear PATH).
// False at end of file.
bool readLine(FILE* f, size_t max, std::string* line) {
  line->clear();
  int c;
  bool any = false;
  bool ended = false;
  while ((c = fgetc(f)) != EOF) {
    any = true;
    if (c == '\n') break;
    if (c == '\0') ended = true;
    if (!ended && line->size() < max) line->push_back(static_cast<char>(c));
  }
  return any;
}

bool isBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// Applies the line rules; false for comments, lines without "=" and empty
// values. An empty name is a setting like any other: the environment
// refuses it, which stops the reading of a setup file.
bool parseLine(const std::string& line, std::string* name, std::string* value) {
  if (line.empty() || line[0] == '#') return false;
  size_t eq = line.find('=');
  if (eq == std::string::npos) return false;
  size_t nameEnd = eq;
  while (nameEnd > 0 && isBlank(line[nameEnd - 1])) --nameEnd;
  size_t b = eq + 1;
  size_t e = line.size();
  while (b < e && isBlank(line[b])) ++b;
  while (e > b && isBlank(line[e - 1])) --e;
  if (e - b >= 2 && line[b] == '"' && line[e - 1] == '"') {
    ++b;
    --e;
  }
  if (b == e) return false;
  name->assign(line, 0, nameEnd);
  value->assign(line, b, e - b);
  return true;
}

bool isNameChar(char c) { return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// First pass: the program's own $ references. Returns the length the
// expansion needs (without the NUL); out holds it when it fits.
size_t expandDollar(const Environment& env, const char* in, std::string* out) {
  out->clear();
  for (size_t i = 0; in[i] != '\0';) {
    if (in[i] == '\\' && in[i + 1] == '$') {
      out->push_back('$');
      i += 2;
      continue;
    }
    if (in[i] == '$') {
      char open = in[i + 1];
      bool bracketed = open == '(' || open == '{';
      size_t start = bracketed ? i + 2 : i + 1;
      size_t end = start;
      while (isNameChar(in[end])) ++end;
      char close = open == '(' ? ')' : '}';
      bool complete = end > start && (!bracketed || in[end] == close);
      if (complete) {
        std::string name(in + start, end - start);
        const char* value = env.get(name.c_str());
        if (value != nullptr && strlen(value) + 1 < static_cast<size_t>(kSetupBufferSize)) {
          out->append(value);
          i = bracketed ? end + 1 : end;
          continue;
        }
      }
      if (!bracketed && end > start) {
        // An unset bare $NAME stays as written together with the character
        // that ended it, which is not looked at again ("$A$B" stays whole,
        // "$A\$B" keeps its backslash). The end of the text ends it too.
        size_t stop = in[end] != '\0' ? end + 1 : end;
        out->append(in + i, stop - i);
        i = stop;
        continue;
      }
      // Unset, too long or not a reference: keep the text as written.
      out->push_back('$');
      ++i;
      continue;
    }
    out->push_back(in[i]);
    ++i;
  }
  return out->size();
}

// Second pass: %NAME% references from the environment. An unknown name, an
// empty one ("%%") and a lone "%" stay as written.
size_t expandPercent(const Environment& env, const std::string& in, std::string* out) {
  out->clear();
  size_t i = 0;
  while (i < in.size()) {
    size_t open = in.find('%', i);
    if (open == std::string::npos) {
      out->append(in, i, std::string::npos);
      break;
    }
    out->append(in, i, open - i);
    size_t close = in.find('%', open + 1);
    if (close == std::string::npos) {
      out->append(in, open, std::string::npos);
      break;
    }
    std::string name = in.substr(open + 1, close - open - 1);
    const char* value = name.empty() ? nullptr : env.get(name.c_str());
    if (value != nullptr) {
      out->append(value);
    } else {
      out->append(in, open, close - open + 1);
    }
    i = close + 1;
  }
  return out->size();
}

// Like a NAME=VALUE store, the first "=" separates the name.
int storeInEnvironment(Environment& env, const std::string& text) {
  size_t eq = text.find('=');
  std::string name = text.substr(0, eq);
  std::string value = eq == std::string::npos ? std::string() : text.substr(eq + 1);
  return env.set(name.c_str(), value.c_str()) == 0 ? 0 : -1;
}

bool isExistingPath(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

}  // namespace

int expandAndPut(Environment& env, const char* text) {
  Log log("setup", "expandAndPut", __FILE__, __LINE__, 13);
  const size_t limit = kSetupBufferSize - 1;
  std::string first;
  size_t needed = expandDollar(env, text, &first);
  if (needed + 1 > limit) {
    // Too long for the buffer: report it and keep the text as it came.
    fprintf(stderr, "String <<%s>> expands to %d = more than %d bytes!\n", text,
            static_cast<int>(needed + 1), kSetupBufferSize);
    first = text;
  }
  std::string second;
  needed = expandPercent(env, first, &second);
  if (needed + 1 > limit) {
    fprintf(stderr, "String <<%s>> expands to %d = more than %d bytes!\n", first.c_str(),
            static_cast<int>(needed + 1), kSetupBufferSize);
    second = first;
  }
  // Only the name: setup values may hold credentials (TIMESTAMP_PASSWORD).
  log.msg(__LINE__, 10, "put '%s'", second.substr(0, second.find('=')).c_str());
  return storeInEnvironment(env, second);
}

String configDirectory(const Environment& env) {
  const char* config = env.get("CONFIG");
  if (config == nullptr || *config == '\0') return String();
  String dir = config;
  if (strchr(config, '/') == nullptr && strchr(config, '\\') == nullptr &&
      !isExistingPath(config)) {
    String found;
    if (readConfigDirectory(env, config, &found) == 0 && !found.empty()) dir = found;
  }
  return dir;
}

String setupFileProblem(const String& dir, const char* package) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return String("configuration directory '") + dir + "' (CONFIG) does not exist";
  }
  String path = dir + "/setup/" + (package ? package : "") + ".Setup";
  FilePtr file(fopen(path.c_str(), "r"));
  if (file) return String();
  return String("'") + path + "' cannot be read: " + systemError(errno);
}

int readSetup(Environment& env, const char* package) {
  Log log("setup", "readSetup", __FILE__, __LINE__, 13);
  const char* config = env.get("CONFIG");
  if (config == nullptr || *config == '\0') {
    fprintf(stderr, "Environment variable CONFIG not set!\n");
    return -1;
  }
  String path = configDirectory(env) + "/setup/" + (package ? package : "") + ".Setup";
  FilePtr file(fopen(path.c_str(), "r"));
  if (!file) {
    log.msg(__LINE__, 9, "no setup file '%s'", path.c_str());
    return 0;
  }
  log.msg(__LINE__, 9, "reading setup file '%s'", path.c_str());
  std::string line, name, value;
  while (readLine(file.get(), kSetupBufferSize, &line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!parseLine(line, &name, &value)) continue;
    std::string setting = name + "=" + value;
    if (expandAndPut(env, setting.c_str()) != 0) {
      log.msg(__LINE__, 2, "could not store '%s' from '%s'", name.c_str(), path.c_str());
      return 0;
    }
  }
  return 1;
}

int readConfigDirectory(const Environment& env, const char* name, String* result) {
  Log log("setup", "readConfigDirectory", __FILE__, __LINE__, 13);
  const char* confDir = env.get("ECM_CONF_DIRS");
  if (confDir == nullptr || *confDir == '\0') {
    log.msg(__LINE__, 9, "ECM_CONF_DIRS not set, no configuration directory for '%s'",
            name ? name : "");
    return -1;
  }
  DirPtr dir(opendir(confDir));
  if (!dir) {
    log.msg(__LINE__, 2, "%s not readable", confDir);
    return -1;
  }
  std::vector<std::string> files;
  while (struct dirent* entry = readdir(dir.get())) {
    std::string file = entry->d_name;
    if (file.size() > 5 && file.compare(file.size() - 5, 5, ".conf") == 0) files.push_back(file);
  }
  std::sort(files.begin(), files.end());

  std::vector<std::string> dirs;
  for (const std::string& file : files) {
    std::string path = std::string(confDir) + "/" + file;
    log.msg(__LINE__, 9, "reading configuration from %s", path.c_str());
    FilePtr f(fopen(path.c_str(), "r"));
    if (!f) {
      log.msg(__LINE__, 2, "%s not readable", path.c_str());
      continue;
    }
    std::string line, key, value;
    while (readLine(f.get(), kConfLineMax, &line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!parseLine(line, &key, &value) || key != "CONFIG") continue;
      log.msg(__LINE__, 10, "Check if path already in list (key %s) : %s", key.c_str(),
              value.c_str());
      if (std::find(dirs.begin(), dirs.end(), value) != dirs.end()) {
        log.msg(__LINE__, 9, "Skip this path because found in list (key %s) : %s", key.c_str(),
                value.c_str());
        continue;
      }
      dirs.push_back(value);
      log.msg(__LINE__, 9, "ConfigDir[%d] (key CONFIG)  = %s", static_cast<int>(dirs.size() - 1),
              value.c_str());
    }
  }
  if (!dirs.empty()) *result = String(dirs.front());
  return 0;
}
