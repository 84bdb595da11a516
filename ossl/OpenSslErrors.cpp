#include "ossl/OpenSslErrors.h"

#include <openssl/err.h>

#include "base/Log.h"
#include "ossl/OpenSslPtr.h"

std::string takeOpenSslErrors() {
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (!mem) {
    clearOpenSslErrors();
    return std::string();
  }
  ERR_print_errors(mem.get());  // empties the queue
  char* data = nullptr;
  long n = BIO_get_mem_data(mem.get(), &data);
  std::string text(data != nullptr && n > 0 ? std::string(data, static_cast<size_t>(n)) : "");
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

void clearOpenSslErrors() { ERR_clear_error(); }

void logOpenSslErrorQueue(const char* component, const char* function) {
  Log log(component, function, __FILE__, __LINE__, 13);
  std::string text = takeOpenSslErrors();
  if (!text.empty()) log.msg(__LINE__, 2, "%s", text.c_str());
}
