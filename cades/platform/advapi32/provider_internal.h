// Inside the platform: what a hash handle stands for and what the key and
// message services do with it.  Not for the logic, which sees provider.h.
#pragma once

#include <vector>

#include "advapi32/provider.h"
#include "openssl/ossl.h"

namespace bv::platform {

// The provider's name for a type it serves, null for any other type.
const char* provider_name(DWORD type);

// What an HCRYPTHASH stands for.  Signing finishes the same object, so the
// key services reach it through hash_from_handle and finish_hash.
struct CryptHash {
  static constexpr uint32_t kMagic = 0x42564853;  // "BVHS"
  uint32_t magic = kMagic;
  ALG_ID algid = 0;
  HCRYPTPROV provider = 0;  // holds one reference, dropped by CryptDestroyHash
  bv::ossl::UniquePtr<EVP_MD_CTX> context;
  bool finished = false;    // no more data once the value was taken
  std::vector<BYTE> value;  // the hash value, once finished
};

// The hash behind a handle, or null with NTE_BAD_HASH as last error.
CryptHash* hash_from_handle(HCRYPTHASH handle);

// Closes the hash (idempotent) and gives its value, in OpenSSL's byte
// order; null with the last error set if the digest could not be finished.
const std::vector<BYTE>* finish_hash(CryptHash& hash);

// The digest behind a hash ALG_ID, or null if this platform has none.
const EVP_MD* digest_for_algid(ALG_ID algid);

}  // namespace bv::platform
