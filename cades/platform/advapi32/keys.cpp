#include "advapi32/keys.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "advapi32/provider_handle.h"
#include "advapi32/provider_internal.h"
#include "kernel32/kernel32.h"
#include "output_space.h"

namespace {

using bv::platform::copy_output;

// Why a container's key is not open: no container at all, no PIN where the
// caller forbade asking, or a PIN that did not open it.
DWORD closed_key_error(const bv::platform::CryptProvider& provider) {
  if (provider.container.empty()) return NTE_BAD_KEYSET;
  if (provider.pin.empty()) return NTE_SILENT_CONTEXT;
  return SCARD_W_WRONG_CHV;
}

}  // namespace

BOOL CryptGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD /*dwFlags*/) {
  bv::platform::CryptProvider* provider = bv::platform::provider_from_handle(hProv);
  if (provider == nullptr) return FALSE;
  if (pdwDataLen == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  switch (dwParam) {
    case PP_KEY_OPENED: {
      if (!provider->key) {
        SetLastError(closed_key_error(*provider));
        return FALSE;
      }
      // What the value holds is not used by callers: the provider type and
      // the key's size in bits.
      const DWORD value[2] = {provider->type, static_cast<DWORD>(EVP_PKEY_get_bits(provider->key.get()))};
      return copy_output(value, sizeof value, pbData, pdwDataLen) ? TRUE : FALSE;
    }
    case PP_NAME: {
      const char* name = bv::platform::provider_name(provider->type);
      const std::string text = name != nullptr ? name : "";
      return copy_output(text.c_str(), static_cast<DWORD>(text.size() + 1), pbData, pdwDataLen) ? TRUE : FALSE;
    }
    case PP_CONTAINER:
      return copy_output(provider->container.c_str(), static_cast<DWORD>(provider->container.size() + 1), pbData,
                         pdwDataLen)
                 ? TRUE
                 : FALSE;
    case PP_PROVTYPE:
      return copy_output(&provider->type, sizeof provider->type, pbData, pdwDataLen) ? TRUE : FALSE;
    default:
      SetLastError(NTE_BAD_TYPE);
      return FALSE;
  }
}

BOOL CryptSignHashA(HCRYPTHASH hHash, DWORD /*dwKeySpec*/, LPCSTR /*szDescription*/, DWORD dwFlags,
                    BYTE* pbSignature, DWORD* pdwSigLen) {
  bv::platform::CryptHash* hash = bv::platform::hash_from_handle(hHash);
  if (hash == nullptr) return FALSE;
  if (pdwSigLen == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (dwFlags != 0) {
    SetLastError(NTE_BAD_FLAGS);
    return FALSE;
  }
  bv::platform::CryptProvider* provider = bv::platform::provider_from_handle(hash->provider);
  if (provider == nullptr) return FALSE;
  if (!provider->key) {
    SetLastError(provider->container.empty() ? NTE_NO_KEY : closed_key_error(*provider));
    return FALSE;
  }
  const size_t size = static_cast<size_t>(EVP_PKEY_get_size(provider->key.get()));
  if (pbSignature == nullptr) {
    *pdwSigLen = static_cast<DWORD>(size);
    return TRUE;
  }
  if (*pdwSigLen < size) {
    *pdwSigLen = static_cast<DWORD>(size);
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  const std::vector<BYTE>* value = bv::platform::finish_hash(*hash);
  if (value == nullptr) return FALSE;
  // A GOST key signs a hash of its own size: 32 bytes, 64 for a 512-bit key.
  if (value->size() * 2 != size) {
    SetLastError(NTE_BAD_ALGID);
    return FALSE;
  }
  bv::ossl::UniquePtr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(provider->key.get(), nullptr));
  size_t length = size;
  std::vector<BYTE> signature(size);
  if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
      EVP_PKEY_sign(context.get(), signature.data(), &length, value->data(), value->size()) != 1) {
    return bv::ossl::fail(NTE_BAD_SIGNATURE) ? TRUE : FALSE;
  }
  // OpenSSL gives the order of CMS and X.509; the platform's providers the
  // reverse of it.
  std::reverse(signature.begin(), signature.begin() + static_cast<long>(length));
  std::memcpy(pbSignature, signature.data(), length);
  *pdwSigLen = static_cast<DWORD>(length);
  return TRUE;
}
