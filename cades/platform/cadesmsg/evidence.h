// What a CAdES-X Long signature carries as proof: certification paths to a
// trust anchor of the Root stores, and for every certificate of a path but
// the anchor the CRL or OCSP response that found it not revoked.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "crypt32/revocation.h"
#include "openssl/ossl.h"

namespace bv::cades {

using bv::ossl::UniquePtr;

// What the stores offer paths, read once per operation: the intermediates
// (CA stores) and the CRLs (CA and Root stores) of both locations.  The
// anchors themselves are the chain engine's business.
struct TrustMaterial {
  std::vector<UniquePtr<X509>> intermediates;
  std::vector<UniquePtr<X509_CRL>> crls;
};
void load_trust_material(TrustMaterial& out);

// End certificate first, anchor last; revocations[i] proves certificates[i]
// for every i but the anchor's.
struct ProvenPath {
  std::vector<UniquePtr<X509>> certificates;
  std::vector<bv::platform::revocation::Result> revocations;
};

// The path of `cert` at `at` (0: now) from the platform's chain engine, with
// `extra` as additional certificates, end certificate first; no revocation
// checks.  False with CERT_E_UNTRUSTEDROOT, CERT_E_EXPIRED or CERT_E_CHAINING.
bool build_path(X509* cert, const std::vector<X509*>& extra, time_t at, std::vector<UniquePtr<X509>>& path);

// Builds the path of `cert` now and proves each certificate not revoked.
// False with the last error: CERT_E_UNTRUSTEDROOT, CERT_E_CHAINING,
// CERT_E_EXPIRED, CRYPT_E_REVOKED, CRYPT_E_NO_REVOCATION_CHECK or
// CRYPT_E_REVOCATION_OFFLINE.
bool prove_path(X509* cert, const std::vector<X509*>& extra, const TrustMaterial& trust, ProvenPath& out);

// The signer's own certificate among `candidates`, else in the stores: My,
// AddressBook, CA and Root of both locations first, then any other store of
// the machine (a signer may sign from a store of its own profile).
UniquePtr<X509> find_signer_certificate(CMS_SignerInfo* signer, const std::vector<X509*>& candidates);

// What the Type 1 time stamp covers: the signature value's octets, then
// each signature time stamp, the certificate references and the revocation
// references, each attribute as its type and values without its own header.
bool type1_input(std::string_view signature, const std::vector<const X509_ATTRIBUTE*>& time_stamps,
                 const X509_ATTRIBUTE* certificate_refs, const X509_ATTRIBUTE* revocation_refs, std::string& out);

using bv::ossl::der_of;

// The hash of `data` with `md`, empty on failure.
std::string digest_of(const EVP_MD* md, std::string_view data);

}  // namespace bv::cades
