#include "tsclient/CurlShare.h"

CurlShare::CurlShare() {
  // libcurl counts its initialisations; each share holds one for its life.
  curl_global_init(CURL_GLOBAL_NOTHING);
  share_ = curl_share_init();
  if (share_ == nullptr) return;
  curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, lock);
  curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, unlock);
  curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlShare::~CurlShare() {
  if (share_ != nullptr) curl_share_cleanup(share_);
  curl_global_cleanup();
}

void CurlShare::lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
  static_cast<CurlShare*>(self)->mutexFor(data).lock();
}

void CurlShare::unlock(CURL*, curl_lock_data data, void* self) {
  static_cast<CurlShare*>(self)->mutexFor(data).unlock();
}

std::mutex& CurlShare::mutexFor(curl_lock_data data) {
  return mutexes_[data >= 0 && data < CURL_LOCK_DATA_LAST ? data : 0];
}
