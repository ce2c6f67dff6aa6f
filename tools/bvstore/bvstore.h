// bvstore: the administrator's tool for certificate stores and key files.
#pragma once

#include <string>
#include <vector>

#include "certificate_factory.h"
#include "wintypes.h"

namespace bvstore {

using bv::pki::certificate_hash;

// Thrown for anything that ends a command; main prints it and exits 1.
struct Failure {
  std::string text;
};

void write_der_certificate(const std::string& path, X509* certificate);
void write_der_crl(const std::string& path, X509_CRL* crl);
void make_folders(const std::string& path);

// `bvstore demo DIR`.
int run_demo(const std::string& directory);

}  // namespace bvstore
