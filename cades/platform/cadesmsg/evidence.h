// What a CAdES-X Long signature carries as proof: certification paths to a
// trust anchor of the Root stores, and for every certificate of a path but
// the anchor the CRL or OCSP response that found it not revoked.
#pragma once

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

// Builds the path of `cert` with the platform's chain engine (with `extra`
// as additional certificates) and proves each certificate not revoked.
// False with the last error: CERT_E_UNTRUSTEDROOT, CERT_E_CHAINING,
// CERT_E_EXPIRED, CRYPT_E_REVOKED, CRYPT_E_NO_REVOCATION_CHECK or
// CRYPT_E_REVOCATION_OFFLINE.
bool prove_path(X509* cert, const std::vector<X509*>& extra, const TrustMaterial& trust, ProvenPath& out);

// DER of an OpenSSL object (i2d_*), empty on failure.
template <typename Object, typename Encode>
std::string der_of(const Object* object, Encode encode) {
  unsigned char* der = nullptr;
  const int length = encode(object, &der);
  std::string out;
  if (length > 0) out.assign(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return out;
}

// The hash of `data` with `md`, empty on failure.
std::string digest_of(const EVP_MD* md, std::string_view data);

}  // namespace bv::cades
