// FileSystem: the calls through which a document's files are written.
//
// Temporary files, writes, syncs, renames, directory syncs, appends that are
// cut back, copies, removals and the document lock all go through one
// object, so that a test can put a double in its place that fails a chosen
// call (ENOSPC, EIO) or records their order, and then look at what is left
// on disk. posix() is the product: each operation is the system call it is
// named after, with its result and errno. Reads stay plain system calls.
//
// The POSIX object has no state and lives for the whole process; it may be
// used on any thread. Objects that take a FileSystem& borrow it: it must
// outlive them.
#ifndef BASE_FILESYSTEM_H_
#define BASE_FILESYSTEM_H_

#include <sys/types.h>

#include <cstddef>

class FileSystem {
 public:
  FileSystem() = default;
  virtual ~FileSystem() = default;
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  // open(2): a descriptor, or -1 and errno.
  virtual int open(const char* path, int flags, mode_t mode) = 0;
  // write(2): the number of bytes written (a short count is possible), or -1.
  virtual ssize_t write(int fd, const void* data, size_t size) = 0;
  // fsync(2) and ftruncate(2): 0 or -1.
  virtual int sync(int fd) = 0;
  virtual int truncate(int fd, off_t length) = 0;
  // rename(2) and unlink(2): 0 or -1.
  virtual int rename(const char* from, const char* to) = 0;
  virtual int unlink(const char* path) = 0;
  // Forces the entries of directory (renames, new and removed names) to
  // disk: 0 or -1. A file system that cannot sync a directory (EINVAL), and
  // a directory this process cannot open, are no failure.
  virtual int syncDirectory(const char* directory) = 0;
  // Tries once to take an exclusive open-file-description lock
  // (F_OFD_SETLK, F_WRLCK) over the whole file: 0 when held, -1 with EAGAIN
  // while another open file description holds it, or another errno. Only a
  // descriptor open for writing can take it, so readers of a file never
  // hold its writers up.
  virtual int tryLock(int fd) = 0;

  // The system's own calls.
  static FileSystem& posix();
};

// Writes all size bytes (a write cut short goes on with the rest): 0, or -1
// and errno (EIO when a write moved nothing).
int writeWhole(FileSystem& fs, int fd, const char* data, size_t size);

#endif  // BASE_FILESYSTEM_H_
