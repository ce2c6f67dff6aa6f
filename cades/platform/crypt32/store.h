// What the platform's other services (the chain engine, the selection list,
// bvstore) need to know of certificates and stores beyond the CryptoAPI
// surface of cert.h: the OpenSSL objects behind them and where stores live.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "crypt32/keys.h"
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

// What a store folder holds as of now, as an identity: two calls give the
// same pointer while the folder has not changed (nor was forgotten), and a
// kept pointer is never reused for other contents.  Null for a missing folder.
using StoreVersion = std::shared_ptr<const void>;

// Reads a system store through the same cache CertOpenStore uses.  False
// when its folder does not exist; unreadable files are skipped.
bool read_system_store(const std::string& name, DWORD location, StoreObjects& out, StoreVersion* version = nullptr);

StoreVersion system_store_version(const std::string& name, DWORD location);

// The certificates of an open store (any kind), in its order, each with its
// own reference.  False for a bad handle.
bool store_certificates(HCERTSTORE store, std::vector<bv::ossl::UniquePtr<X509>>& out);

// The folder a store opened from a system store reads; empty for a memory
// store or a bad handle.
std::string store_folder(HCERTSTORE store);

// Drops every cached store folder; the next open reads from disk.
void forget_cached_stores();

// ---------------------------------------------------------------------------
// Inside crypt32: what a context and a store are made of.

// A certificate as read once: its encoding, the CERT_INFO that points into
// this record's own storage, and what is derived from it.  Shared, never
// changed, by the cache and every context made of it.
struct ParsedCertificate {
  ParsedCertificate() = default;
  ParsedCertificate(const ParsedCertificate&) = delete;
  ParsedCertificate& operator=(const ParsedCertificate&) = delete;

  bv::ossl::UniquePtr<X509> x509;
  std::vector<BYTE> encoded;
  BYTE sha1[20] = {};
  std::string file;      // where it was read from, empty if from memory
  std::string key_file;  // <stem>.key beside it, if that file exists
  CERT_INFO info{};

  // Storage behind `info`.
  std::vector<BYTE> serial, signature_parameters, issuer, subject, key_parameters, key_bits;
  std::vector<BYTE> issuer_uid, subject_uid;
  std::string signature_oid, key_oid;
  std::vector<std::string> extension_oids;
  std::vector<std::vector<BYTE>> extension_values;
  std::vector<CERT_EXTENSION> extensions;
};

// Parses one DER certificate; null with CRYPT_E_ASN1_BADTAG when it is none.
std::shared_ptr<const ParsedCertificate> parse_certificate(const BYTE* der, size_t length,
                                                           const std::string& file = {});

// The parsed record behind a context, or null for a bad pointer.
const ParsedCertificate* parsed_certificate(PCCERT_CONTEXT context);

// FILETIME of an ASN.1 time; false for a time it cannot represent.
bool filetime_from_asn1(const ASN1_TIME* time, FILETIME& out);

struct CertStoreObject;

// What a PCCERT_CONTEXT points at.  The public record comes first, so the
// pointer a caller holds is the element's address.
struct CertElement {
  static constexpr uint32_t kMagic = 0x42564345;  // "BVCE"
  CERT_CONTEXT context{};
  uint32_t magic = kMagic;
  std::atomic<int> references{1};
  std::shared_ptr<const ParsedCertificate> parsed;
  CertStoreObject* store = nullptr;  // holds one reference on the store
  size_t position = 0;               // index in the store's list, so enumeration steps in O(1)
  std::mutex mutex;                  // guards what follows
  bool key_prov_info_set = false;    // set (or removed) by the caller
  std::unique_ptr<KeyProvInfo> key_prov_info;
  HCRYPTPROV cached_provider = 0;
  DWORD cached_key_spec = 0;
  std::vector<HCRYPTPROV> retired_providers;  // replaced while a caller may still hold them
};

// The element behind a context, or null with ERROR_INVALID_PARAMETER.
CertElement* element_from_context(PCCERT_CONTEXT context);

// The key provider information a context has: the one set on it, else the
// link to a key file beside its certificate file.  False if it has none.
bool effective_key_prov_info(CertElement& element, KeyProvInfo& out);

}  // namespace bv::platform
