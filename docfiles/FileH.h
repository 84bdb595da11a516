// FileH: a file of a document directory, with a per-worker backup copy.
//
// Opens its file in one of twelve numbered modes, reads it line by line
// without a length limit, writes strings and lines, and on close forces data
// written in the plain write and append modes (types 3 to 6) to disk.
//
// Crash safety: makeBackupCopy() is called before the file is changed. It
// copies the file to "<file>.<suffix>" (complete and on disk before it takes
// that name), so the backup holds the content from before this worker's
// first change. recoverFromBackup() is called before the file is read: a
// backup left by an interrupted run of the same worker (same suffix) is
// copied beside the file and renamed over it, so that a crash leaves the
// file old or restored, never missing or half copied. Backups are kept
// after a write; only one just made for a write that failed and was undone
// goes again (dropNewBackup). Within one object a backup is made or
// restored at most once. A backup is trusted only when it is a regular file
// of this process's user; the file itself and backups are never opened
// through a symbolic link.
//
// appendWhole() adds text that is either whole on disk or absent: a failed
// or short write, or a failed sync, cuts the file back to its length before.
// Every change goes through the FileSystem given (base/FileSystem.h).
//
// Results: 1 for success, 0 for failure; failures are logged. The object
// stays usable after any failure. Not thread-safe.
#ifndef DOCFILES_FILEH_H_
#define DOCFILES_FILEH_H_

#include "base/FileSystem.h"
#include "base/Owners.h"
#include "base/String.h"

class FileH {
 public:
  // Open types and their fopen modes.
  enum OpenType {
    kReadBinary = 1,           // "rb"
    kReadText = 2,             // "rt"
    kWriteBinary = 3,          // "wb"
    kWriteText = 4,            // "wt"
    kAppendBinary = 5,         // "ab"
    kAppendText = 6,           // "at"
    kUpdate = 7,               // "r+"
    kCreateUpdate = 8,         // "w+"
    kAppendUpdate = 9,         // "a+"
    kUpdateBinary = 10,        // "r+b"
    kCreateUpdateBinary = 11,  // "w+b"
    kAppendUpdateBinary = 12,  // "a+b"
  };

  // fileName: full path; suffix: the worker tag that names the backup; fs:
  // borrowed, outlives the object.
  FileH(const String& fileName, const String& suffix, FileSystem& fs = FileSystem::posix());
  virtual ~FileH();
  FileH(const FileH&) = delete;
  FileH& operator=(const FileH&) = delete;

  // Closes the file: 1, or 0 when flushing, syncing or closing failed (it is
  // closed anyway). Nothing open: 1.
  virtual int closeFile();
  // Opens the file with the mode of type. Fails (0) when a file is already
  // open or the type is unknown, and refuses (level 2) a symbolic link at the
  // last component or anything but a regular file, without blocking on a
  // FIFO. A failed open logs at level 3 + flag.
  virtual int openFile(int type, int flag = 0);

  // Reads the next whole line, line end included, into line: 1 for a line,
  // -1 at the end of the file, 0 on a read error or when nothing is open.
  int readNextLine(String& line);
  // Writes s as it stands: 1, or 0 on a write error or when nothing is open.
  int writeToFile(const String& s);
  // Writes line and a line feed: 1 or 0.
  int writeLineToFile(const String& line);
  // In an append mode: writes text whole and forces it to disk, 1; or cuts
  // the file back to its length before and returns 0.
  int appendWhole(const String& text);

  // Both refuse (level 2, result 0) a backup that is no regular file owned
  // by this process's user: it is neither kept nor restored.
  int makeBackupCopy();
  int recoverFromBackup();
  // Removes the backup when this object made it (none was there before):
  // for a write that failed and left the file as it was.
  void dropNewBackup();
  // Whether recoverFromBackup has done its work (restored, or found nothing
  // to restore) or a backup was made: it will restore nothing more.
  bool recovered() const { return copied_ != 0 || checked_ != 0; }
  // Why the last openFile failed: its errno (ENOENT for a missing file,
  // ELOOP for a symbolic link, EINVAL for no regular file), EPERM after a
  // refused backup, 0 after a successful open.
  int openError() const { return openError_; }

  const String& fileName() const { return fileName_; }
  String backupName() const { return fileName_ + "." + suffix_; }
  bool isOpen() const { return stream_ != nullptr; }
  FileSystem& fileSystem() const { return *fs_; }
  int openType() const { return type_; }

  bool operator==(const FileH& other) const { return fileName_ == other.fileName_; }
  bool operator==(const String& name) const { return fileName_ == name; }

 private:
  // Copies from beside to and renames the copy over to; syncs the directory.
  int copyOver(const String& from, const String& to, bool ownOnly);

  FileSystem* fs_;  // borrowed
  FilePtr stream_;
  String fileName_;
  String suffix_;
  int type_ = 0;
  int copied_ = 0;
  int checked_ = 0;
  int openError_ = 0;
  bool unsynced_ = false;   // written since the last sync
  bool newBackup_ = false;  // this object made the backup
};

#endif  // DOCFILES_FILEH_H_
