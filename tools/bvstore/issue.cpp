// Writing certificates and CRLs into store folders.
#include "bvstore.h"

#include <string_view>

#include "kernel32/files.h"

namespace bvstore {
namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw Failure{what + ": " + bv::ossl::take_error_text()};
}

}  // namespace

void make_folders(const std::string& path) {
  if (const int error = bv::platform::make_directories(path, 0755)) throw file_failure("create", path, error);
}

// Written beside and renamed into place, so a reader of the store never
// sees half a certificate.
void write_der_certificate(const std::string& path, X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  check(length > 0, "writing " + path);
  const int error = bv::platform::replace_file(path, std::string_view(reinterpret_cast<char*>(der), length), 0644);
  OPENSSL_free(der);
  if (error != 0) throw file_failure("write", path, error);
}

void write_der_crl(const std::string& path, X509_CRL* crl) {
  const std::string der = bv::pki::der_of(crl);
  check(!der.empty(), "writing " + path);
  if (const int error = bv::platform::replace_file(path, der, 0644)) throw file_failure("write", path, error);
}

}  // namespace bvstore
