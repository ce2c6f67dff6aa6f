#include "http/http.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "kernel32/kernel32.h"

namespace bv::platform::http {

Received::~Received() {
  if (pages_ != nullptr) munmap(pages_, capacity_);
}

bool Received::reserve(size_t capacity) {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  capacity = (capacity + page - 1) / page * page;
  if (capacity <= capacity_) return true;
  void* grown = pages_ == nullptr ? mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                                  : mremap(pages_, capacity_, capacity, MREMAP_MAYMOVE);
  if (grown == MAP_FAILED) return false;
  pages_ = grown;
  capacity_ = capacity;
  return true;
}

void Received::append(const char* data, size_t bytes) {
  std::memcpy(static_cast<char*>(pages_) + size_, data, bytes);
  size_ += bytes;
}

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

// Bytes reserved for bodies being read, by all threads together.
std::atomic<size_t> g_reserved{0};

bool charge(size_t bytes) {
  size_t reserved = g_reserved.load();
  do {
    if (reserved + bytes > kAllBodiesBudget) return false;
  } while (!g_reserved.compare_exchange_weak(reserved, reserved + bytes));
  return true;
}

// Where a body goes while it is read: room made in steps charged to the
// budget of all bodies (what is reserved, not what has come, is what a
// process holds), given back when the read ends.
class Sink {
 public:
  Sink(const Curl* lib, CURL* handle, size_t limit) : lib_(lib), handle_(handle), limit_(limit) {}
  ~Sink() { g_reserved -= charged_; }
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  // False when the answer would pass its limit or the budget.
  bool append(const char* data, size_t bytes) {
    const size_t needed = body_->bytes().size() + bytes;
    if (needed > limit_) return refuse(ERROR_HTTP_INVALID_SERVER_RESPONSE);
    if (needed > body_->capacity()) {
      // Room for the length the server declared at first, then doubled.
      size_t grown = std::max({needed, 2 * body_->capacity(), size_t{16} << 10});
      curl_off_t declared = -1;
      if (body_->capacity() == 0 &&
          lib_->easy_getinfo(handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared) == CURLE_OK && declared > 0)
        grown = std::max(needed, static_cast<size_t>(declared));
      grown = std::min(limit_, grown);
      if (!charge(grown - charged_)) return refuse(ERROR_NOT_ENOUGH_MEMORY);
      charged_ = grown;
      if (!body_->reserve(grown)) return refuse(ERROR_NOT_ENOUGH_MEMORY);
    }
    body_->append(data, bytes);
    return true;
  }
  DWORD refusal() const { return refusal_; }
  Body take() { return std::move(body_); }

 private:
  bool refuse(DWORD error) {
    refusal_ = error;
    return false;
  }
  const Curl* lib_;
  CURL* handle_;
  std::shared_ptr<Received> body_ = std::make_shared<Received>();
  size_t limit_;
  size_t charged_ = 0;
  DWORD refusal_ = 0;
};

size_t collect(char* data, size_t size, size_t count, void* user) {
  const size_t bytes = size * count;
  // A short count makes libcurl stop with CURLE_WRITE_ERROR.
  return static_cast<Sink*>(user)->append(data, bytes) ? bytes : 0;
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

// One exchange: 0 and the body of a 200 answer, or the error.  `exchanged`
// tells whether the server answered at all (any status, a whole answer).
DWORD exchange(const Request& request, Body& response, bool& exchanged) {
  exchanged = false;
  const Curl* lib = curl_library();
  if (lib == nullptr) return ERROR_INTERNET_INTERNAL_ERROR;
  Easy curl(lib->easy_init());
  if (!curl) return ERROR_NOT_ENOUGH_MEMORY;
  CURL* c = curl.get();
  const char* protocols = request.allow_https ? "http,https" : "http";
  Sink sink(lib, c, request.max_response);
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
  // A declared length over the limit is refused before the body comes.
  lib->easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.max_response));
  lib->easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
  lib->easy_setopt(c, CURLOPT_WRITEDATA, &sink);
  if (!request.content_type.empty() || !request.body.empty()) {
    headers.reset(lib->slist_append(nullptr, ("Content-Type: " + request.content_type).c_str()));
    lib->easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    lib->easy_setopt(c, CURLOPT_POSTFIELDS, request.body.data());
    lib->easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  const CURLcode code = lib->easy_perform(c);
  if (code != CURLE_OK) return sink.refusal() != 0 ? sink.refusal() : wininet_error(code);
  exchanged = true;
  long status = 0;
  lib->easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  response = sink.take();
  return 0;
}

// The scheme, host and port of a URL: what "the same server" means here.
std::string server_of(const std::string& url) {
  const size_t host = url.find("://");
  if (host == std::string::npos) return url;
  return url.substr(0, url.find_first_of("/?#", host + 3));
}

// One request being made, for every thread that asked the same.
struct Flight {
  bool done = false;
  DWORD error = 0;
  Body body;
};

// What the threads know of one server.
struct Server {
  bool answers = false;   // its last exchange was whole
  bool probing = false;   // a request to a server not known to answer is out
  uint64_t failures = 0;  // counted, so a waiter sees that one happened meanwhile
  DWORD last_error = 0;
};

struct Traffic {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::shared_ptr<Flight>> flights;  // by URL, content type and body
  std::map<std::string, std::shared_ptr<Server>> servers;
};

Traffic& traffic() {
  static Traffic* const shared = new Traffic;  // threads may still wait at exit
  return *shared;
}

}  // namespace

bool fetch(const Request& request, Body& response) {
  response.reset();
  const auto deadline = std::chrono::steady_clock::now() + request.timeout;
  const std::string key = request.url + '\n' + request.content_type + '\n' + request.body;
  Traffic& all = traffic();
  std::unique_lock lock(all.mutex);

  // The same request already out: its answer is ours.
  if (auto same = all.flights.find(key); same != all.flights.end()) {
    const std::shared_ptr<Flight> flight = same->second;
    if (!all.changed.wait_until(lock, deadline, [&] { return flight->done; })) {
      SetLastError(ERROR_INTERNET_TIMEOUT);
      return false;
    }
    if (flight->error != 0) {
      SetLastError(flight->error);
      return false;
    }
    response = flight->body;
    return true;
  }

  // A server not known to answer: one request at a time, and a failure
  // while we waited is ours without asking again.
  const std::string server_name = server_of(request.url);
  std::shared_ptr<Server>& slot = all.servers[server_name];
  if (!slot) slot = std::make_shared<Server>();
  const std::shared_ptr<Server> server = slot;
  // Forget servers nobody is asking when many were asked.
  if (all.servers.size() > 256)
    std::erase_if(all.servers, [](const auto& entry) { return entry.second.use_count() == 1; });
  bool probe = false;
  if (!server->answers) {
    const uint64_t failures = server->failures;
    if (!all.changed.wait_until(lock, deadline, [&] { return !server->probing; })) {
      SetLastError(ERROR_INTERNET_TIMEOUT);
      return false;
    }
    if (server->failures != failures) {
      SetLastError(server->last_error);
      return false;
    }
    probe = !server->answers;
    server->probing = probe;
  }
  const auto flight = std::make_shared<Flight>();
  all.flights[key] = flight;
  lock.unlock();

  Body body;
  bool exchanged = false;
  const DWORD error = exchange(request, body, exchanged);

  lock.lock();
  flight->done = true;
  flight->error = error;
  flight->body = std::move(body);
  if (auto mine = all.flights.find(key); mine != all.flights.end() && mine->second == flight) all.flights.erase(mine);
  // Our own budget running out says nothing of the server.
  if (error != ERROR_NOT_ENOUGH_MEMORY) {
    server->answers = exchanged;
    if (!exchanged) {
      ++server->failures;
      server->last_error = error;
    }
  }
  if (probe) server->probing = false;
  all.changed.notify_all();
  if (error != 0) {
    SetLastError(error);
    return false;
  }
  response = flight->body;
  return true;
}

}  // namespace bv::platform::http
