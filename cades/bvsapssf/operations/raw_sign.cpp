#include "operations/raw_sign.h"

#include <cstdlib>
#include <utility>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/cert.h"
#include "crypt32/oidinfo.h"
#include "kernel32/kernel32.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";
}  // namespace

bool calc_simple_sign(HCRYPTPROV hProv, const char* hashOid, DWORD keySpec, const unsigned char* data,
                      int32_t dataLen, unsigned char** out, uint32_t* outLen) {
  constexpr const char* trace_function = "calc_simple_sign";
  *outLen = 0;
  ALG_ID hash_algid = CALG_GR3411;
  if (hashOid != nullptr) {
    PCCRYPT_OID_INFO info =
        CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, const_cast<char*>(hashOid), CRYPT_HASH_ALG_OID_GROUP_ID);
    if (info == nullptr) {
      SetLastError(CRYPT_E_UNKNOWN_ALGO);
      BV_TRACE(TRACE_NORMAL, "#error# CryptFindOIDInfo %s  FAILED.\n", hashOid);
      return false;
    }
    hash_algid = info->Algid;
  }

  HCRYPTHASH hash = 0;
  if (!CryptCreateHash(hProv, hash_algid, 0, 0, &hash)) {
    BV_TRACE(TRACE_NORMAL, "#error# CryptCreateHash for algid = %d  FAILED.\n", static_cast<int>(hash_algid));
    return false;
  }
  // Each failure below keeps the cause across the release and the trace.
  const auto fail_with = [&](const char* line, unsigned char* buffer_to_free) {
    const DWORD error = GetLastError();
    CryptDestroyHash(hash);
    std::free(buffer_to_free);
    BV_TRACE(TRACE_NORMAL, "%s", line);
    SetLastError(error);
    return false;
  };

  if (!CryptHashData(hash, data, static_cast<DWORD>(dataLen), 0)) return fail_with("#error# CryptHashData.\n", nullptr);

  DWORD signature_length = 0;
  if (!CryptSignHashA(hash, keySpec, nullptr, 0, nullptr, &signature_length))
    return fail_with("#error# CryptSignHash FAILED.\n", nullptr);

  auto* signature = static_cast<unsigned char*>(std::malloc(signature_length));
  if (signature == nullptr) {
    const DWORD error = GetLastError();
    CryptDestroyHash(hash);
    BV_TRACE(TRACE_NORMAL, "#error# Failed to allocate memory (%d) for signature.\n",
             static_cast<int>(signature_length));
    SetLastError(error);
    return false;
  }
  if (!CryptSignHashA(hash, keySpec, nullptr, 0, signature, &signature_length))
    return fail_with("#error# CryptSignHash FAILED.\n", signature);

  *out = signature;
  *outLen = signature_length;
  CryptDestroyHash(hash);
  return true;
}

void reverse_bytes(unsigned char* buffer, uint32_t length) {
  for (uint32_t i = 0; i < length / 2; ++i) std::swap(buffer[i], buffer[length - 1 - i]);
}
