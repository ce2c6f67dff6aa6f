#include "http/http.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

#include "kernel32/kernel32.h"

namespace bv::platform::http {
namespace {

struct EasyDeleter {
  void operator()(CURL* curl) const noexcept { curl_easy_cleanup(curl); }
};
using Easy = std::unique_ptr<CURL, EasyDeleter>;

struct SlistDeleter {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

void global_init() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Sink {
  std::string* out;
  size_t limit;
  bool too_large = false;
};

size_t collect(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  const size_t bytes = size * count;
  if (sink->out->size() + bytes > sink->limit) {
    sink->too_large = true;
    return 0;  // makes libcurl stop with CURLE_WRITE_ERROR
  }
  sink->out->append(data, bytes);
  return bytes;
}

DWORD wininet_error(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return ERROR_INTERNET_TIMEOUT;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return ERROR_INTERNET_INVALID_URL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return ERROR_INTERNET_NAME_NOT_RESOLVED;
    case CURLE_COULDNT_CONNECT:
      return ERROR_INTERNET_CANNOT_CONNECT;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      return ERROR_INTERNET_CONNECTION_ABORTED;
    default:
      return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  }
}

}  // namespace

bool fetch(const Request& request, std::string& response) {
  response.clear();
  global_init();
  Easy curl(curl_easy_init());
  if (!curl) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  CURL* c = curl.get();
  const char* protocols = request.allow_https ? "http,https" : "http";
  Sink sink{&response, request.max_response};
  const long timeout_ms = static_cast<long>(request.timeout.count() > 0 ? request.timeout.count() : 1);
  Slist headers;
  curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, protocols);
  curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, protocols);
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(c, CURLOPT_MAXREDIRS, 3L);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, timeout_ms);
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, timeout_ms);
  // Threads of the host must not get SIGALRM from name resolution.
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_USERAGENT, "bvsapssf");
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
  if (!request.content_type.empty() || !request.body.empty()) {
    headers.reset(curl_slist_append(nullptr, ("Content-Type: " + request.content_type).c_str()));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  const CURLcode code = curl_easy_perform(c);
  if (code != CURLE_OK) {
    response.clear();
    SetLastError(sink.too_large ? ERROR_HTTP_INVALID_SERVER_RESPONSE : wininet_error(code));
    return false;
  }
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    response.clear();
    SetLastError(ERROR_HTTP_INVALID_SERVER_RESPONSE);
    return false;
  }
  return true;
}

}  // namespace bv::platform::http
