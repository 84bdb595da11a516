// FileDigest: feeds the whole content of an open file to a digest context as
// fast as the digest can take it.
//
// Blocks of 1 MiB are read into page-aligned buffers with read(2), never
// through stdio, with sequential read-ahead advice for files of a block or more. A file larger than
// a few blocks is read ahead by a second thread, so that reading the next block overlaps hashing
// the current one; at most three blocks are held at a time, whatever the file's size. Between
// blocks the process-wide stop request is looked at, so a SIGTERM ends the
// hashing of a large file promptly.
//
// Thread-safe: each call has its own buffers.
#ifndef TSCLIENT_FILEDIGEST_H_
#define TSCLIENT_FILEDIGEST_H_

#include <openssl/evp.h>

#include <cstdint>

enum class FileDigestResult {
  kDone,        // every byte up to the end of the file went into the digest
  kReadFailed,  // a read failed; *error holds its errno
  kStopped,     // a stop was requested before the end
};

// Reads fd from its current position to its end into ctx, which is
// initialised with a digest. sizeHint (the file's size from fstat) only
// chooses buffer sizes and whether to read ahead; a file that grows or
// shrinks meanwhile is still read to its actual end.
FileDigestResult digestFile(int fd, uint64_t sizeHint, EVP_MD_CTX* ctx, int* error);

#endif  // TSCLIENT_FILEDIGEST_H_
