// bvstore check: the search the library runs for a signer, done with the
// library's own pieces (its settings, the profile's store, the identity
// reader, the chain policy, the key opening) and told candidate by
// candidate in words, so that a refused signer needs no trace to explain.
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "bvstore.h"
#include "crypt32/chain.h"
#include "crypt32/store.h"
#include "identity/chain_policy.h"
#include "identity/lookup.h"
#include "identity/signer_key.h"
#include "kernel32/kernel32.h"

namespace bvstore {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

std::string subject_of(PCCERT_CONTEXT cert) {
  CERT_NAME_BLOB* name = &cert->pCertInfo->Subject;
  const DWORD length = CertNameToStrA(kEncoding, name, CERT_X500_NAME_STR, nullptr, 0);
  std::string text(length > 0 ? length : 1, '\0');
  CertNameToStrA(kEncoding, name, CERT_X500_NAME_STR, text.data(), length);
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  return text;
}

std::string time_text(const ASN1_TIME* time) {
  bv::ossl::UniquePtr<BIO> out(BIO_new(BIO_s_mem()));
  if (!out || ASN1_TIME_print(out.get(), time) != 1) return "?";
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

// "CN=..." of a certificate, or its whole subject when it has no common name.
std::string short_name_of(PCCERT_CONTEXT cert) {
  char common_name[256] = {};
  X509* x509 = bv::platform::certificate_x509(cert);
  if (x509 != nullptr &&
      X509_NAME_get_text_by_NID(X509_get_subject_name(x509), NID_commonName, common_name, sizeof common_name) > 0)
    return std::string("CN=") + common_name;
  return subject_of(cert);
}

// What one status bit of a chain element means, and what to do about it.
std::string explain_bit(DWORD bit, PCCERT_CONTEXT element, bool is_end) {
  const std::string who = short_name_of(element);
  X509* x509 = bv::platform::certificate_x509(element);
  switch (bit) {
    case CERT_TRUST_IS_NOT_TIME_VALID:
      return "not valid now: " + who + " is valid from " + time_text(X509_get0_notBefore(x509)) + " to " +
             time_text(X509_get0_notAfter(x509));
    case CERT_TRUST_IS_REVOKED:
      return "revoked: " + who + " is listed by its issuer's CRL or OCSP responder";
    case CERT_TRUST_IS_NOT_SIGNATURE_VALID:
      return "bad signature: " + who + " does not verify with its issuer's key";
    case CERT_TRUST_IS_NOT_VALID_FOR_USAGE:
      return "not for this use: " + who + " lacks the extended key usage asked for";
    case CERT_TRUST_IS_UNTRUSTED_ROOT:
      return "untrusted root: " + who + " is in no Root store — import it with `bvstore import -m Root root.cer`";
    case CERT_TRUST_REVOCATION_STATUS_UNKNOWN:
      return "revocation status unknown: no CRL or OCSP answer for " + who + " — import " +
             (is_end ? "its CA's" : "the issuing CA's") +
             " CRL with `bvstore import -m CA file.crl` or make its distribution point reachable";
    case CERT_TRUST_IS_OFFLINE_REVOCATION:
      return "revocation sources offline: the distribution point or OCSP responder named in " + who +
             " did not answer (network, proxy: see docs/revocation.md)";
    case CERT_TRUST_IS_PARTIAL_CHAIN:
      return "no issuer found above " + who +
             " — import its issuer's certificate: a root with `bvstore import -m Root root.cer`, an intermediate "
             "CA with `bvstore import -m CA ca.cer`";
    case CERT_TRUST_IS_CYCLIC:
      return "the chain loops at " + who;
    case CERT_TRUST_INVALID_BASIC_CONSTRAINTS:
      return "not a CA: " + who + " may not issue certificates, or its path length is exceeded";
    case CERT_TRUST_IS_EXPLICIT_DISTRUST:
      return "distrusted: " + who + " is in a Disallowed store";
    case CERT_TRUST_INVALID_EXTENSION:
    case CERT_TRUST_HAS_NOT_SUPPORTED_CRITICAL_EXT:
      return "unsupported critical extension in " + who;
    default: {
      char text[64];
      std::snprintf(text, sizeof text, "status bit 0x%x for ", bit);
      return text + who + " (name constraints or policy)";
    }
  }
}

// The chain as the policy builds it, each element's bits in words.  True
// when the policy accepts it.
bool explain_chain(PCCERT_CONTEXT cert) {
  if (config.VerifyCertOnSign == 0) {
    std::printf("  chain: not checked (VerifyCertOnSign is off)\n");
    return true;
  }
  CERT_CHAIN_PARA para{};
  para.cbSize = sizeof para;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  if (!CertGetCertificateChain(nullptr, cert, nullptr, nullptr, &para, config.VerifyCertFlagsOnSelect, nullptr,
                               &chain)) {
    std::printf("  chain: could not be built (error 0x%x): refused\n", GetLastError());
    return false;
  }
  const DWORD status = chain->TrustStatus.dwErrorStatus;
  const bool accepted = certificate_status_acceptable(0, status);
  if (status == 0) {
    std::printf("  chain: good (%u certificates up to a trusted root)\n", chain->rgpChain[0]->cElement);
  } else {
    std::printf("  chain: status 0x%x, %s\n", status,
                accepted ? "accepted by AcceptableCertStatus" : "refused by the chain policy");
    const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
    DWORD explained = 0;
    for (DWORD i = 0; i < simple->cElement; ++i) {
      const CERT_CHAIN_ELEMENT* element = simple->rgpElement[i];
      DWORD bits = element->TrustStatus.dwErrorStatus;
      // The offline bit comes with "unknown": said once, as the cause.
      if (bits & CERT_TRUST_IS_OFFLINE_REVOCATION) bits &= ~CERT_TRUST_REVOCATION_STATUS_UNKNOWN;
      for (DWORD bit = 1; bit != 0; bit <<= 1)
        if (bits & bit) std::printf("    - %s\n", explain_bit(bit, element->pCertContext, i == 0).c_str());
      explained |= element->TrustStatus.dwErrorStatus;
    }
    if (status & ~explained & CERT_TRUST_IS_PARTIAL_CHAIN) {
      const CERT_CHAIN_ELEMENT* top = simple->rgpElement[simple->cElement - 1];
      std::printf("    - %s\n", explain_bit(CERT_TRUST_IS_PARTIAL_CHAIN, top->pCertContext, false).c_str());
    }
  }
  CertFreeCertificateChain(chain);
  return accepted;
}

// The key beside the certificate and, with a PIN, whether it opens.
bool explain_key(PCCERT_CONTEXT cert, const bv::cli::RecordArgument& record) {
  const bv::platform::ParsedCertificate* parsed = bv::platform::parsed_certificate(cert);
  if (parsed == nullptr || parsed->key_file.empty()) {
    std::printf("  key: none — no .key file beside %s\n",
                parsed != nullptr ? parsed->file.c_str() : "the certificate");
    return false;
  }
  std::printf("  key: %s\n", parsed->key_file.c_str());
  if (record.pin.empty()) {
    std::printf("  PIN: not tested (give ID:PROFILE:PIN to test it)\n");
    return true;
  }
  SsfInfo info{};
  std::string pin = record.pin;
  info.Password = pin.data();
  info.PasswordL = static_cast<int32_t>(pin.size());
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  const KeyOpen opened = open_certificate_key("check", cert, &info, 1, &provider, &key_spec);
  SecureZeroMemory(pin.data(), pin.size());
  switch (opened) {
    case KeyOpen::Opened:
      std::printf("  PIN: right, the key opens and is the certificate's\n");
      return true;
    case KeyOpen::PinRefused:
      std::printf("  PIN: wrong, the key file does not open with it\n");
      return false;
    default:
      std::printf("  key: refused (error 0x%x): not a key of this certificate, or unreadable\n", GetLastError());
      return false;
  }
}

}  // namespace

int run_check(const std::string& record_text) {
  const bv::cli::RecordArgument record = bv::cli::parse_record(record_text);
  std::printf("Signer %s, profile %s, %s\n", record.id.c_str(),
              record.profile.empty() ? "(none: the default store)" : ("\"" + record.profile + "\"").c_str(),
              record.pin.empty() ? "no PIN given" : "PIN given");
  std::printf("Settings: chain checked when signing: %s (flags 0x%x, acceptable status 0x%x)\n",
              config.VerifyCertOnSign != 0 ? "yes" : "no", config.VerifyCertFlagsOnSelect,
              config.AcceptableCertStatus);

  const bv::platform::CertStore store =
      open_profile_store(record.profile.data(), static_cast<int32_t>(record.profile.size()), ProfileStoreUse::Sign);
  if (!store) {
    std::error_code ignored;
    std::printf("Store: the store the profile names does not exist.  The stores there are:\n");
    for (DWORD location : {CERT_SYSTEM_STORE_CURRENT_USER, CERT_SYSTEM_STORE_LOCAL_MACHINE}) {
      const std::string root = bv::platform::system_store_root(location);
      std::vector<std::string> names;
      for (const auto& entry : std::filesystem::directory_iterator(root, std::filesystem::directory_options::skip_permission_denied, ignored))
        if (entry.is_directory()) names.push_back(entry.path().filename().string());
      std::sort(names.begin(), names.end());
      std::string line;
      for (const std::string& name : names) line += " " + name;
      std::printf("  %s:%s\n", root.c_str(), line.empty() ? " (none)" : line.c_str());
    }
    std::printf("Refused: no store (the profile's store rule: docs/stores-and-keys.md).\n");
    return bv::cli::kRefused;
  }
  std::printf("Store: %s\n", bv::platform::store_folder(store.get()).c_str());

  SharedHash hash;
  IdentityMatches matches;
  if (!matches.read(record.id.data(), static_cast<int32_t>(record.id.size()), &hash.blob)) {
    std::printf("Refused: the identity is neither a SHA-1 hash (40 hex digits) nor a distinguished name the "
                "library reads.\n");
    return bv::cli::kRefused;
  }

  SsfInfo scratch{};  // the reader notes unreadable subjects in it
  bv::platform::CertContext cert;
  int candidates = 0, chosen = 0;
  while (matches.next(store.get(), "check", &scratch, cert)) {
    ++candidates;
    X509* x509 = bv::platform::certificate_x509(cert.get());
    const bv::platform::ParsedCertificate* parsed = bv::platform::parsed_certificate(cert.get());
    std::printf("Candidate %d: %s\n  hash %s, file %s\n  valid from %s to %s\n", candidates,
                subject_of(cert.get()).c_str(), certificate_hash(x509).c_str(),
                parsed != nullptr ? parsed->file.c_str() : "?", time_text(X509_get0_notBefore(x509)).c_str(),
                time_text(X509_get0_notAfter(x509)).c_str());
    const bool chain_ok = explain_chain(cert.get());
    const bool key_ok = chain_ok && explain_key(cert.get(), record);
    if (chain_ok && key_ok && chosen == 0) {
      chosen = candidates;
      std::printf("  => the library signs with this certificate\n");
    } else if (chain_ok && key_ok) {
      std::printf("  => would serve too, but an earlier candidate comes first\n");
    } else if (!chain_ok) {
      std::printf("  => passed over: the chain policy refuses it\n");
    } else if (!key_ok) {
      std::printf("  => passed over: no usable key\n");
    }
  }
  if (candidates == 0) {
    std::printf("Refused: no certificate in this store matches the identity.\n");
    return bv::cli::kRefused;
  }
  if (chosen == 0) {
    std::printf("Refused: none of the %d candidates passes.\n", candidates);
    return bv::cli::kRefused;
  }
  std::printf("OK: candidate %d signs.\n", chosen);
  return bv::cli::kDone;
}

}  // namespace bvstore
