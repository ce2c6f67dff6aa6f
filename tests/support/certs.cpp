#include "certs.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace bv::test {
namespace {

// A TCP socket bound to a free port of 127.0.0.1; the port in *port.
int loopback_socket(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("no loopback socket");
  *port = ntohs(address.sin_port);
  return fd;
}

// The request's head and, after it, as many bytes as Content-Length says.
std::string read_request(int client) {
  std::string request;
  char chunk[4096];
  size_t head_end = std::string::npos, wanted = 0;
  while (head_end == std::string::npos || request.size() < head_end + wanted) {
    const ssize_t n = read(client, chunk, sizeof chunk);
    if (n <= 0) break;
    request.append(chunk, static_cast<size_t>(n));
    if (head_end == std::string::npos && (head_end = request.find("\r\n\r\n")) != std::string::npos) {
      head_end += 4;
      const size_t at = request.find("Content-Length:");
      if (at != std::string::npos && at < head_end) wanted = std::strtoul(request.c_str() + at + 15, nullptr, 10);
    }
  }
  return request;
}

}  // namespace

int free_port() {
  int port = 0;
  close(loopback_socket(&port));
  return port;
}

HttpServer::HttpServer(bool silent) {
  listener_ = loopback_socket(&port_);
  listen(listener_, 16);
  if (!silent) thread_ = std::thread([this] { serve(); });
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (listener_ >= 0) close(listener_);
  listener_ = -1;
}

void HttpServer::put(const std::string& path, const std::string& body) {
  handle(path, [body](const std::string&) { return body; });
}

void HttpServer::handle(const std::string& path, Handler handler) {
  std::lock_guard lock(mutex_);
  handlers_[path] = std::move(handler);
}

void HttpServer::handle_raw(const std::string& path, RawHandler handler) {
  std::lock_guard lock(mutex_);
  raw_handlers_[path] = std::move(handler);
}

void HttpServer::serve() {
  while (!stop_) {
    pollfd p{listener_, POLLIN, 0};
    if (poll(&p, 1, 50) <= 0) continue;
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const std::string request = read_request(client);
    ++requests_;
    const size_t start = request.find(' ') + 1, head_end = request.find("\r\n\r\n");
    const std::string path = request.substr(start, request.find(' ', start) - start);
    Handler handler;
    RawHandler raw;
    {
      std::lock_guard lock(mutex_);
      if (auto it = handlers_.find(path); it != handlers_.end()) handler = it->second;
      if (auto it = raw_handlers_.find(path); it != raw_handlers_.end()) raw = it->second;
    }
    if (raw) {
      raw(client, stop_);
      close(client);
      continue;
    }
    const std::string body = handler ? handler(head_end == std::string::npos ? "" : request.substr(head_end + 4)) : "";
    const std::string answer = (handler ? "HTTP/1.0 200 OK\r\n" : "HTTP/1.0 404 Not Found\r\n") +
                               std::string("Content-Length: ") + std::to_string(body.size()) + "\r\n\r\n" + body;
    [[maybe_unused]] const ssize_t ignored = write(client, answer.data(), answer.size());
    close(client);
  }
}

namespace {
// False once the client has gone (no SIGPIPE for it).
bool send_bytes(int connection, const std::string& bytes) {
  return ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}
}  // namespace

void misbehave(HttpServer& server, const std::string& path, Misbehaviour how, std::chrono::milliseconds delay) {
  const std::string self = server.url(path);
  server.handle_raw(path, [how, self, delay](int connection, const std::atomic<bool>& stopping) {
    std::this_thread::sleep_for(delay);
    switch (how) {
      case Misbehaviour::kDrip:
        send_bytes(connection, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
        for (int i = 0; i < 1000 && !stopping && send_bytes(connection, "0"); ++i)
          std::this_thread::sleep_for(std::chrono::seconds(1));
        break;
      case Misbehaviour::kHugeBody: {
        // No length declared: only what is read can stop it.
        send_bytes(connection, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
        const std::string block(1 << 16, '0');
        for (long sent = 0; sent < (2l << 30) && !stopping && send_bytes(connection, block); sent += 1 << 16) {
        }
        break;
      }
      case Misbehaviour::kRedirectLoop:
        send_bytes(connection, "HTTP/1.1 302 Found\r\nLocation: " + self + "\r\nContent-Length: 0\r\n\r\n");
        break;
      case Misbehaviour::kResetMidway: {
        send_bytes(connection, "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(1000, '0'));
        const linger abort_on_close{1, 0};  // the close sends a reset
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
        break;
      }
    }
  });
}

OcspResponder::OcspResponder(const std::string& folder, X509* ca, EVP_PKEY* ca_key, const std::vector<Entry>& entries)
    : folder_(folder) {
  write_file(folder + "/ca.pem", pem_of(ca));
  write_file(folder + "/ca.key", pem_of(ca_key));
  std::string index;
  for (const Entry& entry : entries) {
    UniquePtr<BIGNUM> serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(entry.cert), nullptr));
    char* hex = BN_bn2hex(serial.get());
    char* subject = X509_NAME_oneline(X509_get_subject_name(entry.cert), nullptr, 0);
    index += std::string(entry.revoked ? "R" : "V") + "\t301231000000Z\t" +
             (entry.revoked ? "200101000000Z,keyCompromise" : "") + "\t" + (std::strlen(hex) % 2 ? "0" : "") + hex +
             "\tunknown\t" + subject + "\n";
    OPENSSL_free(hex);
    OPENSSL_free(subject);
  }
  write_file(folder + "/index.txt", index);
  write_file(folder + "/openssl.cnf", kGostEngineConfig);
  // One request at a time: the server answers its connections in turn.
  server_.handle("/", [this](const std::string& request) {
    write_file(folder_ + "/request.der", request);
    std::remove((folder_ + "/response.der").c_str());
    const std::string f = "'" + folder_ + "/";
    run_command("OPENSSL_CONF=" + f + "openssl.cnf' openssl ocsp -index " + f + "index.txt' -CA " + f +
                "ca.pem' -rsigner " + f + "ca.pem' -rkey " + f + "ca.key' -rmd md_gost12_256 -nmin 5 -reqin " + f +
                "request.der' -respout " + f + "response.der' >> " + f + "ocsp.log' 2>&1");
    return read_file(folder_ + "/response.der");
  });
}

TimeStampServer::TimeStampServer(const std::string& folder, const std::string& cert_pem, const std::string& key_pem)
    : folder_(folder),
      server_("--cert '" + cert_pem + "' --key '" + key_pem + "' --serial-file '" + folder + "/serial' --log '" +
                  folder + "/tsa.log'",
              folder + "/tsa.err") {}

int TimeStampServer::requests() const {
  const std::string log = read_file(folder_ + "/tsa.log");
  int count = 0;
  for (size_t at = log.find(" 127.0.0.1:"); at != std::string::npos; at = log.find(" 127.0.0.1:", at + 1)) ++count;
  return count;
}

}  // namespace bv::test
