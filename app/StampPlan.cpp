#include "app/StampPlan.h"

#include <climits>
#include <set>

#include "base/Log.h"
#include "base/SystemError.h"
#include "docfiles/TextLine.h"

namespace {

// What a wrong COMP statement is quoted with: its first 999 characters.
constexpr size_t kStatementCopy = 999;

using Token = TextLine::Token;

// The first count tokens of text; false when one is missing.
bool firstTokens(const std::string& text, size_t count, int mode,
                 std::vector<std::string>* tokens) {
  TextLine line(text.c_str());
  for (size_t i = 0; i < count; ++i) {
    Token t(line.getNextToken(mode));
    if (!t) return false;
    tokens->emplace_back(t.get());
  }
  return true;
}

bool systemTakes(const std::string& path) { return path.size() < PATH_MAX; }

class Planner {
 public:
  Planner(const std::string& directory, const PathStatus& status, int tokenMode)
      : dir_(directory),
        status_(status),
        tokenMode_(tokenMode),
        log_("clockette", "service", __FILE__, __LINE__, 13) {}

  // Both return false when the statement ends the plan.
  bool addFile(const std::string& value);
  bool addComponent(const std::string& value, const std::set<std::string>& stamped);
  // The names of the components with a COMP_TIMESTAMP_FILE statement.
  std::set<std::string> stampedNames(const std::vector<std::string>& values);

  StampPlan plan;

 private:
  void add(std::string source, std::string target, std::string statement) {
    planned_.insert(target);
    plan.stamps.push_back({std::move(source), std::move(target), std::move(statement)});
  }
  bool fail(StampResult result, std::string source, std::string target, std::string detail) {
    plan.failure = {result, std::move(source), std::move(target), std::move(detail)};
    return false;
  }

  const std::string& dir_;
  const PathStatus& status_;
  int tokenMode_;
  Log log_;
  std::set<std::string> planned_;
};

bool Planner::addFile(const std::string& value) {
  log_.msg(__LINE__, 9, "TIMESTAMP_FILE '%s'", value.c_str());
  std::vector<std::string> t;
  if (!firstTokens(value, 2, tokenMode_, &t)) {
    // Only skipped: an incomplete file statement does not fail the document.
    log_.msg(__LINE__, 2, "ignore wrong TIMESTAMP_FILE COMMANDS statement: '%s'", value.c_str());
    return true;
  }
  std::string source = documentFilePath(dir_, t[0]);
  std::string target = documentFilePath(dir_, t[1]);
  if (!systemTakes(target)) return fail(StampResult::kTargetNameTooLong, source, target, "");
  if (!systemTakes(source)) return fail(StampResult::kSourceNameTooLong, source, target, "");
  add(source, target, std::string());
  return true;
}

std::set<std::string> Planner::stampedNames(const std::vector<std::string>& values) {
  std::set<std::string> names;
  for (const std::string& value : values) {
    log_.msg(__LINE__, 9, "'%s'", value.c_str());
    std::vector<std::string> t;
    if (!firstTokens(value.substr(0, kStatementCopy), 1, tokenMode_, &t)) continue;
    names.insert(t[0]);
    log_.msg(__LINE__, 9, "don't do timestamping for component '%s'", t[0].c_str());
  }
  return names;
}

bool Planner::addComponent(const std::string& value, const std::set<std::string>& stamped) {
  log_.msg(__LINE__, 9, "'%s'", value.c_str());
  std::vector<std::string> t;
  // Unlike a file statement, a broken component fails the document.
  if (!firstTokens(value, 3, tokenMode_, &t)) {
    return fail(StampResult::kWrongComp, "", "", value.substr(0, kStatementCopy));
  }
  const std::string& name = t[0];
  log_.msg(__LINE__, 9, "parse COMP COMMANDS statement: name='%s',type='%s',src-file='%s'",
           name.c_str(), t[1].c_str(), t[2].c_str());
  if (stamped.count(name) != 0) {
    log_.msg(__LINE__, 9,
             "skip timestamping of component '%s', because of COMP_TIMESTAMP_FILE statement",
             name.c_str());
    return true;
  }
  std::string source = documentFilePath(dir_, t[2]);
  // The first free "<name>_ts<n>.txt" of the directory: earlier stamps stay.
  // A name planned for an earlier file counts as taken, as it will exist by
  // the time this file's turn comes.
  std::string file, target;
  int missing = 0;
  for (int counter = 0;; ++counter) {
    file = name + "_ts" + std::to_string(counter) + ".txt";
    target = dir_ + "/" + file;
    if (!systemTakes(target)) return fail(StampResult::kTargetNameTooLong, source, target, "");
    if (planned_.count(target) != 0) continue;
    missing = status_(target);
    if (missing != 0) break;
  }
  if (!systemTakes(source)) return fail(StampResult::kSourceNameTooLong, source, target, "");
  log_.msg(__LINE__, 9, "cannot get file status of file '%s': '%s'", target.c_str(),
           systemError(missing).c_str());
  // Written as it stands: quotes inside the name are not escaped.
  add(source, target, "COMP_TIMESTAMP_FILE \"" + name + "\" \"" + file + "\"");
  return true;
}

}  // namespace

std::string documentFilePath(const std::string& directory, const std::string& token) {
  bool absolute = !token.empty() &&
                  (token[0] == '/' || token[0] == '\\' || (token.size() > 1 && token[1] == ':'));
  return absolute ? token : directory + "/" + token;
}

StampPlan planStamps(const std::string& directory, const StampStatements& statements,
                     const PathStatus& status) {
  Planner planner(directory, status, statements.tokenMode);
  for (const std::string& value : statements.files) {
    if (!planner.addFile(value)) return std::move(planner.plan);
  }
  if (!statements.stampComponents) return std::move(planner.plan);
  Log log("clockette", "service", __FILE__, __LINE__, 13);
  log.msg(__LINE__, 9, "found TIMESTAMP_COMP statement in COMMANDS file");
  // Every component stamped earlier is known before the first COMP is looked at.
  std::set<std::string> stamped = planner.stampedNames(statements.stampedComponents);
  for (const std::string& value : statements.components) {
    if (!planner.addComponent(value, stamped)) break;
  }
  return std::move(planner.plan);
}
