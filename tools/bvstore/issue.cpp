// Writing certificates and CRLs into store folders.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "bvstore.h"

namespace bvstore {
namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw Failure{what + ": " + bv::ossl::take_error_text()};
}

}  // namespace

void make_folders(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) throw Failure{"cannot create " + part};
    if (at == std::string::npos) break;
  }
}

// Written beside and renamed into place, so a reader of the store never
// sees half a certificate.
void write_der_certificate(const std::string& path, X509* certificate) {
  const std::string temporary = path + ".tmp";
  {
    bv::ossl::UniquePtr<BIO> out(BIO_new_file(temporary.c_str(), "wb"));
    check(out && i2d_X509_bio(out.get(), certificate) == 1 && BIO_flush(out.get()) == 1, "writing " + path);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw Failure{"cannot write " + path};
  }
}

void write_der_crl(const std::string& path, X509_CRL* crl) {
  bv::ossl::UniquePtr<BIO> out(BIO_new_file(path.c_str(), "wb"));
  check(out && i2d_X509_CRL_bio(out.get(), crl) == 1, "writing " + path);
}

}  // namespace bvstore
