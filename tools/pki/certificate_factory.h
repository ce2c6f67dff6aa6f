// GOST keys, certificates and CRLs made with OpenSSL and the GOST engine,
// for bvstore's demonstration PKI and for the tests (never with the library
// under test).  Every failure throws std::runtime_error with OpenSSL's text.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kernel32/hex.h"
#include "openssl/ossl.h"

namespace bv::pki {

using bv::ossl::UniquePtr;
constexpr long kDay = 86400;

// "gost2001", "gost2012_256" or "gost2012_512", parameter set A.
UniquePtr<EVP_PKEY> generate_key(const std::string& kind = "gost2012_256");

struct CertificateRequest {
  // What a service's certificate is for; the service sets the key usage
  // (digitalSignature,nonRepudiation) and the extended key usage.
  enum class Service {
    kNone,
    kTimeStamping,  // critical extended key usage timeStamping, as a time stamp token needs
    kOcspSigning,   // OCSPSigning and id-pkix-ocsp-nocheck: the responder's own status is not asked
  };
  // (short name or OID, UTF-8 value) in order.  Country is written as a
  // PrintableString, the 1.2.643 numbers as NumericString, e-mail as IA5.
  std::vector<std::pair<std::string, std::string>> subject;
  long serial = 1;
  long not_before = -kDay;  // seconds from now
  long not_after = 365 * kDay;
  bool ca = false;
  std::string key_usage;  // empty: keyCertSign,cRLSign for a CA, else digitalSignature,nonRepudiation,keyEncipherment
  std::string extended_key_usage;  // e.g. "emailProtection,clientAuth"
  std::string crl_url, ocsp_url;
  Service service = Service::kNone;
};

// Signed by `issuer_key` under `issuer` (both null: self-signed) with the
// hash that goes with the signing key.
UniquePtr<X509> issue_certificate(const CertificateRequest& request, EVP_PKEY* key, X509* issuer = nullptr,
                                  EVP_PKEY* issuer_key = nullptr);

// A CRL of `issuer` listing `revoked` (revoked at this_update), times in
// seconds from now.
UniquePtr<X509_CRL> issue_crl(X509* issuer, EVP_PKEY* issuer_key, const std::vector<long>& revoked,
                              long this_update = -3600, long next_update = 7 * kDay);

// The GOST hash that goes with a GOST key (34.11-94 for 2001 keys).
const EVP_MD* digest_for_key(EVP_PKEY* key);

// Every certificate of PEM text in order, or the one DER certificate; empty
// when there is none.
std::vector<UniquePtr<X509>> certificates_of(const std::string& bytes);

std::string der_of(X509* certificate);
std::string der_of(X509_CRL* crl);
std::string der_of(CMS_ContentInfo* message);
std::string pem_of(X509* certificate);
std::string pem_of(X509_CRL* crl);
// PKCS #8, encrypted under `pin` unless it is empty.
std::string pem_of(EVP_PKEY* key, const std::string& pin = {});

// SHA-1 of the certificate's encoding, 40 hex digits: upper case as an
// identity is shown, lower case as a stored file is named.
std::string certificate_hash(X509* certificate, bv::platform::HexLetters letters = bv::platform::HexLetters::kUpper);

}  // namespace bv::pki
