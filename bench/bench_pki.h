// Keys, certificates and files for the benchmarks, made with OpenSSL alone.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "openssl/ossl.h"

namespace {

using bv::ossl::UniquePtr;

constexpr const char* kPin = "1234";

inline UniquePtr<EVP_PKEY> make_key() {
  UniquePtr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(NID_id_GostR3410_2012_256, bv::ossl::gost_engine()));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", "A") <= 0 || EVP_PKEY_keygen(context.get(), &key) <= 0)
    std::abort();
  return UniquePtr<EVP_PKEY>(key);
}

inline UniquePtr<X509> make_certificate(const std::string& common_name, long serial, EVP_PKEY* key, X509* issuer,
                                 EVP_PKEY* issuer_key, const char* extended_usage = nullptr) {
  UniquePtr<X509> cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 30L * 24 * 3600);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name.c_str()),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Bench"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
  X509_set_pubkey(cert.get(), key);
  X509V3_CTX v3;
  X509V3_set_ctx(&v3, issuer != nullptr ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  const char* constraints = issuer == nullptr ? "critical,CA:true" : "CA:false";
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &v3, NID_basic_constraints, constraints);
  X509_add_ext(cert.get(), extension, -1);
  X509_EXTENSION_free(extension);
  if (extended_usage != nullptr) {
    extension = X509V3_EXT_conf_nid(nullptr, &v3, NID_ext_key_usage, extended_usage);
    X509_add_ext(cert.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }
  if (X509_sign(cert.get(), issuer_key, bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256)) <= 0) std::abort();
  return cert;
}

inline void write_der(const std::string& path, X509* cert) {
  UniquePtr<BIO> out(BIO_new_file(path.c_str(), "wb"));
  i2d_X509_bio(out.get(), cert);
}

// Under the PIN, as a signer's key usually is; or plain.
inline void write_key(const std::string& path, EVP_PKEY* key, bool with_pin = true) {
  UniquePtr<BIO> out(BIO_new_file(path.c_str(), "wb"));
  if (with_pin)
    PEM_write_bio_PKCS8PrivateKey(out.get(), key, EVP_aes_256_cbc(), nullptr, 0, nullptr, const_cast<char*>(kPin));
  else
    PEM_write_bio_PKCS8PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
}

inline std::string sha1_hex(X509* cert) {
  unsigned char digest[20];
  unsigned length = 0;
  X509_digest(cert, EVP_sha1(), digest, &length);
  std::string text;
  char pair[3];
  for (unsigned i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof pair, "%02X", digest[i]);
    text += pair;
  }
  return text;
}

// bvtsa (the program at `path`) on a free loopback port with `arguments`
// after --listen, stopped when this goes; the CAdES layer's default service
// points at it.
class Bvtsa {
 public:
  Bvtsa(const std::string& path, const std::vector<std::string>& arguments) {
    int out[2];
    if (pipe(out) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      close(out[0]);
      std::vector<const char*> argv{"bvtsa", "--listen", "127.0.0.1:0"};
      for (const std::string& argument : arguments) argv.push_back(argument.c_str());
      argv.push_back(nullptr);
      execv(path.c_str(), const_cast<char* const*>(argv.data()));
      _exit(127);
    }
    close(out[1]);
    char line[256] = {};
    FILE* listening = fdopen(out[0], "r");
    if (listening == nullptr || std::fgets(line, sizeof line, listening) == nullptr) std::abort();
    std::fclose(listening);
    const char* address = std::strstr(line, "127.0.0.1:");
    if (address == nullptr) std::abort();
    setenv("BV_CADES_DEFAULT_TSP", ("http://" + std::string(address, std::strcspn(address, "\r\n")) + "/").c_str(), 1);
  }
  ~Bvtsa() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Bvtsa(const Bvtsa&) = delete;
  Bvtsa& operator=(const Bvtsa&) = delete;

 private:
  pid_t pid_ = -1;
};

}  // namespace
