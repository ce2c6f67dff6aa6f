// Certificates from the shared factory (tools/pki) and the revocation
// servers they name: an HTTP server on 127.0.0.1 run inside the test.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "certificate_factory.h"
#include "host.h"

namespace bv::test {

using namespace bv::pki;

// A port on 127.0.0.1 that nothing listens on at the moment.
int free_port();

// HTTP/1.0 on 127.0.0.1: fixed bodies or handlers by path, counting the
// requests; with `silent` it takes connections and never answers.
class HttpServer {
 public:
  using Handler = std::function<std::string(const std::string& request_body)>;  // the answer's body

  explicit HttpServer(bool silent = false);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  void put(const std::string& path, const std::string& body);
  void handle(const std::string& path, Handler handler);
  int requests() const { return requests_; }
  // Closes the port: later connections are refused.
  void stop();

 private:
  void serve();

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::mutex mutex_;
  std::map<std::string, Handler> handlers_;
  std::thread thread_;
};

}  // namespace bv::test
