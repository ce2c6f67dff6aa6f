#include "cadesmsg/evidence.h"

#include <filesystem>
#include <memory>
#include <utility>

#include "crypt32/chain.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"

namespace bv::cades {

namespace {

using bv::platform::revocation::Verdict;

struct ChainFreer {
  void operator()(const CERT_CHAIN_CONTEXT* chain) const noexcept { CertFreeCertificateChain(chain); }
};

using bv::ossl::fail;

DWORD path_error(DWORD status) {
  if ((status & (CERT_TRUST_IS_UNTRUSTED_ROOT | CERT_TRUST_IS_PARTIAL_CHAIN)) != 0) return CERT_E_UNTRUSTEDROOT;
  if ((status & CERT_TRUST_IS_NOT_TIME_VALID) != 0) return CERT_E_EXPIRED;
  return CERT_E_CHAINING;
}

}  // namespace

std::string digest_of(const EVP_MD* md, std::string_view data) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (md == nullptr || EVP_Digest(data.data(), data.size(), hash, &length, md, nullptr) != 1) return {};
  ERR_clear_error();  // engine digests leave a failed provider lookup queued
  return std::string(reinterpret_cast<char*>(hash), length);
}

UniquePtr<X509> find_signer_certificate(CMS_SignerInfo* signer, const std::vector<X509*>& candidates) {
  for (X509* cert : candidates)
    if (CMS_SignerInfo_cert_cmp(signer, cert) == 0) {
      X509_up_ref(cert);
      return UniquePtr<X509>(cert);
    }
  std::vector<std::pair<std::string, DWORD>> stores;
  for (DWORD location : {CERT_SYSTEM_STORE_CURRENT_USER, CERT_SYSTEM_STORE_LOCAL_MACHINE})
    for (const char* name : {"My", "AddressBook", "CA", "Root"}) stores.emplace_back(name, location);
  for (DWORD location : {CERT_SYSTEM_STORE_CURRENT_USER, CERT_SYSTEM_STORE_LOCAL_MACHINE}) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(bv::platform::system_store_root(location), error))
      if (entry.is_directory(error)) stores.emplace_back(entry.path().filename().string(), location);
  }
  for (const auto& [name, location] : stores) {
    bv::platform::StoreObjects objects;
    if (!bv::platform::read_system_store(name, location, objects)) continue;
    for (auto& cert : objects.certificates)
      if (CMS_SignerInfo_cert_cmp(signer, cert.get()) == 0) return std::move(cert);
  }
  return nullptr;
}

namespace {
bool append_attribute_body(const X509_ATTRIBUTE* attribute, std::string& out) {
  if (attribute == nullptr) return false;
  const std::string der = der_of(attribute, i2d_X509_ATTRIBUTE);
  const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
  long length = 0;
  int tag = 0, tag_class = 0;
  if (der.empty() || (ASN1_get_object(&cursor, &length, &tag, &tag_class, static_cast<long>(der.size())) & 0x80) != 0)
    return false;
  out.append(reinterpret_cast<const char*>(cursor), static_cast<size_t>(length));
  return true;
}
}  // namespace

bool type1_input(std::string_view signature, const std::vector<const X509_ATTRIBUTE*>& time_stamps,
                 const X509_ATTRIBUTE* certificate_refs, const X509_ATTRIBUTE* revocation_refs, std::string& out) {
  out.assign(signature);
  for (const X509_ATTRIBUTE* stamp : time_stamps)
    if (!append_attribute_body(stamp, out)) return false;
  return append_attribute_body(certificate_refs, out) && append_attribute_body(revocation_refs, out);
}

void load_trust_material(TrustMaterial& out) {
  for (DWORD location : {CERT_SYSTEM_STORE_CURRENT_USER, CERT_SYSTEM_STORE_LOCAL_MACHINE}) {
    for (const char* name : {"Root", "CA"}) {
      bv::platform::StoreObjects objects;
      if (!bv::platform::read_system_store(name, location, objects)) continue;
      if (std::string_view(name) == "CA")
        for (auto& cert : objects.certificates) out.intermediates.push_back(std::move(cert));
      for (auto& crl : objects.crls) out.crls.push_back(std::move(crl));
    }
  }
}

bool build_path(X509* cert, const std::vector<X509*>& extra, time_t at, std::vector<UniquePtr<X509>>& path) {
  const std::string der = der_of(cert, i2d_X509);
  bv::platform::CertContext context(CertCreateCertificateContext(
      X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()), static_cast<DWORD>(der.size())));
  bv::platform::CertStore extra_store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
  if (!context || !extra_store) return false;
  for (X509* other : extra) {
    const std::string other_der = der_of(other, i2d_X509);
    CertAddEncodedCertificateToStore(extra_store.get(), X509_ASN_ENCODING,
                                     reinterpret_cast<const BYTE*>(other_der.data()),
                                     static_cast<DWORD>(other_der.size()), CERT_STORE_ADD_USE_EXISTING, nullptr);
  }
  FILETIME when{};
  UniquePtr<ASN1_STRING> asn1_time(at != 0 ? ASN1_TIME_set(nullptr, at) : nullptr);
  if (at != 0 && (!asn1_time || !bv::platform::filetime_from_asn1(asn1_time.get(), when))) return fail(CERT_E_EXPIRED);
  CERT_CHAIN_PARA para{};
  para.cbSize = sizeof para;
  PCCERT_CHAIN_CONTEXT chain_context = nullptr;
  if (!CertGetCertificateChain(nullptr, context.get(), at != 0 ? &when : nullptr, extra_store.get(), &para, 0, nullptr,
                               &chain_context))
    return false;
  std::unique_ptr<const CERT_CHAIN_CONTEXT, ChainFreer> chain(chain_context);
  if (chain->TrustStatus.dwErrorStatus != CERT_TRUST_NO_ERROR || chain->cChain == 0)
    return fail(path_error(chain->TrustStatus.dwErrorStatus));
  const CERT_SIMPLE_CHAIN& simple = *chain->rgpChain[0];
  path.clear();
  for (DWORD i = 0; i < simple.cElement; ++i) {
    X509* element = bv::platform::certificate_x509(simple.rgpElement[i]->pCertContext);
    if (element == nullptr) return false;
    X509_up_ref(element);
    path.emplace_back(element);
  }
  return true;
}

bool prove_path(X509* cert, const std::vector<X509*>& extra, const TrustMaterial& trust, ProvenPath& out) {
  out.revocations.clear();
  if (!build_path(cert, extra, 0, out.certificates)) return false;

  bv::platform::revocation::Options options;
  options.timeout = bv::platform::revocation::default_timeout();
  options.keep_evidence = true;
  for (const auto& crl : trust.crls) options.store_crls.push_back(crl.get());
  for (size_t i = 0; i + 1 < out.certificates.size(); ++i) {
    auto result = bv::platform::revocation::check(out.certificates[i].get(), out.certificates[i + 1].get(), options);
    if (result.verdict == Verdict::revoked) return fail(CRYPT_E_REVOKED);
    if (result.verdict != Verdict::good || result.evidence.empty()) return fail(result.error != 0 ? result.error : CRYPT_E_NO_REVOCATION_CHECK);
    out.revocations.push_back(std::move(result));
  }
  return true;
}

}  // namespace bv::cades
