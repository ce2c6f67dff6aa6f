// bvstore: the administrator's tool for certificate stores and key files.
#pragma once

#include <string>
#include <vector>

#include "openssl/ossl.h"
#include "wintypes.h"

namespace bvstore {

// Thrown for anything that ends a command; main prints it and exits 1.
struct Failure {
  std::string text;
};

// A new GOST key: "gost2001" (paramset A), "gost2012_256" (paramset A) or
// "gost2012_512" (paramset A).
bv::ossl::UniquePtr<EVP_PKEY> generate_key(const std::string& kind);

struct CertificateRequest {
  std::vector<std::pair<std::string, std::string>> subject;  // (OID or short name, UTF-8 value)
  long serial = 1;
  int days = 3650;
  long not_before_offset_days = 0;  // negative: starts in the past
  bool ca = false;
  std::string key_usage;             // e.g. "digitalSignature,nonRepudiation"
  std::string extended_key_usage;    // e.g. "emailProtection", may be empty
  std::string crl_url;               // crlDistributionPoints, may be empty
  std::string ocsp_url;              // authorityInfoAccess OCSP, may be empty
};

// Issues a certificate for `key` signed by `issuer_key` under `issuer`
// (null issuer: self-signed), with the hash that goes with the issuer's key.
bv::ossl::UniquePtr<X509> issue_certificate(const CertificateRequest& request, EVP_PKEY* key, X509* issuer,
                                             EVP_PKEY* issuer_key);

// A CRL of `issuer` listing `revoked` serials, valid for `days`.
bv::ossl::UniquePtr<X509_CRL> issue_crl(X509* issuer, EVP_PKEY* issuer_key, const std::vector<long>& revoked,
                                        int days);

// The digest that signs with a key of that kind.
const EVP_MD* digest_for_key(EVP_PKEY* key);

void write_der_certificate(const std::string& path, X509* certificate);
void write_der_crl(const std::string& path, X509_CRL* crl);
void make_folders(const std::string& path);

// SHA-1 of the certificate's encoding as an SSF identity (40 hex digits).
std::string certificate_hash(X509* certificate);

// `bvstore demo DIR`.
int run_demo(const std::string& directory);

}  // namespace bvstore
