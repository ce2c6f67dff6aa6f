#include "identity/selection.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "bvsapssf.h"
#include "cryptui/cryptui.h"
#include "identity/chain_policy.h"
#include "identity/identity.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";
constexpr char kSelectMarker[] = "$SELECT_CERTIFICATE$";
constexpr int32_t kSelectMarkerLength = 20;

// The next certificate of the store; the one it is handed goes back.
bool enum_next(HCERTSTORE store, bv::platform::CertContext& cert) {
  cert.reset(CertEnumCertificatesInStore(store, cert.release()));
  return static_cast<bool>(cert);
}
}  // namespace

void select_certificate_from_list_if_needed(HCERTSTORE store, char** strSigRcpId, int32_t* strSigRcpIdL) {
  constexpr const char* trace_function = "select_certificate_from_list_if_needed";
  if (*strSigRcpIdL < kSelectMarkerLength || std::strncmp(*strSigRcpId, kSelectMarker, kSelectMarkerLength) != 0)
    return;

  const bv::platform::CertStore memory_store(
      CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
  if (!memory_store) {
    BV_TRACE(TRACE_NORMAL, "#error#: failed to open MEMORY store\n");
    return;
  }

  // Only a copy's context is needed to know that something was offered;
  // each earlier one is freed as the next arrives.
  bv::platform::CertContext last_added;
  bv::platform::CertContext candidate;
  while (enum_next(store, candidate)) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(candidate.get(), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) continue;
    DWORD status = 0;
    const int32_t verified = VerifyCertificate(candidate.get(), config.VerifyCertFlagsOnSelect, &status);
    if (!certificate_status_acceptable(verified, status)) continue;
    PCCERT_CONTEXT added = nullptr;
    if (!CertAddCertificateContextToStore(memory_store.get(), candidate.get(), CERT_STORE_ADD_REPLACE_EXISTING,
                                          &added)) {
      BV_TRACE(TRACE_NORMAL, "#error#: failed to add certificate to MEMORY store\n");
      return;
    }
    last_added.reset(added);
  }

  if (!last_added) {
    BV_TRACE(TRACE_NORMAL, "#error#: there are no valid certificates in selected store\n");
    return;
  }
  const bv::platform::CertContext selected(CryptUIDlgSelectCertificateFromStore(
      memory_store.get(), nullptr, nullptr, nullptr, CRYPTUI_SELECT_LOCATION_COLUMN, 0, nullptr));
  if (!selected) {
    BV_TRACE(TRACE_NORMAL, "Error: certificate selecting was cancelled by user\n");
    return;
  }
  DWORD hash_size = 0;
  if (!CertGetCertificateContextProperty(selected.get(), CERT_HASH_PROP_ID, nullptr, &hash_size)) {
    BV_TRACE(TRACE_NORMAL, "Error: CertGetCertificateContextProperty CERT_HASH_PROP_ID failed\n");
    return;
  }
  const std::unique_ptr<BYTE, decltype(&std::free)> hash(
      static_cast<BYTE*>(hash_size > 0 ? std::malloc(hash_size) : nullptr), &std::free);
  if (hash == nullptr) {
    BV_TRACE(TRACE_NORMAL, "Error: malloc failed\n");
    return;
  }
  if (!CertGetCertificateContextProperty(selected.get(), CERT_HASH_PROP_ID, hash.get(), &hash_size)) {
    BV_TRACE(TRACE_NORMAL, "Error: CertGetCertificateContextProperty CERT_HASH_PROP_ID failed\n");
    return;
  }
  const std::string hash_text = bytes_to_hex_string(hash.get(), static_cast<int32_t>(hash_size));
  if (hash_text.empty()) {
    BV_TRACE(TRACE_NORMAL, "Error: failed to convert cert hash to string on SELECT_SERTIFICATE\n");
    return;
  }
  char* rewritten = static_cast<char*>(std::realloc(*strSigRcpId, hash_text.size()));
  if (rewritten == nullptr) {
    BV_TRACE(TRACE_NORMAL, "Error: failed to realloc strSigRcpId on SELECT_SERTIFICATE\n");
    return;
  }
  *strSigRcpId = rewritten;
  std::memcpy(rewritten, hash_text.data(), hash_text.size());
  *strSigRcpIdL = static_cast<int32_t>(hash_text.size());
  BV_TRACE(TRACE_DETAIL, "#trace#: User selected certificate with hash = %s\n", hash_text.c_str());
}
