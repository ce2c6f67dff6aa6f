#include "advapi32/provider_handle.h"

#include "checked_handle.h"
#include "kernel32/kernel32.h"

namespace bv::platform {

HCRYPTPROV new_provider_handle(std::unique_ptr<CryptProvider> provider) {
  return reinterpret_cast<HCRYPTPROV>(provider.release());
}

CryptProvider* provider_from_handle(HCRYPTPROV handle) { return checked_object<CryptProvider>(handle, NTE_BAD_UID); }

bool add_provider_reference(HCRYPTPROV handle) {
  CryptProvider* provider = provider_from_handle(handle);
  if (provider == nullptr) return false;
  provider->references.fetch_add(1);
  return true;
}

bool release_provider_handle(HCRYPTPROV handle) {
  CryptProvider* provider = provider_from_handle(handle);
  if (provider == nullptr) return false;
  if (provider->references.fetch_sub(1) == 1) {
    provider->magic = 0;  // a later use of the freed handle is caught, not followed
    SecureZeroMemory(provider->pin.data(), provider->pin.size());
    delete provider;
  }
  return true;
}

}  // namespace bv::platform
