// What the platform's other services (the chain engine, the selection list,
// bvstore) need to know of certificates and stores beyond the CryptoAPI
// surface of cert.h: the OpenSSL objects behind them and where stores live.
#pragma once

#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "openssl/ossl.h"

namespace bv::platform {

// The certificate behind a context, borrowed: valid while the context is.
// Null (last error ERROR_INVALID_PARAMETER) for a null or foreign pointer.
X509* certificate_x509(PCCERT_CONTEXT context);

// The file a context was read from, empty for one made in memory.
std::string certificate_file(PCCERT_CONTEXT context);

// The folder of system store `name` (UTF-8) in `location`
// (CERT_SYSTEM_STORE_CURRENT_USER or CERT_SYSTEM_STORE_LOCAL_MACHINE):
// <folder 28 or 35>/Brelvantec/Certificates/<name>.  Empty for another
// location.
std::string system_store_folder(const std::string& name, DWORD location);

// The root of all stores of a location: <folder>/Brelvantec/Certificates.
std::string system_store_root(DWORD location);

struct StoreObjects {
  std::vector<bv::ossl::UniquePtr<X509>> certificates;  // in store order
  std::vector<bv::ossl::UniquePtr<X509_CRL>> crls;      // *.crl, in file name order
};

// Reads a system store through the same cache CertOpenStore uses.  False
// when its folder does not exist; unreadable files are skipped.
bool read_system_store(const std::string& name, DWORD location, StoreObjects& out);

// The certificates of an open store (any kind), in its order, each with its
// own reference.  False for a bad handle.
bool store_certificates(HCERTSTORE store, std::vector<bv::ossl::UniquePtr<X509>>& out);

// Drops every cached store folder; the next open reads from disk.
void forget_cached_stores();

}  // namespace bv::platform
