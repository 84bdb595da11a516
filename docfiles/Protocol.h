// Protocol: the protocol file "<directory>/KVprotocol" of one document.
//
// Every worker of the pipeline appends what it did to this file. Lines are
// stamped with the local time and the worker tag when they are buffered
// ("2024/03/05 14:07:09 [clockette] text") and appended together by
// writeBuffer(). The file is only ever appended to; earlier lines stay
// untouched, and no backup is made. The lines of one write reach the file
// whole or not at all (FileH::appendWhole). Not thread-safe.
#ifndef DOCFILES_PROTOCOL_H_
#define DOCFILES_PROTOCOL_H_

#include "base/List.h"
#include "base/String.h"
#include "docfiles/FileH.h"

class Protocol : private FileH {
 public:
  // fs: borrowed, outlives the object.
  Protocol(const String& directory, const String& tag, FileSystem& fs = FileSystem::posix());
  // Closes the file; lines still buffered are dropped (write them first).
  ~Protocol() override;
  Protocol(const Protocol&) = delete;
  Protocol& operator=(const Protocol&) = delete;

  // Stamps text with the current local time and the tag and buffers the
  // line: 1, or 0 when the buffer refuses it.
  int appendToBuffer(const String& text);
  // Closes what is open, then opens the file for appending (created when
  // missing): 1 or 0.
  int openForAppend();
  // Closes the file (flushed and forced to disk): 1 or 0; nothing open: 1.
  int closeProtocol();
  int write1(const String& line);
  // Opens for appending and writes the lines, each with a line end, all or
  // none: 1 or 0.
  int write2(const List<String>& lines);
  // Appends the buffered lines in one pass and empties the buffer whatever
  // the result (failed lines are not retried). Empty buffer: 1, no file access.
  int writeBuffer();

  using FileH::fileName;

 private:
  String tag_;
  List<String> toAdd_;
};

#endif  // DOCFILES_PROTOCOL_H_
