// Certificates with the properties a test asks for, made with OpenSSL and
// the GOST engine (never with the library); the store folders they go to;
// and the revocation servers they name: a small HTTP server for CRLs run
// inside the test, and the `openssl ocsp` responder as a child.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "crypt32/revocation.h"
#include "crypt32/store.h"
#include "host.h"
#include "openssl/ossl.h"

extern char** environ;

namespace bv::test {

using bv::ossl::UniquePtr;
constexpr long kDay = 86400;

// `nid`: NID_id_GostR3410_2001, NID_id_GostR3410_2012_256 or _512.
inline UniquePtr<EVP_PKEY> gost_key(int nid = NID_id_GostR3410_2012_256) {
  UniquePtr<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new_id(nid, bv::ossl::gost_engine()));
  EVP_PKEY* key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_CTX_ctrl_str(ctx.get(), "paramset", "A") <= 0 ||
      EVP_PKEY_keygen(ctx.get(), &key) != 1)
    ADD_FAILURE() << "GOST key generation: " << bv::ossl::take_error_text();
  return UniquePtr<EVP_PKEY>(key);
}

inline const EVP_MD* gost_digest() { return bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256); }

struct CertRequest {
  std::string name;                // common name
  std::string organization = "Chain Test", country;
  X509* issuer = nullptr;          // null: self-signed
  EVP_PKEY* issuer_key = nullptr;
  long serial = 1;
  long not_before = -kDay;         // seconds from now
  long not_after = 365 * kDay;
  bool ca = false;
  std::string extended_usage;      // e.g. "emailProtection,clientAuth"
  std::string crl_url, ocsp_url;
  bool corrupt_signature = false;
};

inline void add_extension(X509* cert, X509V3_CTX* ctx, int nid, const std::string& value) {
  UniquePtr<X509_EXTENSION> ext(X509V3_EXT_conf_nid(nullptr, ctx, nid, value.c_str()));
  if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) ADD_FAILURE() << "extension " << nid << "=" << value;
}

inline UniquePtr<X509> reparse(const std::string& der) {
  const auto* p = reinterpret_cast<const unsigned char*>(der.data());
  return UniquePtr<X509>(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

template <class T>
std::string encoded(const T* object, int (*i2d)(const T*, unsigned char**)) {
  unsigned char* der = nullptr;
  const int length = i2d(object, &der);
  std::string out(reinterpret_cast<char*>(der), static_cast<size_t>(length > 0 ? length : 0));
  OPENSSL_free(der);
  return out;
}
inline std::string der_of(X509* cert) { return encoded<X509>(cert, i2d_X509); }
inline std::string der_of(X509_CRL* crl) { return encoded<X509_CRL>(crl, i2d_X509_CRL); }

inline UniquePtr<X509> make_cert(const CertRequest& request, EVP_PKEY* key) {
  UniquePtr<X509> cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), request.serial);
  UniquePtr<X509_NAME> name(X509_NAME_new());
  for (const auto& [key, value] : {std::pair{"O", request.organization}, {"CN", request.name}, {"C", request.country}})
    if (!value.empty())
      X509_NAME_add_entry_by_txt(name.get(), key, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.c_str()),
                                 -1, -1, 0);
  X509_set_subject_name(cert.get(), name.get());
  X509* issuer = request.issuer != nullptr ? request.issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), request.not_before);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), request.not_after);
  X509_set_pubkey(cert.get(), key);
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert.get(), nullptr, nullptr, 0);
  add_extension(cert.get(), &ctx, NID_subject_key_identifier, "hash");
  add_extension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always");
  if (request.ca) {
    add_extension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(cert.get(), &ctx, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    add_extension(cert.get(), &ctx, NID_key_usage, "critical,digitalSignature,nonRepudiation,keyEncipherment");
  }
  if (!request.extended_usage.empty()) add_extension(cert.get(), &ctx, NID_ext_key_usage, request.extended_usage);
  if (!request.crl_url.empty()) add_extension(cert.get(), &ctx, NID_crl_distribution_points, "URI:" + request.crl_url);
  if (!request.ocsp_url.empty()) add_extension(cert.get(), &ctx, NID_info_access, "OCSP;URI:" + request.ocsp_url);
  EVP_PKEY* signer = request.issuer_key != nullptr ? request.issuer_key : key;
  if (X509_sign(cert.get(), signer, gost_digest()) <= 0) ADD_FAILURE() << "sign: " << bv::ossl::take_error_text();
  if (!request.corrupt_signature) return reparse(der_of(cert.get()));
  std::string der = der_of(cert.get());
  der.back() ^= 0x5A;  // the last octet of a certificate is its signature's
  return reparse(der);
}

inline UniquePtr<X509_CRL> make_crl(X509* issuer, EVP_PKEY* key, const std::vector<long>& revoked_serials,
                                    long this_update = -3600, long next_update = 7 * kDay) {
  UniquePtr<X509_CRL> crl(X509_CRL_new());
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer));
  UniquePtr<ASN1_TIME> last(X509_gmtime_adj(nullptr, this_update)), next(X509_gmtime_adj(nullptr, next_update));
  X509_CRL_set1_lastUpdate(crl.get(), last.get());
  X509_CRL_set1_nextUpdate(crl.get(), next.get());
  for (long serial : revoked_serials) {
    X509_REVOKED* entry = X509_REVOKED_new();
    UniquePtr<ASN1_INTEGER> number(ASN1_INTEGER_new());
    ASN1_INTEGER_set(number.get(), serial);
    X509_REVOKED_set_serialNumber(entry, number.get());
    UniquePtr<ASN1_TIME> when(X509_gmtime_adj(nullptr, -7200));
    X509_REVOKED_set_revocationDate(entry, when.get());
    X509_CRL_add0_revoked(crl.get(), entry);
  }
  X509_CRL_sort(crl.get());
  if (X509_CRL_sign(crl.get(), key, gost_digest()) <= 0) ADD_FAILURE() << "CRL sign: " << bv::ossl::take_error_text();
  return crl;
}

template <class Write>
std::string pem_with(Write write) {
  UniquePtr<BIO> bio(BIO_new(BIO_s_mem()));
  write(bio.get());
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}
inline std::string pem_of(X509* cert) { return pem_with([&](BIO* b) { PEM_write_bio_X509(b, cert); }); }
inline std::string pem_of(X509_CRL* crl) { return pem_with([&](BIO* b) { PEM_write_bio_X509_CRL(b, crl); }); }
// PKCS #8, encrypted under `pin` unless it is empty.
inline std::string pem_of(EVP_PKEY* key, const std::string& pin = {}) {
  return pem_with([&](BIO* b) {
    if (pin.empty())
      PEM_write_bio_PrivateKey(b, key, nullptr, nullptr, 0, nullptr, nullptr);
    else
      PEM_write_bio_PKCS8PrivateKey(b, key, EVP_aes_256_cbc(), pin.data(), static_cast<int>(pin.size()), nullptr,
                                    nullptr);
  });
}

// SHA-1 of the DER, 40 upper-case hex digits: the hash identity.
inline std::string sha1_hex(X509* cert) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  X509_digest(cert, EVP_sha1(), md, &length);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += "0123456789ABCDEF"[md[i] >> 4], hex += "0123456789ABCDEF"[md[i] & 15];
  return hex;
}

// A TCP socket bound to a free port of 127.0.0.1; the port in *port.
inline int loopback_socket(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

// A port on 127.0.0.1 that nothing listens on at the moment.
inline int free_port() {
  int port = 0;
  close(loopback_socket(&port));
  return port;
}

// Serves fixed bodies by path over HTTP/1.0 and counts the requests; with
// `silent` it takes connections and never answers.
class HttpServer {
 public:
  explicit HttpServer(bool silent = false) : silent_(silent) {
    listener_ = loopback_socket(&port_);
    listen(listener_, 16);
    if (!silent_) thread_ = std::thread([this] { serve(); });
  }
  ~HttpServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  void put(const std::string& path, const std::string& body) {
    std::lock_guard lock(mutex_);
    bodies_[path] = body;
  }
  int requests() const { return requests_; }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{listener_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      const int client = accept(listener_, nullptr, nullptr);
      if (client < 0) continue;
      std::string request;
      char chunk[2048];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = read(client, chunk, sizeof chunk);
        if (n <= 0) break;
        request.append(chunk, static_cast<size_t>(n));
      }
      ++requests_;
      const size_t start = request.find(' ') + 1;
      const std::string path = request.substr(start, request.find(' ', start) - start);
      std::string body;
      bool found;
      {
        std::lock_guard lock(mutex_);
        auto it = bodies_.find(path);
        found = it != bodies_.end();
        if (found) body = it->second;
      }
      const std::string head = found ? "HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n"
                                     : "HTTP/1.0 404 Not Found\r\n";
      const std::string answer = head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
      [[maybe_unused]] const ssize_t ignored = write(client, answer.data(), answer.size());
      close(client);
    }
  }

  bool silent_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::mutex mutex_;
  std::map<std::string, std::string> bodies_;
  std::thread thread_;
};

// `openssl ocsp` answering for one CA from an index in `openssl ca` form.
class OcspResponder {
 public:
  struct Entry {
    X509* cert;
    bool revoked;
  };

  OcspResponder(const std::string& folder, X509* ca, EVP_PKEY* ca_key, const std::vector<Entry>& entries)
      : folder_(folder), port_(free_port()) {
    bv::test::write_file(folder + "/ca.pem", pem_of(ca));
    bv::test::write_file(folder + "/ca.key", pem_of(ca_key));
    std::string index;
    for (const Entry& entry : entries) {
      UniquePtr<BIGNUM> serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(entry.cert), nullptr));
      char* hex = BN_bn2hex(serial.get());
      std::string serial_hex = hex;
      OPENSSL_free(hex);
      if (serial_hex.size() % 2 != 0) serial_hex = "0" + serial_hex;
      char* subject = X509_NAME_oneline(X509_get_subject_name(entry.cert), nullptr, 0);
      index += std::string(entry.revoked ? "R" : "V") + "\t301231000000Z\t" +
               (entry.revoked ? "200101000000Z,keyCompromise" : "") + "\t" + serial_hex + "\tunknown\t" + subject + "\n";
      OPENSSL_free(subject);
    }
    bv::test::write_file(folder + "/index.txt", index);
    bv::test::write_file(folder + "/openssl.cnf",
                         "openssl_conf = openssl_def\n[openssl_def]\nengines = engines\n[engines]\ngost = gost\n"
                         "[gost]\nengine_id = gost\ndefault_algorithms = ALL\n");
    start();
  }
  ~OcspResponder() { stop(); }
  OcspResponder(const OcspResponder&) = delete;
  OcspResponder& operator=(const OcspResponder&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  int port() const { return port_; }

  void start() {
    const std::string port = std::to_string(port_);
    std::vector<std::string> args = {"openssl", "ocsp", "-index", folder_ + "/index.txt", "-port", port,
                                     "-rsigner", folder_ + "/ca.pem", "-rkey", folder_ + "/ca.key",
                                     "-CA", folder_ + "/ca.pem", "-rmd", "md_gost12_256", "-nmin", "5",
                                     "-ignore_err"};
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_storage;
    for (char** e = environ; *e != nullptr; ++e)
      if (std::strncmp(*e, "OPENSSL_CONF=", 13) != 0) env_storage.emplace_back(*e);
    env_storage.push_back("OPENSSL_CONF=" + folder_ + "/openssl.cnf");
    std::vector<char*> envp;
    for (auto& e : env_storage) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (folder_ + "/ocsp.log").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawnp(&pid_, "openssl", &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    // The responder serves one connection at a time and waits on an idle
    // one, so readiness is read from its log rather than probed.
    const auto ready = [this] {
      return bv::test::read_file(folder_ + "/ocsp.log").find("waiting for OCSP client connections") != std::string::npos;
    };
    for (int i = 0; i < 200 && !ready(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
    if (!ready()) ADD_FAILURE() << "OCSP responder did not start:\n" << bv::test::read_file(folder_ + "/ocsp.log");
  }

  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }

 private:
  std::string folder_;
  int port_;
  pid_t pid_ = -1;
};

// Points both store locations at fresh folders for the life of a test.
class StoreFolders {
 public:
  StoreFolders() {
    setenv("BV_PLATFORM_LOCAL_APPDATA", (dir_ / "user").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (dir_ / "machine").c_str(), 1);
    setenv("BV_PLATFORM_URL_TIMEOUT_MS", "1500", 1);
    setenv("no_proxy", "127.0.0.1,localhost", 1);
    bv::platform::forget_cached_stores();
    bv::platform::revocation::clear_cache();
  }
  ~StoreFolders() {
    bv::platform::forget_cached_stores();
    bv::platform::revocation::clear_cache();
  }
  // `store` is "Root", "CA", "My"...; `machine` picks the location.
  std::string store(const std::string& name, bool machine = false) const {
    return dir_ / ((machine ? "machine" : "user") + std::string("/Brelvantec/Certificates/") + name);
  }
  // A file rewritten in place may keep its folder's time: the store cache
  // is dropped with every change.
  template <class T>  // X509 or X509_CRL
  void put(const std::string& name, const std::string& file, T* object, bool machine = false) const {
    bv::test::write_file(store(name, machine) + "/" + file, der_of(object));
    bv::platform::forget_cached_stores();
  }
  const bv::test::TempDir& dir() const { return dir_; }

 private:
  bv::test::TempDir dir_;
};

}  // namespace bv::test
