// StampedFiles: the timestamp files that the documents under a directory
// name in their COMMANDS, for clockette-verify.
//
// A document is a directory with a COMMANDS file; a tree is searched for
// them (symbolic links are not followed). Its statements name timestamp files
// as the worker wrote them: TIMESTAMP_FILE <file> <tst_file>, and
// COMP_TIMESTAMP_FILE "<name>" "<tst_file>" for the COMP <name> <type> <file>
// statement of that component. Paths follow the worker's rule: a token that
// begins with "/" or "\" or has ":" second is used as it is, any other is
// taken under the document directory.
//
// Reading never changes a document: COMMANDS is read under a worker tag of
// its own, so no backup of the worker is restored. Not thread-safe.
#ifndef TOOLS_VERIFY_STAMPEDFILES_H_
#define TOOLS_VERIFY_STAMPEDFILES_H_

#include <string>
#include <vector>

struct StampedFile {
  std::string document;   // the document directory
  std::string source;     // the file the timestamp is for
  std::string timestamp;  // the timestamp file
  std::string problem;    // why the statement cannot be checked; empty when it can
};

// Appends the timestamp files of the documents at or under root to *out,
// documents and their subdirectories in byte order of their names, each
// document's statements in file order. Returns the number of documents, or
// -1 when root is no directory. tokenMode: the TextLine rules the
// statements are cut by, as the worker's DOUBLE_QUOTED_COMMANDS_ARGUMENTS says.
int findStampedFiles(const std::string& root, std::vector<StampedFile>* out, int tokenMode = 1);

#endif  // TOOLS_VERIFY_STAMPEDFILES_H_
