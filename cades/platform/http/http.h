// HTTP for revocation sources (and any other fetch the platform makes), over
// libcurl, loaded at the first request.  Failures leave WinINet's error numbers as the last error, so
// that FormatMessageA on "wininet.dll" gives their texts.  Proxies come from
// the usual environment (http_proxy, no_proxy), as libcurl reads them.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "wintypes.h"

constexpr DWORD ERROR_INTERNET_TIMEOUT = 12002;
constexpr DWORD ERROR_INTERNET_INTERNAL_ERROR = 12004;
constexpr DWORD ERROR_INTERNET_INVALID_URL = 12005;
constexpr DWORD ERROR_INTERNET_NAME_NOT_RESOLVED = 12007;
constexpr DWORD ERROR_INTERNET_CANNOT_CONNECT = 12029;
constexpr DWORD ERROR_INTERNET_CONNECTION_ABORTED = 12030;
constexpr DWORD ERROR_HTTP_INVALID_SERVER_RESPONSE = 12152;

namespace bv::platform::http {

struct Request {
  std::string url;
  std::string content_type;  // of the body; a body makes the request a POST
  std::string body;
  std::chrono::milliseconds timeout{15000};  // for the whole exchange, connection included
  bool allow_https = false;                  // revocation sources are plain http by their nature
  size_t max_response = 32u << 20;           // a larger answer is refused
};

// A body as received, in pages of its own: they go back to the system
// whole when the last thread holding them lets go, however the host's
// allocator keeps its heap.  Shared by the threads that asked the same.
class Received {
 public:
  Received() = default;
  ~Received();
  Received(const Received&) = delete;
  Received& operator=(const Received&) = delete;

  std::string_view bytes() const { return {static_cast<const char*>(pages_), size_}; }
  size_t capacity() const { return capacity_; }
  // Room for `capacity` bytes in all, grown in place where the system can;
  // false if it has none.
  bool reserve(size_t capacity);
  // Within the room reserved.
  void append(const char* data, size_t bytes);

 private:
  void* pages_ = nullptr;
  size_t size_ = 0, capacity_ = 0;
};
using Body = std::shared_ptr<const Received>;

// Sends the request and returns the body of a 200 answer.  False with the
// last error: ERROR_INTERNET_TIMEOUT, _NAME_NOT_RESOLVED, _CANNOT_CONNECT,
// _CONNECTION_ABORTED, _INVALID_URL (also for a scheme not allowed), or
// ERROR_HTTP_INVALID_SERVER_RESPONSE for any other status or a refused size;
// ERROR_NOT_ENOUGH_MEMORY when the bodies being read by all threads would
// pass kAllBodiesBudget; ERROR_INTERNET_INTERNAL_ERROR when libcurl can't be
// loaded.
//
// Threads that ask at once share the network: a request identical to one in
// flight (a CRL's GET) waits for it and takes its answer, and a server not
// known to answer (never asked, or its last exchange failed) gets one
// request at a time, whose failure is the failure of every thread that
// waited for it.  A server that answered gets requests in parallel.  No
// thread waits longer than its own time-out.
bool fetch(const Request& request, Body& response);

// What all bodies being read at one time may hold together.
constexpr size_t kAllBodiesBudget = 64u << 20;

}  // namespace bv::platform::http
