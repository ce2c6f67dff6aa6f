#include "crypt32/chain.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
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

bool self_issued(X509* cert) { return X509_NAME_cmp(X509_get_subject_name(cert), X509_get_issuer_name(cert)) == 0; }

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
  std::vector<bv::platform::StoreVersion> versions;  // of the system stores read, in the order read

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
    versions.emplace_back();
    if (!bv::platform::read_system_store(name, location, objects, &versions.back())) return;
    for (auto& cert : objects.certificates) {
      const bool anchor = roots && self_issued(cert.get());
      add(std::move(cert), anchor);
    }
    for (auto& crl : objects.crls) crls.push_back(std::move(crl));
  }
  void add_distrusted(DWORD location) {
    bv::platform::StoreObjects objects;
    versions.emplace_back();
    if (bv::platform::read_system_store("Disallowed", location, objects, &versions.back()))
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
  PCCERT_CONTEXT context =
      CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, der, static_cast<DWORD>(length));
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

// What a chain came to, besides its end certificate's own context.
struct ChainVerdict {
  ChainVerdict() = default;
  ChainVerdict(const ChainVerdict&) = delete;
  ChainVerdict& operator=(const ChainVerdict&) = delete;
  ~ChainVerdict() {
    for (PCCERT_CONTEXT issuer : issuers) CertFreeCertificateContext(issuer);
  }

  struct Revocation {
    bool checked = false;
    DWORD error = 0;
    time_t this_update = 0;
  };
  std::vector<PCCERT_CONTEXT> issuers;  // elements 1.., owned
  std::vector<DWORD> errors, infos;     // per element
  std::vector<Revocation> revocations;  // per element
  DWORD chain_errors = 0;
};

// The stores the engine reads for a chain, in the order the pool reads them.
std::vector<bv::platform::StoreVersion> store_versions(const std::vector<DWORD>& locations) {
  std::vector<bv::platform::StoreVersion> versions;
  for (const char* name : {"Root", "CA", "Disallowed"})
    for (DWORD location : locations) versions.push_back(bv::platform::system_store_version(name, location));
  return versions;
}

// Chains built at "now" kept between calls: a burst of signatures by one
// signer checks its chain once.  A verdict holds while the stores it was
// built from are unchanged, the revocation cache was not cleared, and until
// the first moment a certificate's validity or a deciding CRL's or OCSP
// answer's validity ends.
class VerdictCache {
 public:
  struct Entry {
    std::shared_ptr<const ChainVerdict> verdict;
    std::vector<bv::platform::StoreVersion> versions;
    unsigned revocation_generation = 0;
    time_t until = 0;
  };

  std::shared_ptr<const ChainVerdict> find(const std::string& key, const std::vector<DWORD>& locations, time_t now) {
    std::shared_ptr<const ChainVerdict> found;
    std::vector<bv::platform::StoreVersion> versions;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto it = entries_.find(key);
      if (it == entries_.end()) return nullptr;
      if (now >= it->second.until || it->second.revocation_generation != revocation::cache_generation()) {
        entries_.erase(it);
        return nullptr;
      }
      found = it->second.verdict;
      versions = it->second.versions;
    }
    // Looking at the stores may read them again: done outside the lock.
    return store_versions(locations) == versions ? found : nullptr;
  }

  void keep(const std::string& key, Entry entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.size() >= kMaxEntries) entries_.clear();
    entries_[key] = std::move(entry);
  }

 private:
  static constexpr size_t kMaxEntries = 1024;
  std::mutex mutex_;
  std::unordered_map<std::string, Entry> entries_;
};

VerdictCache& verdict_cache() {
  static auto* cache = new VerdictCache;  // outlives static destructors of other units
  return *cache;
}

time_t time_from_filetime(const FILETIME& time) {
  const uint64_t ticks = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  constexpr uint64_t kUnixEpoch = 116444736000000000ull;  // 1970-01-01 in 100 ns units since 1601
  return ticks < kUnixEpoch ? 0 : static_cast<time_t>((ticks - kUnixEpoch) / 10000000ull);
}

std::string verdict_key(const bv::platform::ParsedCertificate& cert, DWORD flags, bool machine_only,
                        const CERT_USAGE_MATCH& usage) {
  std::string key(reinterpret_cast<const char*>(cert.sha1), sizeof cert.sha1);
  const DWORD numbers[] = {flags, machine_only ? 1u : 0u, usage.dwType, usage.Usage.cUsageIdentifier};
  key.append(reinterpret_cast<const char*>(numbers), sizeof numbers);
  for (DWORD i = 0; i < usage.Usage.cUsageIdentifier; ++i) {
    const char* oid = usage.Usage.rgpszUsageIdentifier[i];
    key.append(oid != nullptr ? oid : "").push_back('\0');
  }
  return key;
}

// Until when a verdict reached at `at` holds: the first change of a
// certificate's validity, the end of each deciding CRL's or OCSP answer's
// validity.  `at` or earlier when it must not be kept at all: an answer
// that could not be had may come next time, and an answer without a next
// update from outside the stores has no known end.
time_t verdict_lifetime(const std::vector<UniquePtr<X509>>& chain, const std::vector<revocation::Result>& revocations,
                        const std::vector<bool>& checked, time_t at) {
  time_t until = std::numeric_limits<time_t>::max();
  for (const auto& cert : chain) {
    const time_t not_before = bv::ossl::unix_time_of(X509_get0_notBefore(cert.get()));
    const time_t not_after = bv::ossl::unix_time_of(X509_get0_notAfter(cert.get()));
    if (at < not_before)
      until = std::min(until, not_before);
    else if (at <= not_after)
      until = std::min(until, not_after + 1);
  }
  for (size_t i = 0; i < revocations.size(); ++i) {
    if (!checked[i]) continue;
    const revocation::Result& result = revocations[i];
    switch (result.verdict) {
      case revocation::Verdict::offline:
        return at;
      case revocation::Verdict::unknown:
        break;
      case revocation::Verdict::good:
      case revocation::Verdict::revoked:
        if (result.next_update != 0)
          until = std::min(until, result.next_update);
        else if (result.source != revocation::Source::store_crl && result.verdict == revocation::Verdict::good)
          return at;
        break;
    }
  }
  return until;
}

// The context for the caller: one simple chain of the end certificate's
// context and the verdict's issuers.
BOOL make_chain_context(PCCERT_CONTEXT end, const ChainVerdict& verdict, DWORD flags,
                        PCCERT_CHAIN_CONTEXT* chain_context) {
  std::unique_ptr<ChainObject> object(new (std::nothrow) ChainObject);
  if (!object) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  const size_t count = verdict.errors.size();
  object->elements.resize(count);
  object->element_pointers.resize(count);
  object->revocation_infos.resize(count);
  DWORD simple_errors = verdict.chain_errors, simple_infos = CERT_TRUST_HAS_PREFERRED_ISSUER;
  const time_t now = std::time(nullptr);
  for (size_t i = 0; i < count; ++i) {
    CERT_CHAIN_ELEMENT& element = object->elements[i];
    element.cbSize = sizeof(CERT_CHAIN_ELEMENT);
    element.pCertContext = CertDuplicateCertificateContext(i == 0 ? end : verdict.issuers[i - 1]);
    element.TrustStatus.dwErrorStatus = verdict.errors[i];
    element.TrustStatus.dwInfoStatus = verdict.infos[i];
    const ChainVerdict::Revocation& revocation = verdict.revocations[i];
    if (revocation.checked) {
      CERT_REVOCATION_INFO& info = object->revocation_infos[i];
      info.cbSize = sizeof(CERT_REVOCATION_INFO);
      info.dwRevocationResult = revocation.error;
      info.fHasFreshnessTime = revocation.this_update != 0;
      info.dwFreshnessTime =
          info.fHasFreshnessTime && now > revocation.this_update ? static_cast<DWORD>(now - revocation.this_update) : 0;
      element.pRevocationInfo = &info;
    }
    object->element_pointers[i] = &element;
    simple_errors |= verdict.errors[i];
    simple_infos &= verdict.infos[i];
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
  object->context.dwCreateFlags = flags;
  *chain_context = &object.release()->context;
  return TRUE;
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

  const bool machine_only = hChainEngine == HCCE_LOCAL_MACHINE || (dwFlags & CERT_CHAIN_USE_LOCAL_MACHINE_STORE) != 0;
  std::vector<DWORD> locations;
  if (!machine_only) locations.push_back(CERT_SYSTEM_STORE_CURRENT_USER);
  locations.push_back(CERT_SYSTEM_STORE_LOCAL_MACHINE);

  // 2. The verdict of an earlier call for this certificate, these flags and
  //    usage, when nothing it depends on changed since.  Only chains for
  //    now from the system stores alone are kept.
  const bv::platform::ParsedCertificate* parsed = bv::platform::parsed_certificate(pCertContext);
  const std::string key = pTime == nullptr && hAdditionalStore == nullptr && parsed != nullptr
                              ? verdict_key(*parsed, dwFlags, machine_only, pChainPara->RequestedUsage)
                              : std::string();
  if (!key.empty()) {
    if (auto kept = verdict_cache().find(key, locations, at))
      return make_chain_context(pCertContext, *kept, dwFlags, ppChainContext);
  }

  // 3. What the engine knows: trust anchors of the Root stores, the
  //    additional store, the CA stores, the certificate's own store.
  const unsigned revocation_generation = revocation::cache_generation();
  Pool pool;
  for (DWORD location : locations) pool.add_system_store("Root", location, /*roots=*/true);
  pool.add_store(hAdditionalStore);
  for (DWORD location : locations) pool.add_system_store("CA", location, /*roots=*/false);
  for (DWORD location : locations) pool.add_distrusted(location);

  // 4. Build upwards: at each step the best issuer that isn't in the chain
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
    const bool key_match =
        authority_key != nullptr && subject_key != nullptr && ASN1_OCTET_STRING_cmp(authority_key, subject_key) == 0;
    infos.back() |= CERT_TRUST_HAS_PREFERRED_ISSUER |
                    (key_match ? CERT_TRUST_HAS_KEY_MATCH_ISSUER : CERT_TRUST_HAS_NAME_MATCH_ISSUER);
    X509_up_ref(best->x509.get());
    chain.emplace_back(best->x509.get());
    errors.push_back(0);
    infos.push_back(0);
  }
  const size_t count = chain.size();

  // 5. Each element on its own: time, signature, CA standing, extensions,
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

  // 6. Revocation, for the elements the flags name.
  size_t check_from = 0, check_to = 0;  // [from, to)
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_END_CERT) != 0) check_to = 1;
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT) != 0) check_to = reached_root ? count - 1 : count;
  if ((dwFlags & CERT_CHAIN_REVOCATION_CHECK_CHAIN) != 0) check_to = count;
  std::vector<revocation::Result> revocations(count);
  std::vector<bool> revocation_checked(count, false);
  if (check_to > check_from) {
    revocation::Options options;
    options.at = at;
    options.network = (dwFlags & (CERT_CHAIN_REVOCATION_CHECK_CACHE_ONLY | CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL)) == 0;
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

  // 7. The verdict, kept when all it depends on is known, and the context.
  auto verdict = std::make_shared<ChainVerdict>();
  verdict->errors = errors;
  verdict->infos = infos;
  verdict->chain_errors = chain_errors;
  verdict->revocations.resize(count);
  for (size_t i = 0; i < count; ++i) {
    verdict->revocations[i] = {revocation_checked[i], revocations[i].error, revocations[i].this_update};
    if (i == 0) continue;
    PCCERT_CONTEXT issuer = context_of(chain[i].get());
    if (issuer == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return FALSE;
    }
    verdict->issuers.push_back(issuer);
  }
  if (!key.empty() && !own_store_added) {
    VerdictCache::Entry entry;
    entry.until = verdict_lifetime(chain, revocations, revocation_checked, at);
    if (entry.until > at) {
      entry.verdict = verdict;
      entry.versions = std::move(pool.versions);
      entry.revocation_generation = revocation_generation;
      verdict_cache().keep(key, std::move(entry));
    }
  }
  return make_chain_context(pCertContext, *verdict, dwFlags, ppChainContext);
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
