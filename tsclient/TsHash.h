// TsHash: the digest of a file, as the message imprint of a timestamp
// request. The digest is chosen by TS_HASHALG when the requester is
// configured; the file is
// read by digestFile (tsclient/FileDigest.h); hashFiles (tsclient/HashFiles.h)
// hashes the files of a document side by side.
//
// Threads: getDigest runs before any stamping (its choice is not locked);
// computeHash may then run on several threads at once.
#ifndef TSCLIENT_TSHASH_H_
#define TSCLIENT_TSHASH_H_

class CAsn1messageImprint;
class Environment;

// The NID of the digest a TS_HASHALG value names ("RIPEMD160", "SHA1",
// "SHA256", "SHA384", "SHA512", "SHA3-256", "SHA3-512", compared exactly;
// null: SHA-256). 0 (NID_undef) for any other name.
int digestNidByName(const char* name);

// The NID of the message digest chosen by TS_HASHALG in env (unset: SHA-256;
// an unknown name is logged and SHA-256 is used). The requester reads it
// once, in initTsServer (TsRequester::digest).
int getDigest(const Environment& env);

// Hashes the regular file at path with digest nid into imprint. -1 when the
// file cannot be opened or read, is no regular file ("File <path> is no
// regular file", refused at once, without blocking on a FIFO or reading a
// device) or a stop was requested meanwhile; -2 when the digest is not usable.
int computeHash(const char* path, int nid, CAsn1messageImprint* imprint);

// computeHash for a file already open for reading (from where it stands to
// its end; fd stays open), so that the file hashed is the one the caller
// checked. path only names it in messages.
int computeHashOfOpenFile(int fd, const char* path, int nid, CAsn1messageImprint* imprint);

#endif  // TSCLIENT_TSHASH_H_
