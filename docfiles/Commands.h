// Commands: the COMMANDS file of one document directory.
//
// COMMANDS holds one statement per line: a key, blanks, and a value (see
// getKeyAndVal). Commands reads the whole file into memory once (when its
// statement list is empty; an empty or missing file is therefore looked for
// again at the next lookup), answers lookups from memory, collects added
// lines in a buffer and marks deletions. Only writeBuffer() changes the file:
//  - with deletions marked or after integrateChanges(), the file is rewritten
//    with every statement left as key, tab, value (empty lines vanish), and
//    added lines not yet integrated are appended as given; a file with text
//    after a CR inside a line (which no reader sees, since a line ends at its
//    first CR) is not rewritten, as that text would be lost;
//  - otherwise the added lines are appended as given, every other byte of
//    the file untouched (a line feed goes in front when the file's last line
//    has none, so that the first added line is not glued onto it).
// Before every write the file is backed up to "COMMANDS.<suffix>", and
// before every read a backup left by an interrupted write is restored
// (FileH). No write is ever torn: a rewrite is a new copy renamed over the
// file, and appended lines are written whole or cut off again (then a
// backup made for that write goes too). The file stays open after an
// append; closeCommands() closes it.
//
// Results: 1 (or a count) for success, 0 or less for failure. Not thread-safe.
#ifndef DOCFILES_COMMANDS_H_
#define DOCFILES_COMMANDS_H_

#include "base/List.h"
#include "base/String.h"
#include "docfiles/CommandsEntries.h"
#include "docfiles/FileH.h"

class Document;

class Commands : private FileH {
 public:
  // dir: the document directory; suffix: the worker tag naming the backup;
  // fs: borrowed, outlives the object. tokenMode: the TextLine rules its
  // statements' arguments are cut by.
  Commands(const String& dir, const String& suffix, FileSystem& fs = FileSystem::posix(),
           int tokenMode = 1);
  ~Commands() override;
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // Opens COMMANDS for reading and appending ("a+"), or creates it empty
  // when it is missing. Already open: 1.
  int openCommands();
  // Each closes what is open first. Reading restores a leftover backup
  // first; writing ("wt", truncating) and appending ("at") back up first.
  int openForRead();
  int openForWrite();
  int openForAppend();
  // Closes the file (flushed and forced to disk for writes): 1 or 0.
  int closeCommands();

  // Loads the statements unless already loaded: 1, or 0 when the file
  // cannot be read (a missing file, for one).
  int readAll();
  // Loads the statements and tells whether the document can be worked on: 1
  // when COMMANDS was read or is missing (which means no statements), 0 when
  // it exists but cannot be read (no permission, no regular file, a symbolic
  // link, a refused backup, a read error).
  int readable();
  // out becomes a copy of every statement in file order: 1.
  int readAll(List<CommandsEntries>& out);
  // *out: a malloc'ed, null-ended array of malloc'ed texts "key value" (or
  // "key" for an empty value), one per statement. Returns the count, -1 when
  // memory ran out. The caller frees the texts and the array.
  int readAll(char*** out);
  // For each key in order, the first statement with that key: 1.
  int read(const List<String>& keys, List<CommandsEntries>& out);

  // value: the value of the last statement with key. Returns the number of
  // statements with key.
  int getValueFor1(const String& key, String& value);
  // The value of the last statement with key, empty when none.
  String getValueFor2(const String& key);
  // Appends the values of all statements with key in file order; returns
  // the number appended.
  int getValueFor3(const String& key, List<String>& values);
  // *values: malloc'ed, null-ended array of malloc'ed copies of the values
  // of all statements with key. Returns the count, -1 when memory ran out.
  int getValueFor(const char* key, char*** values);
  // Number of statements with key.
  int findKey(const String& key);

  // Buffers lines to be appended: 1, or 0 when the buffer refuses one.
  int appendToBuffer1(const String& line);
  int appendToBuffer1(const List<String>& lines);

  // Marking for deletion. Marked statements stay visible to lookups until
  // integrateChanges(). deleteFromCommands3 marks every statement equal to e
  // and returns the number marked (less than 0 when the file could not be
  // read). deleteFromCommands2 stops at the first entry that marks nothing
  // and returns that result.
  int deleteFromCommands1(const String& key, const String& value);
  int deleteFromCommands2(const List<CommandsEntries>& list);
  int deleteFromCommands3(const CommandsEntries& e);

  // Removes marked statements from memory and moves the buffered lines
  // behind all old statements: 1 or 0.
  int integrateChanges();
  // Makes the changes durable (see above): 1 or 0.
  int writeBuffer();

  // Write to the open file: lines as given, each with a line end; entries
  // not marked deleted as key, tab, value and a line end. 0 at the first
  // failure, else 1.
  int write1(const String& line);
  int write2(const List<String>& lines);
  int write3(const List<CommandsEntries>& list);

  using FileH::fileName;
  using FileH::isOpen;
  using FileH::openType;

 private:
  friend class Document;  // Document::hasReadPermission opens the file

  // Parses line and appends it to entries when it holds a statement:
  // 1 appended, -1 no statement, 0 memory ran out.
  int addEntry(const String& line);
  // The writes of writeBuffer: 1, or 0 with the file as it was.
  int rewriteWhole();
  int appendLines();

  List<CommandsEntries> entries_;
  List<String> toAdd_;
  int tokenMode_;
  int deletionsPending_ = 0;
  int integrated_ = 0;
  int textAfterCr_ = 0;   // 1 when a line read held text after its first CR
  bool missing_ = false;  // the last openForRead found no COMMANDS
};

#endif  // DOCFILES_COMMANDS_H_
