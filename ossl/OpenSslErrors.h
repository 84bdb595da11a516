// The one place where OpenSSL's thread-local error queue becomes text.
#ifndef OSSL_OPENSSLERRORS_H_
#define OSSL_OPENSSLERRORS_H_

#include <string>

// Empties OpenSSL's error queue and returns its lines joined by "\n" (without
// a final line feed); empty when the queue held nothing.
std::string takeOpenSslErrors();

// Empties the error queue without looking at it, for a failure that is an
// answer (a signature that does not verify) rather than an error.
void clearOpenSslErrors();

// Empties the error queue and, when it held anything, logs it at level 2
// under component::function. For code that already logged its own message.
void logOpenSslErrorQueue(const char* component, const char* function);

#endif  // OSSL_OPENSSLERRORS_H_
