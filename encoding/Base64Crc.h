// Base64Crc: BASE64 (RFC 4648, standard alphabet, '=' padding, through
// OpenSSL's base64 BIO) and a bitwise CRC-32. Free functions, no state;
// safe to call from any thread.
#ifndef ENCODING_BASE64CRC_H_
#define ENCODING_BASE64CRC_H_

// BASE64 text of length input bytes as one line without line breaks, NUL
// terminated, in output. Size output as (4 * length) / 3 + 10 bytes; at most
// capacity - 1 characters are written before the NUL. 0, or 2 when the BIOs
// cannot be created.
int encodeBase64(const unsigned char* input, unsigned int length, char* output,
                 unsigned int capacity);

// Decodes the NUL-terminated BASE64 text (one line, no line breaks) into at
// most capacity bytes of output (not NUL-terminated); *decodedLength gets the
// count read, which is 0 or negative for text that is not BASE64. 0, or 2
// when the BIOs cannot be created.
int decodeBase64(const char* text, unsigned char* output, int* decodedLength, int capacity);

// CRC over the generator 0x04C11DB7 in its direct, unaugmented form: register
// from 0, bits most significant first, no reflection, no final XOR. The
// result is the message polynomial modulo the generator; appending four zero
// bytes gives the usual shifted form. Always 0.
int crc32(const unsigned char* data, unsigned int length, unsigned int* crc);

#endif  // ENCODING_BASE64CRC_H_
