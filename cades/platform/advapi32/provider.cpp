#include "advapi32/provider.h"

#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include <cstring>
#include <memory>
#include <new>

#include "advapi32/provider_handle.h"
#include "advapi32/provider_internal.h"
#include "checked_handle.h"
#include "kernel32/kernel32.h"
#include "output_space.h"

namespace bv::platform {
namespace {

struct ProviderType {
  DWORD type;
  const char* name;
};
constexpr ProviderType kProviderTypes[] = {
    {PROV_GOST_2001_DH, "Brelvantec GOST R 34.10-2001 provider"},
    {PROV_GOST_2012_256, "Brelvantec GOST R 34.10-2012 256 provider"},
    {PROV_GOST_2012_512, "Brelvantec GOST R 34.10-2012 512 provider"},
};

struct HashAlgorithm {
  ALG_ID algid;
  int nid;
};
constexpr HashAlgorithm kHashAlgorithms[] = {
    {CALG_GR3411, NID_id_GostR3411_94},
    {CALG_GR3411_2012_256, NID_id_GostR3411_2012_256},
    {CALG_GR3411_2012_512, NID_id_GostR3411_2012_512},
    {CALG_SHA1, NID_sha1},
    {CALG_MD5, NID_md5},
    {CALG_MD2, NID_md2},
};

// A platform call reports exhausted memory through the last error, as any
// other failure, instead of throwing into its caller.
template <typename Call>
BOOL out_of_memory_as_error(Call&& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    SetLastError(NTE_NO_MEMORY);
    return FALSE;
  }
}

constexpr DWORD kKnownAcquireFlags = CRYPT_VERIFYCONTEXT | CRYPT_NEWKEYSET | CRYPT_DELETEKEYSET |
                                     CRYPT_MACHINE_KEYSET | CRYPT_SILENT;

}  // namespace

const char* provider_name(DWORD type) {
  for (const ProviderType& known : kProviderTypes)
    if (known.type == type) return known.name;
  return nullptr;
}

const EVP_MD* digest_for_algid(ALG_ID algid) {
  for (const HashAlgorithm& known : kHashAlgorithms)
    if (known.algid == algid) return bv::ossl::digest_by_nid(known.nid);
  return nullptr;
}

CryptHash* hash_from_handle(HCRYPTHASH handle) { return checked_object<CryptHash>(handle, NTE_BAD_HASH); }

const std::vector<BYTE>* finish_hash(CryptHash& hash) {
  if (!hash.finished) {
    std::vector<BYTE> value(static_cast<size_t>(EVP_MD_CTX_get_size(hash.context.get())));
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(hash.context.get(), value.data(), &length) != 1) {
      bv::ossl::fail(NTE_BAD_HASH_STATE);
      return nullptr;
    }
    value.resize(length);
    hash.value = std::move(value);
    hash.finished = true;
  }
  return &hash.value;
}

void release_provider_context(HCRYPTPROV handle) { CryptReleaseContext(handle, 0); }

void destroy_hash_object(HCRYPTHASH handle) { CryptDestroyHash(handle); }

}  // namespace bv::platform

using bv::platform::CryptHash;
using bv::platform::CryptProvider;

BOOL CryptAcquireContextA(HCRYPTPROV* phProv, LPCSTR szContainer, LPCSTR szProvider, DWORD dwProvType,
                          DWORD dwFlags) {
  if (phProv == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if ((dwFlags & ~bv::platform::kKnownAcquireFlags) != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  if (dwProvType < 1 || dwProvType > 999) {
    SetLastError(NTE_BAD_PROV_TYPE);
    return FALSE;
  }
  const char* own_name = bv::platform::provider_name(dwProvType);
  if (own_name == nullptr) {
    SetLastError(NTE_PROV_TYPE_NOT_DEF);
    return FALSE;
  }
  if (szProvider != nullptr && *szProvider != '\0') {
    bool known = false;
    for (const bv::platform::ProviderType& other : bv::platform::kProviderTypes)
      if (std::strcmp(szProvider, other.name) == 0) known = true;
    if (!known) {
      SetLastError(NTE_KEYSET_NOT_DEF);
      return FALSE;
    }
    if (std::strcmp(szProvider, own_name) != 0) {
      SetLastError(NTE_PROV_TYPE_NO_MATCH);
      return FALSE;
    }
  }
  // Key containers live beside their certificates and open through the
  // certificate's key link, never by name here.
  if ((dwFlags & CRYPT_VERIFYCONTEXT) != CRYPT_VERIFYCONTEXT) {
    SetLastError((dwFlags & CRYPT_NEWKEYSET) != 0 ? NTE_PERM : NTE_BAD_KEYSET);
    return FALSE;
  }
  if ((dwFlags & (CRYPT_NEWKEYSET | CRYPT_DELETEKEYSET)) != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  if (szContainer != nullptr && *szContainer != '\0') {
    SetLastError(NTE_BAD_KEYSET_PARAM);
    return FALSE;
  }
  // The GOST engine is the provider: without it none of the types exists.
  if (bv::ossl::gost_engine() == nullptr) {
    SetLastError(NTE_PROV_DLL_NOT_FOUND);
    return FALSE;
  }
  return bv::platform::out_of_memory_as_error([&] {
    auto provider = std::make_unique<CryptProvider>();
    provider->type = dwProvType;
    *phProv = bv::platform::new_provider_handle(std::move(provider));
    return TRUE;
  });
}

BOOL CryptReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
  if (dwFlags != 0) {
    // The handle is still released, as the platform does, but the caller
    // hears about the flags.
    if (!bv::platform::release_provider_handle(hProv)) return FALSE;
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  return bv::platform::release_provider_handle(hProv) ? TRUE : FALSE;
}

BOOL CryptContextAddRef(HCRYPTPROV hProv, DWORD* pdwReserved, DWORD dwFlags) {
  if (pdwReserved != nullptr || dwFlags != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return bv::platform::add_provider_reference(hProv) ? TRUE : FALSE;
}

BOOL CryptCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash) {
  if (bv::platform::provider_from_handle(hProv) == nullptr) return FALSE;
  if (phHash == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (dwFlags != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  // Keyed hashes (MAC, HMAC) are not offered.
  if (hKey != 0) {
    SetLastError(NTE_BAD_KEY);
    return FALSE;
  }
  const EVP_MD* md = bv::platform::digest_for_algid(Algid);
  if (md == nullptr) {
    SetLastError(NTE_BAD_ALGID);
    return FALSE;
  }
  return bv::platform::out_of_memory_as_error([&]() -> BOOL {
    auto hash = std::make_unique<CryptHash>();
    hash->algid = Algid;
    hash->context.reset(EVP_MD_CTX_new());
    if (hash->context == nullptr) return bv::ossl::fail(NTE_NO_MEMORY);
    // OpenSSL without the algorithm (MD2 in a default OpenSSL 3) fails here.
    if (EVP_DigestInit_ex(hash->context.get(), md, nullptr) != 1) return bv::ossl::fail(NTE_BAD_ALGID);
    if (!bv::platform::add_provider_reference(hProv)) return FALSE;
    hash->provider = hProv;
    *phHash = reinterpret_cast<HCRYPTHASH>(hash.release());
    return TRUE;
  });
}

BOOL CryptHashData(HCRYPTHASH hHash, const BYTE* pbData, DWORD dwDataLen, DWORD dwFlags) {
  CryptHash* hash = bv::platform::hash_from_handle(hHash);
  if (hash == nullptr) return FALSE;
  if (dwFlags != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  if (hash->finished) {
    SetLastError(NTE_BAD_HASH_STATE);
    return FALSE;
  }
  if (dwDataLen != 0 && pbData == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (EVP_DigestUpdate(hash->context.get(), pbData, dwDataLen) != 1) return bv::ossl::fail(NTE_BAD_HASH_STATE);
  return TRUE;
}

BOOL CryptGetHashParam(HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
  CryptHash* hash = bv::platform::hash_from_handle(hHash);
  if (hash == nullptr) return FALSE;
  if (dwFlags != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  switch (dwParam) {
    case HP_ALGID: {
      const DWORD algid = hash->algid;
      return bv::platform::copy_output(&algid, sizeof algid, pbData, pdwDataLen) ? TRUE : FALSE;
    }
    case HP_HASHSIZE: {
      const DWORD size = static_cast<DWORD>(EVP_MD_CTX_get_size(hash->context.get()));
      return bv::platform::copy_output(&size, sizeof size, pbData, pdwDataLen) ? TRUE : FALSE;
    }
    case HP_HASHVAL: {
      // A size query leaves the hash open for more data.
      if (pbData == nullptr && !hash->finished) {
        const DWORD size = static_cast<DWORD>(EVP_MD_CTX_get_size(hash->context.get()));
        return bv::platform::copy_output(nullptr, size, nullptr, pdwDataLen) ? TRUE : FALSE;
      }
      return bv::platform::out_of_memory_as_error([&]() -> BOOL {
        const std::vector<BYTE>* value = bv::platform::finish_hash(*hash);
        if (value == nullptr) return FALSE;
        return bv::platform::copy_output(value->data(), static_cast<DWORD>(value->size()), pbData, pdwDataLen)
                   ? TRUE
                   : FALSE;
      });
    }
    default:
      SetLastError(NTE_BAD_TYPE);
      return FALSE;
  }
}

BOOL CryptDestroyHash(HCRYPTHASH hHash) {
  CryptHash* hash = bv::platform::hash_from_handle(hHash);
  if (hash == nullptr) return FALSE;
  const HCRYPTPROV provider = hash->provider;
  hash->magic = 0;
  delete hash;
  bv::platform::release_provider_handle(provider);
  return TRUE;
}
