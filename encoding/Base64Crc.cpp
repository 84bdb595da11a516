#include "encoding/Base64Crc.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <cstring>

#include "base/Log.h"
#include "ossl/OpenSslPtr.h"

namespace {

constexpr unsigned int kCrc32Generator = 0x04C11DB7;

// The base64 filter in front of a memory BIO; owns both (BIO_free_all).
using BioChainPtr = std::unique_ptr<BIO, ossl::Deleter<BIO, BIO_free_all>>;

}  // namespace

int encodeBase64(const unsigned char* input, unsigned int length, char* output,
                 unsigned int capacity) {
  Log log("zpcryptbase", "encodeBase64", __FILE__, __LINE__, 13);
  BioPtr b64(BIO_new(BIO_f_base64()));
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (!b64 || !mem) return 2;
  BioChainPtr chain(BIO_push(b64.release(), mem.release()));
  if (!chain) return 2;
  // One line, however long the input: the timestamp files hold one line.
  BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
  if (length > 0) BIO_write(chain.get(), input, static_cast<int>(length));
  (void)BIO_flush(chain.get());
  if (capacity == 0) return 0;
  BIO* memory = BIO_next(chain.get());
  int n = BIO_read(memory, output, static_cast<int>(capacity - 1));
  output[n > 0 ? n : 0] = '\0';
  return 0;
}

int decodeBase64(const char* text, unsigned char* output, int* decodedLength, int capacity) {
  Log log("zpcryptbase", "decodeBase64", __FILE__, __LINE__, 13);
  BioPtr b64(BIO_new(BIO_f_base64()));
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (b64) BIO_set_flags(b64.get(), BIO_FLAGS_BASE64_NO_NL);
  if (!b64 || !mem) return 2;
  BioChainPtr chain(BIO_push(b64.release(), mem.release()));
  if (!chain) return 2;
  int length = static_cast<int>(strlen(text));
  log.msg(__LINE__, 9, "length=%d", length);
  log.msg(__LINE__, 9, "buflen=%d", capacity);
  BIO* memory = BIO_next(chain.get());
  if (length > 0) BIO_write(memory, text, length);
  (void)BIO_flush(memory);
  *decodedLength = capacity > 0 ? BIO_read(chain.get(), output, capacity) : 0;
  return 0;
}

int crc32(const unsigned char* data, unsigned int length, unsigned int* crc) {
  Log log("zpcryptbase", "crc32", __FILE__, __LINE__, 13);
  unsigned int reg = 0;
  for (unsigned int i = 0; i < length; ++i) {
    for (int bit = 7; bit >= 0; --bit) {
      bool top = (reg & 0x80000000u) != 0;
      reg = (reg << 1) | ((data[i] >> bit) & 1u);
      if (top) reg ^= kCrc32Generator;
    }
  }
  *crc = reg;
  return 0;
}
