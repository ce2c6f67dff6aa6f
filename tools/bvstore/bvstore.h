// bvstore: the administrator's tool for certificate stores and key files.
#pragma once

#include <string>
#include <vector>

#include "certificate_factory.h"
#include "cli.h"
#include "wintypes.h"

namespace bvstore {

using bv::pki::certificate_hash;

// Thrown for anything that ends a command; main prints it and exits with
// its code.
struct Failure {
  std::string text;
  int exit_code = bv::cli::kRefused;
};

// A file that cannot be read or written, with the system's reason.
inline Failure file_failure(const std::string& verb, const std::string& path, int error = errno) {
  return {bv::cli::file_error(verb, path, error), bv::cli::kUsageOrFile};
}

void write_der_certificate(const std::string& path, X509* certificate);
void write_der_crl(const std::string& path, X509_CRL* crl);
void make_folders(const std::string& path);

// `bvstore demo DIR`.
int run_demo(const std::string& directory);

// `bvstore check ID[:PROFILE[:PIN]]`.
int run_check(const std::string& record);

// `bvstore settings`: what the library reads here, and from where.
int run_settings();

}  // namespace bvstore
