#include "crypt32/chain.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "crypt32/revocation.h"
#include "crypt32/store.h"
#include "openssl/ossl.h"

namespace {

using bv::ossl::UniquePtr;
namespace revocation = bv::platform::revocation;

constexpr size_t kMaxChainLength = 16;
constexpr int kSignatureGood = 8;  // the weight of a good signature in an issuer's rank

// What a PCCERT_CHAIN_CONTEXT points at: the public record first, then the
// storage its pointers lead into.
struct ChainObject {
  static constexpr uint32_t kMagic = 0x42564348;  // "BVCH"
  CERT_CHAIN_CONTEXT context{};
  uint32_t magic = kMagic;
  std::atomic<int> references{1};
  CERT_SIMPLE_CHAIN simple{};
  PCERT_SIMPLE_CHAIN simple_pointer = nullptr;
  std::vector<CERT_CHAIN_ELEMENT> elements;
  std::vector<PCERT_CHAIN_ELEMENT> element_pointers;
  std::vector<CERT_REVOCATION_INFO> revocation_infos;

  ~ChainObject() {
    for (const CERT_CHAIN_ELEMENT& element : elements)
      if (element.pCertContext != nullptr) CertFreeCertificateContext(element.pCertContext);
  }
};

ChainObject* chain_object(PCCERT_CHAIN_CONTEXT context) {
  if (context == nullptr) return nullptr;
  auto* object = reinterpret_cast<ChainObject*>(const_cast<CERT_CHAIN_CONTEXT*>(context));
  return object->magic == ChainObject::kMagic ? object : nullptr;
}

using bv::ossl::sha1_of;

bool signed_by(X509* cert, X509* issuer) {
  // Good checks only: building the same chains again costs no public key operation.
  static auto* verified = new bv::ossl::VerifiedSignatures(65536);
  return verified->check(cert, issuer, [&] {
    EVP_PKEY* issuer_key = X509_get0_pubkey(issuer);
    return issuer_key != nullptr && X509_verify(cert, issuer_key) == 1;
  });
}

bool time_valid(X509* cert, time_t at) {
  return X509_cmp_time(X509_get0_notBefore(cert), &at) <= 0 && X509_cmp_time(X509_get0_notAfter(cert), &at) >= 0;
}

bool self_issued(X509* cert) {
  return X509_NAME_cmp(X509_get_subject_name(cert), X509_get_issuer_name(cert)) == 0;
}

// A certificate the builder may put into a chain.
struct Candidate {
  UniquePtr<X509> x509;
  bool trusted = false;  // a self-signed certificate of a Root store
};

unsigned long name_hash(const X509_NAME* name) {
  int ok = 0;
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
  ERR_clear_error();
  return ok ? hash : 0;
}

// Every certificate the engine knows besides the end certificate, trust
// anchors first, and the CRLs of the stores.  Indexed by subject, so that a
// store of thousands of certificates costs a look-up, not a scan, per step.
struct Pool {
  std::vector<Candidate> candidates;
  std::unordered_set<std::string> known, anchors, distrusted;  // SHA-1 of the certificates
  std::unordered_multimap<unsigned long, size_t> by_subject;
  std::vector<UniquePtr<X509_CRL>> crls;

  void add(UniquePtr<X509> cert, bool trusted) {
    const std::string id = sha1_of(cert.get());
    if (!known.insert(id).second) return;
    if (trusted) anchors.insert(id);
    by_subject.emplace(name_hash(X509_get_subject_name(cert.get())), candidates.size());
    candidates.push_back(Candidate{std::move(cert), trusted});
  }
  void add_store(HCERTSTORE store) {
    std::vector<UniquePtr<X509>> certs;
    if (store != nullptr && bv::platform::store_certificates(store, certs))
      for (auto& cert : certs) add(std::move(cert), false);
  }
  void add_system_store(const char* name, DWORD location, bool roots) {
    bv::platform::StoreObjects objects;
    if (!bv::platform::read_system_store(name, location, objects)) return;
    for (auto& cert : objects.certificates) {
      const bool anchor = roots && self_issued(cert.get());
      add(std::move(cert), anchor);
    }
    for (auto& crl : objects.crls) crls.push_back(std::move(crl));
  }
  void add_distrusted(DWORD location) {
    bv::platform::StoreObjects objects;
    if (bv::platform::read_system_store("Disallowed", location, objects))
      for (auto& cert : objects.certificates) distrusted.insert(sha1_of(cert.get()));
  }
  // Candidates whose subject may be `name`, in the order they were added.
  std::vector<const Candidate*> named(const X509_NAME* name) const {
    std::vector<size_t> indexes;
    const auto range = by_subject.equal_range(name_hash(name));
    for (auto it = range.first; it != range.second; ++it) indexes.push_back(it->second);
    std::sort(indexes.begin(), indexes.end());
    std::vector<const Candidate*> out;
    for (size_t index : indexes) out.push_back(&candidates[index]);
    return out;
  }
};

// How well a candidate serves as the issuer of `cert`; higher is better,
// negative is no issuer at all.
int issuer_rank(X509* cert, const Candidate& candidate, time_t at) {
  const int check = X509_check_issued(candidate.x509.get(), cert);
  ERR_clear_error();
  if (check != X509_V_OK && check != X509_V_ERR_KEYUSAGE_NO_CERTSIGN) return -1;
  int rank = 0;
  if (signed_by(cert, candidate.x509.get())) rank += kSignatureGood;
  if (check == X509_V_OK) rank += 4;
  if (time_valid(candidate.x509.get(), at)) rank += 2;
  if (candidate.trusted) rank += 1;
  return rank;
}

// DER of the certificate as a new context for a chain element.
PCCERT_CONTEXT context_of(X509* cert) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(cert, &der);
  if (length <= 0) return nullptr;
  PCCERT_CONTEXT context = CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, der,
                                                        static_cast<DWORD>(length));
  OPENSSL_free(der);
  return context;
}

// The extended key usages a certificate allows; `any` when it has no such
// extension or names anyExtendedKeyUsage.
struct Usages {
  bool any = true;
  std::set<std::string> oids;
};

Usages usages_of(X509* cert) {
  Usages usages;
  UniquePtr<EXTENDED_KEY_USAGE> eku(
      static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
  ERR_clear_error();
  if (!eku) return usages;
  usages.any = false;
  for (int i = 0; i < sk_ASN1_OBJECT_num(eku.get()); ++i) {
    char text[128];
    OBJ_obj2txt(text, sizeof text, sk_ASN1_OBJECT_value(eku.get(), i), 1);
    if (std::strcmp(text, szOID_ANY_ENHANCED_KEY_USAGE) == 0) usages.any = true;
    usages.oids.insert(text);
  }
  return usages;
}

bool usage_satisfied(const Usages& usages, const CERT_USAGE_MATCH& wanted) {
  if (wanted.Usage.cUsageIdentifier == 0 || usages.any) return true;
  bool all = true, some = false;
  for (DWORD i = 0; i < wanted.Usage.cUsageIdentifier; ++i) {
    const char* oid = wanted.Usage.rgpszUsageIdentifier[i];
    const bool has = oid != nullptr && usages.oids.count(oid) != 0;
    all = all && has;
    some = some || has;
  }
  return wanted.dwType == USAGE_MATCH_TYPE_OR ? some : all;
}

DWORD name_constraint_bits(int error) {
  switch (error) {
    case X509_V_OK:
      return 0;
    case X509_V_ERR_PERMITTED_VIOLATION:
      return CERT_TRUST_INVALID_NAME_CONSTRAINTS | CERT_TRUST_HAS_NOT_PERMITTED_NAME_CONSTRAINT;
    case X509_V_ERR_EXCLUDED_VIOLATION:
      return CERT_TRUST_INVALID_NAME_CONSTRAINTS | CERT_TRUST_HAS_EXCLUDED_NAME_CONSTRAINT;
    default:
      return CERT_TRUST_INVALID_NAME_CONSTRAINTS | CERT_TRUST_HAS_NOT_SUPPORTED_NAME_CONSTRAINT;
  }
}

time_t time_from_filetime(const FILETIME& time) {
  const uint64_t ticks = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  constexpr uint64_t kUnixEpoch = 116444736000000000ull;  // 1970-01-01 in 100 ns units since 1601
  return ticks < kUnixEpoch ? 0 : static_cast<time_t>((ticks - kUnixEpoch) / 10000000ull);
}

}  // namespace

BOOL CertGetCertificateChain(HCERTCHAINENGINE hChainEngine, PCCERT_CONTEXT pCertContext, FILETIME* pTime,
                             HCERTSTORE hAdditionalStore, PCERT_CHAIN_PARA pChainPara, DWORD dwFlags,
                             LPVOID /*pvReserved*/, PCCERT_CHAIN_CONTEXT* ppChainContext) {
  // 1. Arguments.
  if (ppChainContext != nullptr) *ppChainContext = nullptr;
  X509* end_cert = pCertContext != nullptr ? bv::platform::certificate_x509(pCertContext) : nullptr;
  if (ppChainContext == nullptr || end_cert == nullptr || pChainPara == nullptr ||
      pChainPara->cbSize < sizeof(CERT_CHAIN_PARA) ||
      (hChainEngine != HCCE_CURRENT_USER && hChainEngine != HCCE_LOCAL_MACHINE)) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  bv::ossl::gost_engine();  // GOST public keys of the certificates need it
  const time_t at = pTime != nullptr ? time_from_filetime(*pTime) : std::time(nullptr);

  // 2. What the engine knows: trust anchors of the Root stores, the
  //    additional store, the CA stores, the certificate's own store.
  const bool machine_only = hChainEngine == HCCE_LOCAL_MACHINE || (dwFlags & CERT_CHAIN_USE_LOCAL_MACHINE_STORE) != 0;
  std::vector<DWORD> locations;
  if (!machine_only) locations.push_back(CERT_SYSTEM_STORE_CURRENT_USER);
  locations.push_back(CERT_SYSTEM_STORE_LOCAL_MACHINE);
  Pool pool;
  for (DWORD location : locations) pool.add_system_store("Root", location, /*roots=*/true);
  pool.add_store(hAdditionalStore);
  for (DWORD location : locations) pool.add_system_store("CA", location, /*roots=*/false);
  for (DWORD location : locations) pool.add_distrusted(location);

  // 3. Build upwards: at each step the best issuer that isn't in the chain
  //    yet, until a self-signed certificate or nobody is found.
  X509_up_ref(end_cert);
  std::vector<UniquePtr<X509>> chain;
  chain.emplace_back(end_cert);
  std::vector<DWORD> errors(1, 0), infos(1, 0);
  DWORD chain_errors = 0;
  bool reached_root = false, trusted_root = false;
  bool own_store_added = false;
  for (;;) {
    X509* current = chain.back().get();
    if (self_issued(current) && signed_by(current, current)) {
      reached_root = true;
      infos.back() |= CERT_TRUST_IS_SELF_SIGNED | CERT_TRUST_HAS_NAME_MATCH_ISSUER | CERT_TRUST_HAS_PREFERRED_ISSUER;
      trusted_root = pool.anchors.count(sha1_of(current)) != 0;
      break;
    }
    // The certificate's own store (often a large My store) is read only
    // when the other stores hold no issuer whose signature verifies.
    const Candidate* best = nullptr;
    int best_rank = -1;
    bool only_cycles = false;
    for (int pass = 0; pass < 2 && best_rank < kSignatureGood; ++pass) {
      if (pass == 1) {
        if (own_store_added) break;
        own_store_added = true;
        pool.add_store(pCertContext->hCertStore);
      }
      best = nullptr;
      best_rank = -1;
      only_cycles = false;
      for (const Candidate* candidate : pool.named(X509_get_issuer_name(current))) {
        const int rank = issuer_rank(current, *candidate, at);
        if (rank < 0) continue;
        const bool in_chain = std::any_of(chain.begin(), chain.end(), [&](const UniquePtr<X509>& link) {
          return X509_cmp(link.get(), candidate->x509.get()) == 0;
        });
        if (in_chain) {
          only_cycles = best == nullptr;
          continue;
        }
        if (rank > best_rank) {
          best = candidate;
          best_rank = rank;
        }
      }
    }
    if (best == nullptr) {
      if (only_cycles) {
        errors.back() |= CERT_TRUST_IS_CYCLIC;
        chain_errors |= CERT_TRUST_IS_CYCLIC;
      }
      chain_errors |= CERT_TRUST_IS_PARTIAL_CHAIN;
      break;
    }
    if (chain.size() >= kMaxChainLength) {
      chain_errors |= CERT_TRUST_IS_PARTIAL_CHAIN;
      break;
    }
    const ASN1_OCTET_STRING* authority_key = X509_get0_authority_key_id(current);
    const ASN1_OCTET_STRING* subject_key = X509_get0_subject_key_id(best->x509.get());
    const bool key_match = authority_key != nullptr && subject_key != nullptr &&
                           ASN1_OCTET_STRING_cmp(authority_key, subject_key) == 0;
    infos.back() |= CERT_TRUST_HAS_PREFERRED_ISSUER |
                    (key_match ? CERT_TRUST_HAS_KEY_MATCH_ISSUER : CERT_TRUST_HAS_NAME_MATCH_ISSUER);
    X509_up_ref(best->x509.get());
    chain.emplace_back(best->x509.get());
    errors.push_back(0);
    infos.push_back(0);
  }
  const size_t count = chain.size();

  // 4. Each element on its own: time, signature, CA standing, extensions,
  //    usage, distrust.
  for (size_t i = 0; i < count; ++i) {
    X509* cert = chain[i].get();
    if (!time_valid(cert, at)) errors[i] |= CERT_TRUST_IS_NOT_TIME_VALID;
    if (i + 1 < count) {
      if (!signed_by(cert, chain[i + 1].get())) errors[i] |= CERT_TRUST_IS_NOT_SIGNATURE_VALID;
    } else if (self_issued(cert) && !reached_root && !signed_by(cert, cert)) {
      errors[i] |= CERT_TRUST_IS_NOT_SIGNATURE_VALID;
    }
    if (i > 0) {
      // A CA's path length counts the intermediates below it, self-issued
      // ones aside.
      long intermediates_below = 0;
      for (size_t j = 1; j < i; ++j)
        if (!self_issued(chain[j].get())) ++intermediates_below;
      const long path_length = X509_get_pathlen(cert);
      if (X509_check_ca(cert) == 0 || (path_length >= 0 && intermediates_below > path_length))
        errors[i] |= CERT_TRUST_INVALID_BASIC_CONSTRAINTS;
      UniquePtr<NAME_CONSTRAINTS> constraints(
          static_cast<NAME_CONSTRAINTS*>(X509_get_ext_d2i(cert, NID_name_constraints, nullptr, nullptr)));
      for (size_t below = 0; constraints && below < i; ++below) {
        const DWORD bits = name_constraint_bits(NAME_CONSTRAINTS_check(chain[below].get(), constraints.get()));
        errors[below] |= bits;
        if (bits == 0) infos[below] |= CERT_TRUST_HAS_VALID_NAME_CONSTRAINTS;
      }
    }
    if ((X509_get_extension_flags(cert) & EXFLAG_CRITICAL) != 0)
      errors[i] |= CERT_TRUST_INVALID_EXTENSION | CERT_TRUST_HAS_NOT_SUPPORTED_CRITICAL_EXT;
    if (!usage_satisfied(usages_of(cert), pChainPara->RequestedUsage)) errors[i] |= CERT_TRUST_IS_NOT_VALID_FOR_USAGE;
    if (pool.distrusted.count(sha1_of(cert)) != 0) errors[i] |= CERT_TRUST_IS_EXPLICIT_DISTRUST;
    ERR_clear_error();
  }
  if (reached_root && !trusted_root) errors[count - 1] |= CERT_TRUST_IS_UNTRUSTED_ROOT;

  // 5. Revocation, for the elements the flags name.
  size_t check_from = 0, check_to = 0;  // [from, to)
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_END_CERT) != 0) check_to = 1;
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT) != 0) check_to = reached_root ? count - 1 : count;
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_CHAIN) != 0) check_to = count;
  std::vector<revocation::Result> revocations(count);
  std::vector<bool> revocation_checked(count, false);
  if (check_to > check_from) {
    revocation::Options options;
    options.at = at;
    options.network =
        (dwFlags & (CERT_CHAIN_REVOCATION_CHECK_CACHE_ONLY | CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL)) == 0;
    options.timeout = revocation::default_timeout();
    if ((dwFlags & CERT_CHAIN_REVOCATION_ACCUMULATIVE_TIMEOUT) != 0)
      options.deadline = revocation::Clock::now() + options.timeout;
    for (const auto& crl : pool.crls) options.store_crls.push_back(crl.get());
    for (size_t i = check_from; i < check_to && i < count; ++i) {
      revocation_checked[i] = true;
      if (i + 1 >= count && !reached_root) {
        // Without its issuer no answer about it can be trusted.
        revocations[i].verdict = revocation::Verdict::unknown;
        revocations[i].error = CRYPT_E_NO_REVOCATION_CHECK;
      } else {
        revocations[i] = revocation::check(chain[i].get(), chain[i + 1 < count ? i + 1 : i].get(), options);
      }
      switch (revocations[i].verdict) {
        case revocation::Verdict::good:
          break;
        case revocation::Verdict::revoked:
          errors[i] |= CERT_TRUST_IS_REVOKED;
          break;
        case revocation::Verdict::unknown:
          errors[i] |= CERT_TRUST_REVOCATION_STATUS_UNKNOWN;
          break;
        case revocation::Verdict::offline:
          errors[i] |= CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION;
          break;
      }
    }
  }

  // 6. The chain context: one simple chain, its elements with contexts of
  //    their own.
  std::unique_ptr<ChainObject> object(new (std::nothrow) ChainObject);
  if (!object) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  object->elements.resize(count);
  object->element_pointers.resize(count);
  object->revocation_infos.resize(count);
  DWORD simple_errors = chain_errors, simple_infos = CERT_TRUST_HAS_PREFERRED_ISSUER;
  const time_t now = std::time(nullptr);
  for (size_t i = 0; i < count; ++i) {
    CERT_CHAIN_ELEMENT& element = object->elements[i];
    element.cbSize = sizeof(CERT_CHAIN_ELEMENT);
    element.pCertContext = i == 0 ? CertDuplicateCertificateContext(pCertContext) : context_of(chain[i].get());
    if (element.pCertContext == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return FALSE;
    }
    element.TrustStatus.dwErrorStatus = errors[i];
    element.TrustStatus.dwInfoStatus = infos[i];
    if (revocation_checked[i]) {
      CERT_REVOCATION_INFO& info = object->revocation_infos[i];
      info.cbSize = sizeof(CERT_REVOCATION_INFO);
      info.dwRevocationResult = revocations[i].error;
      info.fHasFreshnessTime = revocations[i].this_update != 0;
      info.dwFreshnessTime =
          info.fHasFreshnessTime && now > revocations[i].this_update ? static_cast<DWORD>(now - revocations[i].this_update) : 0;
      element.pRevocationInfo = &info;
    }
    object->element_pointers[i] = &element;
    simple_errors |= errors[i];
    simple_infos &= infos[i];
  }
  object->simple.cbSize = sizeof(CERT_SIMPLE_CHAIN);
  object->simple.TrustStatus.dwErrorStatus = simple_errors;
  object->simple.TrustStatus.dwInfoStatus = simple_infos & CERT_TRUST_HAS_PREFERRED_ISSUER;
  object->simple.cElement = static_cast<DWORD>(count);
  object->simple.rgpElement = object->element_pointers.data();
  object->simple_pointer = &object->simple;
  object->context.cbSize = sizeof(CERT_CHAIN_CONTEXT);
  object->context.TrustStatus = object->simple.TrustStatus;
  object->context.cChain = 1;
  object->context.rgpChain = &object->simple_pointer;
  object->context.dwCreateFlags = dwFlags;
  *ppChainContext = &object.release()->context;
  return TRUE;
}

void CertFreeCertificateChain(PCCERT_CHAIN_CONTEXT pChainContext) {
  ChainObject* object = chain_object(pChainContext);
  if (object == nullptr) return;
  if (object->references.fetch_sub(1) == 1) {
    object->magic = 0;
    delete object;
  }
}

PCCERT_CHAIN_CONTEXT CertDuplicateCertificateChain(PCCERT_CHAIN_CONTEXT pChainContext) {
  ChainObject* object = chain_object(pChainContext);
  if (object == nullptr) return nullptr;
  object->references.fetch_add(1);
  return pChainContext;
}
