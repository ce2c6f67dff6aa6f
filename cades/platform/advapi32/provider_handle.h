// What an HCRYPTPROV stands for here: a provider of one of the GOST types
// (or of the base type for SHA-1/MD5), with the private key of its
// container when it was opened for one.  Handles carry a magic number so a
// wrong or freed handle gives NTE_BAD_UID instead of a crash.
#pragma once

#include <atomic>
#include <string>

#include "openssl/ossl.h"
#include "wincrypt_types.h"

namespace bv::platform {

struct CryptProvider {
  static constexpr uint32_t kMagic = 0x42565056;  // "BVPV"
  uint32_t magic = kMagic;
  DWORD type = 0;
  std::string container;                 // empty for a verify-only context
  bv::ossl::UniquePtr<EVP_PKEY> key;     // null for a verify-only context
  std::string pin;                       // the PIN the container opened with
  bv::ossl::UniquePtr<X509> certificate;  // the one it was acquired for, if any
  std::atomic<int> references{1};
};

// A new handle owning `provider`; released by CryptReleaseContext.
HCRYPTPROV new_provider_handle(std::unique_ptr<CryptProvider> provider);

// The provider behind a handle, or null with NTE_BAD_UID as last error.
CryptProvider* provider_from_handle(HCRYPTPROV handle);

// Adds a reference (CryptContextAddRef); false for a bad handle.
bool add_provider_reference(HCRYPTPROV handle);

// Drops a reference and frees the provider at zero; false for a bad handle.
bool release_provider_handle(HCRYPTPROV handle);

}  // namespace bv::platform
