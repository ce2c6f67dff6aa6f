// The private key of a certificate: found through the key provider
// information of its context (by default the key link beside the
// certificate), opened with the PIN that information carries or that the
// user gives, and proven to belong to the certificate.
#include <algorithm>
#include <cstring>
#include <string>

#include "advapi32/provider_handle.h"
#include "crypt32/key_cache.h"
#include "crypt32/keys.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"
#include "terminal/terminal.h"

namespace bv::platform {
namespace {

// The PIN among the provider parameters, up to its terminator.
bool pin_of(const KeyProvInfo& info, std::string& pin) {
  for (const auto& param : info.params) {
    if ((param.dwParam == PP_KEYEXCHANGE_PIN || param.dwParam == PP_SIGNATURE_PIN) && param.has_data) {
      const auto* text = reinterpret_cast<const char*>(param.data.data());
      pin.assign(text, strnlen(text, param.data.size()));
      return true;
    }
  }
  return false;
}

void wipe(std::string& secret) { SecureZeroMemory(secret.data(), secret.size()); }

}  // namespace
}  // namespace bv::platform

using namespace bv::platform;

BOOL CryptAcquireCertificatePrivateKey(PCCERT_CONTEXT pCert, DWORD dwFlags, void* /*pvParameters*/,
                                       HCRYPTPROV_OR_NCRYPT_KEY_HANDLE* phCryptProvOrNCryptKey, DWORD* pdwKeySpec,
                                       BOOL* pfCallerFreeProvOrNCryptKey) {
  CertElement* element = element_from_context(pCert);
  if (element == nullptr || phCryptProvOrNCryptKey == nullptr) {
    SetLastError(E_INVALIDARG);
    return FALSE;
  }
  const bool cache = (dwFlags & CRYPT_ACQUIRE_CACHE_FLAG) != 0;

  // 1. A key this context already holds.
  if (cache) {
    std::lock_guard<std::mutex> lock(element->mutex);
    if (element->cached_provider != 0) {
      *phCryptProvOrNCryptKey = element->cached_provider;
      if (pdwKeySpec != nullptr) *pdwKeySpec = element->cached_key_spec;
      if (pfCallerFreeProvOrNCryptKey != nullptr) *pfCallerFreeProvOrNCryptKey = FALSE;
      return TRUE;
    }
  }

  // 2. Where the key is and which PIN comes with it.
  KeyProvInfo info;
  if (!effective_key_prov_info(*element, info)) {
    SetLastError(CRYPT_E_NO_KEY_PROPERTY);
    return FALSE;
  }
  const std::string key_path = utf8_of(info.container.c_str());
  std::string pin;
  bool pin_given = pin_of(info, pin);
  wipe_key_prov_info(info);

  // 3. Open the container.  A wrong PIN still gives a handle, as a provider
  // does; the key then is not open and parameter 109 says so.
  // A key this process opened from the same file with the same PIN comes
  // from the key cache; anything else is read.
  key_cache::FileIdentity file;
  const bool identified = key_cache::identity_of(key_path, file);
  bv::ossl::UniquePtr<EVP_PKEY> key =
      identified ? key_cache::find(file, pin_given ? &pin : nullptr, X509_get0_pubkey(element->parsed->x509.get()))
                 : nullptr;
  KeyFileResult opened = KeyFileResult::kOpened;
  if (!key) {
    opened = read_key_file(key_path, pin_given ? &pin : nullptr, key);
    if (opened == KeyFileResult::kNeedsPin && !(dwFlags & CRYPT_ACQUIRE_SILENT_FLAG)) {
      if (!ask_pin("PIN for key container " + key_path + ": ", pin)) {
        wipe(pin);
        return FALSE;  // ask_pin set the last error
      }
      pin_given = true;
      opened = read_key_file(key_path, &pin, key);
    }
    if (opened == KeyFileResult::kOpened && identified) key_cache::keep(file, pin_given ? &pin : nullptr, key.get());
  }
  if (opened == KeyFileResult::kUnreadable) {
    wipe(pin);
    SetLastError(NTE_BAD_KEYSET);
    return FALSE;
  }

  // 4. The key must be the certificate's.
  if (key && !key_matches_certificate(key.get(), element->parsed->x509.get())) {
    if (dwFlags & CRYPT_ACQUIRE_COMPARE_KEY_FLAG) {
      wipe(pin);
      SetLastError(NTE_BAD_PUBLIC_KEY);
      return FALSE;
    }
    key.reset();
  }

  auto provider = std::make_unique<CryptProvider>();
  provider->type = info.dwProvType != 0 ? info.dwProvType : provider_type_for_key(element->parsed->key_oid);
  provider->container = key_path;
  provider->key = std::move(key);
  provider->pin = pin;
  wipe(pin);
  X509_up_ref(element->parsed->x509.get());
  provider->certificate.reset(element->parsed->x509.get());
  const HCRYPTPROV handle = new_provider_handle(std::move(provider));
  const DWORD key_spec = info.dwKeySpec != 0 ? info.dwKeySpec : AT_KEYEXCHANGE;

  // 5. With the cache flag the handle goes with the context.
  if (cache) {
    std::lock_guard<std::mutex> lock(element->mutex);
    if (element->cached_provider != 0) element->retired_providers.push_back(element->cached_provider);
    element->cached_provider = handle;
    element->cached_key_spec = key_spec;
  }
  *phCryptProvOrNCryptKey = handle;
  if (pdwKeySpec != nullptr) *pdwKeySpec = key_spec;
  if (pfCallerFreeProvOrNCryptKey != nullptr) *pfCallerFreeProvOrNCryptKey = cache ? FALSE : TRUE;
  return TRUE;
}
