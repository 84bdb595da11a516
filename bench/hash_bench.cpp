// hash_bench: how fast computeHash hashes a file against the digest's own
// limit on 1 MiB blocks in memory, and how much memory it takes.
//
//   hash_bench FILE [ROUNDS]
//
// Prints "name value" lines: file_mib, hash_mibs (computeHash, best of the
// rounds, the file read from the page cache), evp_mibs (EVP_DigestUpdate over
// a 1 MiB buffer, the same number of bytes, best of the rounds) and
// hash_maxrss_kib (peak resident memory of a fresh process that only hashes
// the file once).
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "der/CAsn1messageImprint.h"
#include "tsclient/tsrequest.h"

namespace {

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double evpLimit(double bytes) {
  std::vector<unsigned char> block(1 << 20, 0x5a);
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
  double start = seconds();
  for (double done = 0; done < bytes; done += block.size()) {
    EVP_DigestUpdate(ctx, block.data(), block.size());
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, digest, &length);
  EVP_MD_CTX_free(ctx);
  return seconds() - start;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FILE [ROUNDS]\n", argv[0]);
    return 2;
  }
  const char* path = argv[1];
  int rounds = argc > 2 ? atoi(argv[2]) : 3;
  struct stat st;
  if (stat(path, &st) != 0) {
    perror(path);
    return 1;
  }
  double mib = static_cast<double>(st.st_size) / (1 << 20);

  // Peak memory of a process that does nothing but hash the file.
  pid_t child = fork();
  if (child == 0) {
    CAsn1messageImprint imprint;
    _exit(computeHash(path, NID_sha256, &imprint) == 0 ? 0 : 1);
  }
  int status = 0;
  struct rusage usage {};
  wait4(child, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "hashing %s failed\n", path);
    return 1;
  }

  double bestHash = 1e30, bestEvp = 1e30;
  for (int r = 0; r < rounds; ++r) {
    CAsn1messageImprint imprint;
    double start = seconds();
    computeHash(path, NID_sha256, &imprint);
    double took = seconds() - start;
    if (took < bestHash) bestHash = took;
    took = evpLimit(static_cast<double>(st.st_size));
    if (took < bestEvp) bestEvp = took;
  }
  printf("file_mib %.0f\n", mib);
  printf("hash_mibs %.0f\n", mib / bestHash);
  printf("evp_mibs %.0f\n", mib / bestEvp);
  printf("hash_maxrss_kib %ld\n", usage.ru_maxrss);
  return 0;
}
