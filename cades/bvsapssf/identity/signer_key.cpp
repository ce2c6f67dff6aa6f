#include "identity/signer_key.h"

#include <memory>
#include <string>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "bvsapssf.h"
#include "frame.h"
#include "identity/hash_oid.h"
#include "kernel32/kernel32.h"
#include "reporter.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";

constexpr DWORD kKeyExchangePinParam = 32;        // PP_KEYEXCHANGE_PIN
constexpr DWORD kKeyOpenedParam = 109;            // answered only by an opened container
constexpr DWORD kAcquireExplicitPin = 0x45;       // cache, compare key, silent
constexpr DWORD kAcquireProviderMayAsk = 0x05;    // cache, compare key
constexpr DWORD kInhibitPersist = 0x40000000;     // CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG
constexpr int32_t kUnknownSignatureAlgorithm = 0x200001F6;

void trace_key_refused(const char* trace_function, KeyLines lines, const char* what) {
  const DWORD error = GetLastError();
  if (lines == KeyLines::Info)
    BV_TRACE(TRACE_NORMAL, "#info# %s. Trying to search another certificate. %08x\n", what, error);
  else
    BV_TRACE(TRACE_DETAIL, "#trace# %s. Trying to search another certificate. %08x\n", what, error);
}
}  // namespace

void free_signer_certs(SignerCertList& certs) {
  for (PCCERT_CONTEXT cert : certs)
    if (cert != nullptr) CertFreeCertificateContext(cert);
  certs.clear();
}

int32_t IsPinExplicit(const SsfInfo& info) {
  const int32_t pin_length = bv::frame::field_length(info.Password, info.PasswordL);
  if (pin_length >= 1 && pin_length <= 3 && info.Password[0] == '!') return 0;
  if (pin_length == 0) return config.globalAskPinWhenEmpty ? 0 : 1;
  return 1;
}

KeyOpen open_certificate_key(const char* trace_function, PCCERT_CONTEXT cert, SsfInfo* info, int32_t pin_explicit,
                             HCRYPTPROV* provider, DWORD* key_spec, KeyLines lines) {
  DWORD prov_info_size = 0;
  if (!CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &prov_info_size)) {
    BV_TRACE(TRACE_DETAIL,
             "#trace# Can not CertGetCertificateContextProperty. Trying to search another certificate.\n");
    return KeyOpen::NoKeyHere;
  }
  // Aligned for the record the property holds.
  auto prov_info_buffer = std::make_unique<uint64_t[]>(prov_info_size / sizeof(uint64_t) + 1);
  if (!CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, prov_info_buffer.get(),
                                         &prov_info_size)) {
    BV_TRACE(TRACE_DETAIL,
             "#trace# Can not CertGetCertificateContextProperty. Trying to search another certificate.\n");
    return KeyOpen::NoKeyHere;
  }

  // A negative length is a PIN no text can have: the call ends here.
  const int32_t pin_length = bv::frame::field_length(info->Password, info->PasswordL);
  if (pin_length < 0) return KeyOpen::CallEnds;
  // The terminated copy the provider parameter needs, zeroed when it goes.
  struct PinCopy {
    std::string text;
    ~PinCopy() { SecureZeroMemory(text.data(), text.size()); }
  } pin{pin_length == 0 ? std::string() : std::string(info->Password, static_cast<size_t>(pin_length))};
  CRYPT_KEY_PROV_PARAM pin_param{};
  pin_param.dwParam = kKeyExchangePinParam;
  if (pin_explicit == 1 && pin_length > 0) {
    pin_param.pbData = reinterpret_cast<BYTE*>(const_cast<char*>(pin.text.c_str()));
    pin_param.cbData = static_cast<DWORD>(pin_length) + 1;
  }
  pin_param.dwFlags = 0;
  auto* prov_info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(prov_info_buffer.get());
  prov_info->cProvParam = 1;
  prov_info->rgProvParam = &pin_param;

  if (!CertSetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, kInhibitPersist, prov_info)) {
    BV_TRACE(TRACE_DETAIL,
             "#trace# Can not CertSetCertificateContextProperty. Trying to search another certificate. %08x\n",
             GetLastError());
    return KeyOpen::NoKeyHere;
  }

  const DWORD acquire_flags = pin_explicit == 1 ? kAcquireExplicitPin : kAcquireProviderMayAsk;
  BOOL caller_free = FALSE;
  if (!CryptAcquireCertificatePrivateKey(cert, acquire_flags, nullptr, provider, key_spec, &caller_free)) {
    info->Result = SSF_RES_INVALID_PROFILE;
    return KeyOpen::NotAcquired;
  }

  // The acquisition alone doesn't prove the PIN: only an opened container
  // answers this parameter.
  BYTE opened[8];
  DWORD opened_size = sizeof(opened);
  if (!CryptGetProvParam(*provider, kKeyOpenedParam, opened, &opened_size, 0)) {
    info->Result = SSF_RES_INVALID_PASSWORD;
    trace_key_refused(trace_function, lines, "Can not Acquire Private Key with supplied pin code");
    return KeyOpen::PinRefused;
  }
  return KeyOpen::Opened;
}

SearchStep acquire_signer_key(const char* trace_function, PCCERT_CONTEXT cert, SsfInfo* info,
                              CMSG_SIGNER_ENCODE_INFO* encode, SignerCertList& certs, KeyLines lines) {
  const int32_t pin_explicit = IsPinExplicit(*info);
  BV_TRACE(TRACE_DETAIL, "#trace# Explicit pin code? IsPinExplicit = %d.\n", pin_explicit);
  switch (open_certificate_key(trace_function, cert, info, pin_explicit, &encode->hCryptProv, &encode->dwKeySpec,
                               lines)) {
    case KeyOpen::Opened:
      break;
    case KeyOpen::CallEnds:
      return SearchStep::CallEnds;
    case KeyOpen::NotAcquired:
      trace_key_refused(trace_function, lines, "Can not AcquireCertificatePrivateKey");
      return SearchStep::NotFound;
    case KeyOpen::NoKeyHere:
    case KeyOpen::PinRefused:
      return SearchStep::NotFound;
  }
  BV_TRACE(TRACE_DETAIL, "#trace# Private Key successfully acquired.\n");

  encode->HashAlgorithm.pszObjId = nullptr;
  PCCRYPT_OID_INFO hash_info = find_hash_oid_info(cert->pCertInfo->SubjectPublicKeyInfo.Algorithm.pszObjId);
  if (hash_info == nullptr) {
    BV_TRACE(TRACE_NORMAL, "#error#: %08x\n", GetLastError());
    ReportError(trace_file, __LINE__, kUnknownSignatureAlgorithm);
    info->Result = SSF_RES_NOT_OK;
    return SearchStep::NotFound;
  }
  encode->HashAlgorithm.pszObjId = const_cast<LPSTR>(hash_info->pszOID);
  BV_TRACE(TRACE_DETAIL, "#trace# Using hash alg = %s.\n", hash_info->pszOID);
  encode->HashAlgorithm.Parameters.cbData = 0;

  certs.push_back(cert);
  encode->pCertInfo = cert->pCertInfo;
  encode->cAuthAttr = 0;
  encode->cUnauthAttr = 0;
  return SearchStep::Found;
}
