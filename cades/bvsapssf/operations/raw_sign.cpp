#include "operations/raw_sign.h"

#include <cstdlib>
#include <utility>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/cert.h"
#include "operations/digest.h"
#include "kernel32/kernel32.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";
}  // namespace

bool calc_simple_sign(HCRYPTPROV hProv, const char* hashOid, DWORD keySpec, const unsigned char* data,
                      int32_t dataLen, unsigned char** out, uint32_t* outLen) {
  constexpr const char* trace_function = "calc_simple_sign";
  *outLen = 0;
  bv::platform::HashObject hash;
  if (!create_hash_for_oid(trace_function, hProv, hashOid, hash)) return false;
  // Each failure below keeps the cause across the release and the trace.
  const auto fail_with = [&](const char* line, unsigned char* buffer_to_free) {
    const DWORD error = GetLastError();
    hash.reset();
    std::free(buffer_to_free);
    BV_TRACE(TRACE_NORMAL, "%s", line);
    SetLastError(error);
    return false;
  };

  if (!CryptHashData(hash.get(), data, static_cast<DWORD>(dataLen), 0)) return fail_with("#error# CryptHashData.\n", nullptr);

  DWORD signature_length = 0;
  if (!CryptSignHashA(hash.get(), keySpec, nullptr, 0, nullptr, &signature_length))
    return fail_with("#error# CryptSignHash FAILED.\n", nullptr);

  auto* signature = static_cast<unsigned char*>(std::malloc(signature_length));
  if (signature == nullptr) {
    const DWORD error = GetLastError();
    hash.reset();
    BV_TRACE(TRACE_NORMAL, "#error# Failed to allocate memory (%d) for signature.\n",
             static_cast<int>(signature_length));
    SetLastError(error);
    return false;
  }
  if (!CryptSignHashA(hash.get(), keySpec, nullptr, 0, signature, &signature_length))
    return fail_with("#error# CryptSignHash FAILED.\n", signature);

  *out = signature;
  *outLen = signature_length;
  hash.reset();
  return true;
}

void reverse_bytes(unsigned char* buffer, uint32_t length) {
  for (uint32_t i = 0; i < length / 2; ++i) std::swap(buffer[i], buffer[length - 1 - i]);
}
