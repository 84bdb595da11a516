// CurlShare: what the HTTP(S) exchanges of one requester share through
// libcurl: open connections (keep-alive), name lookups and TLS sessions
// (resumption), so that parallel requests and later files reuse them.
//
// Owned by the TsRequester; every easy handle that uses it must be cleaned
// up before it is destroyed. Exchanges run on several threads at once, so
// every kind of shared data has a lock of its own.
#ifndef TSCLIENT_CURLSHARE_H_
#define TSCLIENT_CURLSHARE_H_

#include <curl/curl.h>

#include <mutex>

class CurlShare {
 public:
  CurlShare();
  ~CurlShare();
  CurlShare(const CurlShare&) = delete;
  CurlShare& operator=(const CurlShare&) = delete;

  // The share handle; null when libcurl could not make one (the exchanges
  // then work without sharing).
  CURLSH* get() const { return share_; }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self);
  static void unlock(CURL*, curl_lock_data data, void* self);
  std::mutex& mutexFor(curl_lock_data data);

  CURLSH* share_ = nullptr;
  std::mutex mutexes_[CURL_LOCK_DATA_LAST];
};

#endif  // TSCLIENT_CURLSHARE_H_
