// HTTP for revocation sources (and any other fetch the platform makes), over
// libcurl, loaded at the first request.  Failures leave WinINet's error numbers as the last error, so
// that FormatMessageA on "wininet.dll" gives their texts.  Proxies come from
// the usual environment (http_proxy, no_proxy), as libcurl reads them.
#pragma once

#include <chrono>
#include <string>

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

// Sends the request and returns the body of a 200 answer.  False with the
// last error: ERROR_INTERNET_TIMEOUT, _NAME_NOT_RESOLVED, _CANNOT_CONNECT,
// _CONNECTION_ABORTED, _INVALID_URL (also for a scheme not allowed), or
// ERROR_HTTP_INVALID_SERVER_RESPONSE for any other status or a refused size;
// ERROR_INTERNET_INTERNAL_ERROR when libcurl can't be loaded.
bool fetch(const Request& request, std::string& response);

}  // namespace bv::platform::http
