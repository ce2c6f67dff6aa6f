// Certificates from the shared factory (tools/pki) and the servers they
// name, all on 127.0.0.1: an HTTP server run inside the test, which also
// answers OCSP through `openssl ocsp`, and our time stamp server.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "certificate_factory.h"
#include "host.h"
#include "tsa_server.h"

namespace bv::test {

using namespace bv::pki;

// An openssl.cnf that loads the GOST engine for every command line tool.
constexpr const char* kGostEngineConfig =
    "openssl_conf = openssl_def\n[openssl_def]\nengines = engines\n[engines]\ngost = gost\n"
    "[gost]\nengine_id = gost\ndefault_algorithms = ALL\n";

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
  // Answers `path` by writing to the connection itself, for servers that
  // misbehave; `stopping` turns true when the server is being stopped.
  using RawHandler = std::function<void(int connection, const std::atomic<bool>& stopping)>;
  void handle_raw(const std::string& path, RawHandler handler);
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
  std::map<std::string, RawHandler> raw_handlers_;
  std::thread thread_;
};

// How `path` of a server misbehaves: one byte a second, a body of 2 GiB
// without a declared length, a redirect to itself, a reset after the first
// kilobyte; after `delay`, so that clients asking at once overlap.
enum class Misbehaviour { kDrip, kHugeBody, kRedirectLoop, kResetMidway };
void misbehave(HttpServer& server, const std::string& path, Misbehaviour how,
               std::chrono::milliseconds delay = std::chrono::milliseconds(0));

// An OCSP responder for one CA, from an index in `openssl ca` form: each
// request is answered by `openssl ocsp` on files, behind an HttpServer.
class OcspResponder {
 public:
  struct Entry {
    X509* cert;
    bool revoked;
  };
  OcspResponder(const std::string& folder, X509* ca, EVP_PKEY* ca_key, const std::vector<Entry>& entries);

  std::string url() const { return server_.url("/"); }
  void stop() { server_.stop(); }

 private:
  std::string folder_;
  HttpServer server_;
};

// Our time stamp server (bvtsa) for one authority, counting the requests it
// answered from its log.
class TimeStampServer {
 public:
  TimeStampServer(const std::string& folder, const std::string& cert_pem, const std::string& key_pem);

  std::string url() const { return server_.url(); }
  int requests() const;

 private:
  std::string folder_;
  TsaServer server_;
};

}  // namespace bv::test
