// StampPlan: which files of a document are stamped, into which timestamp
// files, and which statements are appended once they are.
//
// planStamps is a function of the document's statements and of what exists
// in its directory only: it reads no file and asks no server. Its order is
// the order of the work: every TIMESTAMP_FILE statement first, then, with
// TIMESTAMP_COMP, every COMP statement whose component has no
// COMP_TIMESTAMP_FILE statement yet.
#ifndef APP_STAMPPLAN_H_
#define APP_STAMPPLAN_H_

#include <functional>
#include <string>
#include <vector>

#include "app/StampResult.h"

// The statements the plan reads, as values in file order.
struct StampStatements {
  std::vector<std::string> files;              // TIMESTAMP_FILE
  bool stampComponents = false;                // a TIMESTAMP_COMP statement exists
  std::vector<std::string> stampedComponents;  // COMP_TIMESTAMP_FILE
  std::vector<std::string> components;         // COMP
  int tokenMode = 1;                           // the TextLine rules the values are cut by
};

// One file to stamp.
struct PlannedStamp {
  std::string source;     // the file to stamp
  std::string target;     // its timestamp file
  std::string statement;  // appended to COMMANDS once stamped; empty: none
};

struct StampPlan {
  std::vector<PlannedStamp> stamps;
  // A statement that fails the document ends the plan; the failure is
  // reported after the files before it are stamped. kOk: none.
  StampFailure failure;
};

// 0 when a file exists at path, else the errno that says why not (stat's
// answer, in the program).
using PathStatus = std::function<int(const std::string& path)>;

// The path of a file token: an absolute one ("/" or "\\" first, or ":" as
// the second character, a drive letter) as it is, any other below directory.
std::string documentFilePath(const std::string& directory, const std::string& token);

// The plan for the document in directory. A component's timestamp file is
// the first "<name>_ts<n>.txt" for which status finds nothing and that no
// earlier file of the plan takes. A path the system cannot take (PATH_MAX
// or longer) ends the plan with kTargetNameTooLong or kSourceNameTooLong; it
// is never cut.
StampPlan planStamps(const std::string& directory, const StampStatements& statements,
                     const PathStatus& status);

#endif  // APP_STAMPPLAN_H_
