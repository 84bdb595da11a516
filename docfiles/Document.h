// Document: one document directory handed to the worker.
//
// Owns the directory's COMMANDS file (Commands), its protocol file
// (Protocol, only when created with one) and further files opened through
// getfileHPtr. Statements are read and changed in memory; closeCommands /
// closeProtocol / closeAll write the changes and the buffered protocol lines.
// The worker tag labels this worker's protocol lines and suffixes its backup
// files ("COMMANDS.<tag>"). Every change to the document's files goes
// through the FileSystem given (base/FileSystem.h).
//
// The program settles the DocumentOptions once (readDocumentOptions) and
// hands them to every Document it creates.
//
// Results are those of Commands, Protocol and FileH: 1 (or a count) for
// success, 0 or less for failure. Not thread-safe.
#ifndef DOCFILES_DOCUMENT_H_
#define DOCFILES_DOCUMENT_H_

#include <memory>
#include <string>
#include <vector>

#include "base/FileSystem.h"
#include "base/List.h"
#include "base/Log.h"
#include "base/String.h"
#include "docfiles/Commands.h"
#include "docfiles/CommandsEntries.h"
#include "docfiles/FileH.h"
#include "docfiles/Protocol.h"

// How the worker keeps its documents.
struct DocumentOptions {
  bool protocolOn = true;  // protocol lines are written
  bool quoting = true;     // arguments are cut by the quoted rules (TextLine)

  // The TextLine::getNextToken mode the quoting setting selects.
  int tokenMode() const { return quoting ? 1 : 0; }
};

// The options from the values of KV_PROTOCOL and
// DOUBLE_QUOTED_COMMANDS_ARGUMENTS (null: unset). Protocol lines are kept
// when kvProtocol is null or "on" in any letter case; quoting follows the
// common switch rule (base/Switch.h), null being on. The quoting setting is
// logged at level 8.
DocumentOptions readDocumentOptions(const char* kvProtocol, const char* doubleQuoted);

class Document {
 public:
  // Opens nothing. withProtocol 0: no protocol file is kept. fs: borrowed,
  // outlives the document.
  Document(const String& directory, const String& tag, int withProtocol,
           FileSystem& fs = FileSystem::posix(), const DocumentOptions& options = {});
  // Closes and deletes every file handle, Commands and Protocol. Changes not
  // written by closeCommands / closeProtocol are dropped.
  virtual ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  // Commands::openCommands.
  int openCommands();
  // Opens COMMANDS for reading ("rt"): 1 when that succeeds. The file stays open.
  int hasReadPermission();
  // Number of statements with key.
  int findKeyInCommands(const String& key);
  // value: that of the last statement with key; returns the number found.
  int getValueForFromCommands(const String& key, String& value);
  // The value of the last statement with key, empty when none.
  String getValueForFromCommands(const String& key);
  // Appends the values of all statements with key; returns the number.
  int getValueForFromCommands(const String& key, List<String>& values);
  // Malloc'ed, null-ended array of the values of all statements with key.
  int getValueForFromCommands(const char* key, char*** values);
  // Malloc'ed, null-ended array of all statements as "key value".
  int getValueForFromCommands(char*** lines);
  // out: a copy of all statements in file order.
  int getAllValuesFromCommands(List<CommandsEntries>& out);
  // Buffers one line to be appended to COMMANDS.
  int appendToCommands(const String& line);
  // Deletion marks. The numbering differs from Commands on purpose:
  // 1 takes a list, 2 one entry, 3 a key and a value.
  int deleteFromCommands1(const List<CommandsEntries>& list);
  int deleteFromCommands2(const CommandsEntries& e);
  int deleteFromCommands3(const String& key, const String& value);
  int integrateChanges();
  // Writes the COMMANDS changes, then closes the file: 1 only when both
  // succeed. When the write fails the file is left open.
  int closeCommands();
  // Buffers a stamped protocol line; with the protocol switch off (or no
  // protocol) nothing happens and 1 is returned.
  int appendToProtocol(const String& text);
  // Appends the buffered protocol lines, then closes the file: 1 only when
  // both succeed. No protocol: 1.
  int closeProtocol();
  // closeCommands, closeProtocol, then closeFile on every further handle;
  // all are attempted; 1 only when every one succeeded.
  int closeAll();
  // The handle of fileName, created (owned by the document) when new.
  FileH* getfileHPtr(const String& fileName);
  FileH* getFileH(const char* fileName);

  // Logs the message through log at level, then records it in the protocol:
  // with "ERROR: " in front at levels 5 and below. The text is cut at 2999
  // characters. Returns the result of appendToProtocol.
  int docMessage(Log& log, int line, int level, const char* format, ...) CLOCKETTE_PRINTF(5, 6);
  // The text of the first docMessage at level 2 or below (cut as there):
  // why the document failed, for the line that reports the failure. Empty
  // when there was none.
  const String& failureReason() const { return failureReason_; }

  // Commands::readable: 1 when COMMANDS was read or is missing, 0 when it
  // exists but cannot be read.
  int commandsReadable();

  // 1 when path names one of the document's own bookkeeping files (COMMANDS,
  // a COMMANDS.<tag> backup, the protocol file, the lock file): the same
  // name in the document directory however the path reaches it, or, for an
  // existing path, the same file (device and inode, links followed). *which
  // then names that file. Nothing else may ever be written over them.
  int isBookkeepingFile(const String& path, String* which) const;
  // Whether name (without a directory) is that of a bookkeeping file of any
  // document.
  static bool isBookkeepingName(const std::string& name);
  // Remembers a file this attempt created in the document, so that a failed
  // attempt can take it away again.
  void noteCreatedFile(const String& path);
  // Removes the files noted by noteCreatedFile (files that were there before
  // stay). 1 when all are gone, 0 when one could not be removed (logged at
  // level 2 with the file and the system's error).
  int removeCreatedFiles();

  const String& directory() const { return directory_; }
  const String& tag() const { return tag_; }
  FileSystem& fileSystem() const { return *fs_; }
  const DocumentOptions& options() const { return options_; }

 private:
  FileSystem* fs_;  // borrowed
  DocumentOptions options_;
  String tag_;
  String directory_;
  std::vector<std::unique_ptr<FileH>> fileHandles_;
  std::unique_ptr<Commands> commands_;
  std::unique_ptr<Protocol> protocol_;
  std::vector<String> createdFiles_;
  String failureReason_;
};

#endif  // DOCFILES_DOCUMENT_H_
