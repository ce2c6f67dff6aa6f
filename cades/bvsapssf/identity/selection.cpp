#include "identity/selection.h"

#include <cstdlib>
#include <cstring>
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
}  // namespace

void select_certificate_from_list_if_needed(HCERTSTORE store, char** strSigRcpId, int32_t* strSigRcpIdL) {
  constexpr const char* trace_function = "select_certificate_from_list_if_needed";
  if (*strSigRcpIdL < kSelectMarkerLength || std::strncmp(*strSigRcpId, kSelectMarker, kSelectMarkerLength) != 0)
    return;

  HCERTSTORE memory_store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
  if (memory_store == nullptr) {
    BV_TRACE(TRACE_NORMAL, "#error#: failed to open MEMORY store\n");
    return;
  }

  // Only a copy's context is needed to know that something was offered;
  // each earlier one is freed as the next arrives.
  PCCERT_CONTEXT last_added = nullptr;
  PCCERT_CONTEXT candidate = nullptr;
  bool add_failed = false;
  while ((candidate = CertEnumCertificatesInStore(store, candidate)) != nullptr) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(candidate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) continue;
    DWORD status = 0;
    const int32_t verified = VerifyCertificate(candidate, config.VerifyCertFlagsOnSelect, &status);
    if (!certificate_status_acceptable(verified, status)) continue;
    PCCERT_CONTEXT added = nullptr;
    if (!CertAddCertificateContextToStore(memory_store, candidate, CERT_STORE_ADD_REPLACE_EXISTING, &added)) {
      BV_TRACE(TRACE_NORMAL, "#error#: failed to add certificate to MEMORY store\n");
      CertFreeCertificateContext(candidate);
      add_failed = true;
      break;
    }
    if (last_added != nullptr) CertFreeCertificateContext(last_added);
    last_added = added;
  }

  if (!add_failed) {
    if (last_added == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: there are no valid certificates in selected store\n");
    } else {
      PCCERT_CONTEXT selected = CryptUIDlgSelectCertificateFromStore(memory_store, nullptr, nullptr, nullptr,
                                                                     CRYPTUI_SELECT_LOCATION_COLUMN, 0, nullptr);
      if (selected == nullptr) {
        BV_TRACE(TRACE_NORMAL, "Error: certificate selecting was cancelled by user\n");
      } else {
        DWORD hash_size = 0;
        BYTE* hash = nullptr;
        if (!CertGetCertificateContextProperty(selected, CERT_HASH_PROP_ID, nullptr, &hash_size)) {
          BV_TRACE(TRACE_NORMAL, "Error: CertGetCertificateContextProperty CERT_HASH_PROP_ID failed\n");
        } else if (hash_size == 0 || (hash = static_cast<BYTE*>(std::malloc(hash_size))) == nullptr) {
          BV_TRACE(TRACE_NORMAL, "Error: malloc failed\n");
        } else if (!CertGetCertificateContextProperty(selected, CERT_HASH_PROP_ID, hash, &hash_size)) {
          BV_TRACE(TRACE_NORMAL, "Error: CertGetCertificateContextProperty CERT_HASH_PROP_ID failed\n");
          std::free(hash);
        } else {
          const std::string hash_text = bytes_to_hex_string(hash, static_cast<int32_t>(hash_size));
          std::free(hash);
          if (hash_text.empty()) {
            BV_TRACE(TRACE_NORMAL, "Error: failed to convert cert hash to string on SELECT_SERTIFICATE\n");
          } else {
            char* rewritten = static_cast<char*>(std::realloc(*strSigRcpId, hash_text.size()));
            if (rewritten == nullptr) {
              BV_TRACE(TRACE_NORMAL, "Error: failed to realloc strSigRcpId on SELECT_SERTIFICATE\n");
            } else {
              *strSigRcpId = rewritten;
              std::memcpy(rewritten, hash_text.data(), hash_text.size());
              *strSigRcpIdL = static_cast<int32_t>(hash_text.size());
              BV_TRACE(TRACE_DETAIL, "#trace#: User selected certificate with hash = %s\n", hash_text.c_str());
            }
          }
        }
        CertFreeCertificateContext(selected);
      }
    }
  }

  if (last_added != nullptr) CertFreeCertificateContext(last_added);
  CertCloseStore(memory_store, 0);
}
