#include "http/http.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <memory>

#include "kernel32/kernel32.h"

namespace bv::platform::http {
namespace {

// libcurl and the 30-odd libraries it pulls in are loaded at the first
// request, not with this library: most calls never go to the network, and a
// host pays for a load in every work process.  It stays loaded.
struct Curl {
  CURLcode (*global_init)(long flags);
  CURL* (*easy_init)();
  CURLcode (*easy_setopt)(CURL* curl, CURLoption option, ...);
  CURLcode (*easy_perform)(CURL* curl);
  CURLcode (*easy_getinfo)(CURL* curl, CURLINFO info, ...);
  void (*easy_cleanup)(CURL* curl);
  curl_slist* (*slist_append)(curl_slist* list, const char* text);
  void (*slist_free_all)(curl_slist* list);
};

template <typename Function>
bool resolve(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

// Null when libcurl can't be loaded.
const Curl* curl_library() {
  static const Curl* const loaded = []() -> const Curl* {
    void* library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    static Curl curl;
    if (library == nullptr || !resolve(library, "curl_global_init", curl.global_init) ||
        !resolve(library, "curl_easy_init", curl.easy_init) ||
        !resolve(library, "curl_easy_setopt", curl.easy_setopt) ||
        !resolve(library, "curl_easy_perform", curl.easy_perform) ||
        !resolve(library, "curl_easy_getinfo", curl.easy_getinfo) ||
        !resolve(library, "curl_easy_cleanup", curl.easy_cleanup) ||
        !resolve(library, "curl_slist_append", curl.slist_append) ||
        !resolve(library, "curl_slist_free_all", curl.slist_free_all))
      return nullptr;
    curl.global_init(CURL_GLOBAL_DEFAULT);
    return &curl;
  }();
  return loaded;
}

struct EasyDeleter {
  void operator()(CURL* handle) const noexcept { curl_library()->easy_cleanup(handle); }
};
using Easy = std::unique_ptr<CURL, EasyDeleter>;

struct SlistDeleter {
  void operator()(curl_slist* list) const noexcept { curl_library()->slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

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
  const Curl* lib = curl_library();
  if (lib == nullptr) {
    SetLastError(ERROR_INTERNET_INTERNAL_ERROR);
    return false;
  }
  Easy curl(lib->easy_init());
  if (!curl) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  CURL* c = curl.get();
  const char* protocols = request.allow_https ? "http,https" : "http";
  Sink sink{&response, request.max_response};
  const long timeout_ms = static_cast<long>(request.timeout.count() > 0 ? request.timeout.count() : 1);
  Slist headers;
  lib->easy_setopt(c, CURLOPT_URL, request.url.c_str());
  lib->easy_setopt(c, CURLOPT_PROTOCOLS_STR, protocols);
  lib->easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, protocols);
  lib->easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  lib->easy_setopt(c, CURLOPT_MAXREDIRS, 3L);
  lib->easy_setopt(c, CURLOPT_TIMEOUT_MS, timeout_ms);
  lib->easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, timeout_ms);
  // Threads of the host must not get SIGALRM from name resolution.
  lib->easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  lib->easy_setopt(c, CURLOPT_USERAGENT, "bvsapssf");
  lib->easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
  lib->easy_setopt(c, CURLOPT_WRITEDATA, &sink);
  if (!request.content_type.empty() || !request.body.empty()) {
    headers.reset(lib->slist_append(nullptr, ("Content-Type: " + request.content_type).c_str()));
    lib->easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    lib->easy_setopt(c, CURLOPT_POSTFIELDS, request.body.data());
    lib->easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  const CURLcode code = lib->easy_perform(c);
  if (code != CURLE_OK) {
    response.clear();
    SetLastError(sink.too_large ? ERROR_HTTP_INVALID_SERVER_RESPONSE : wininet_error(code));
    return false;
  }
  long status = 0;
  lib->easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    response.clear();
    SetLastError(ERROR_HTTP_INVALID_SERVER_RESPONSE);
    return false;
  }
  return true;
}

}  // namespace bv::platform::http
