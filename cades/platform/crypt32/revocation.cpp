#include "crypt32/revocation.h"

#include <openssl/ocsp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "http/http.h"
#include "kernel32/kernel32.h"
#include "openssl/ossl.h"

namespace bv::platform::revocation {
namespace {

using bv::ossl::UniquePtr;

// Clocks of the CA and of this host may differ by this much.
constexpr long kClockSkewSeconds = 300;
// A CRL without nextUpdate is reused for this long.
constexpr time_t kCrlWithoutNextUpdateLifetime = 3600;
// A source that did not answer is not asked again for this long, so that a
// dead server costs one time-out and not one per certificate.
constexpr auto kOfflineMemo = std::chrono::seconds(30);
constexpr size_t kMaxCachedCrls = 256;
constexpr size_t kMaxCachedResponses = 4096;

struct OcspAnswer {
  int status = V_OCSP_CERTSTATUS_UNKNOWN;
  int reason = -1;
  time_t revoked_at = 0;
  time_t this_update = 0;
  time_t expires = 0;
  std::string basic_der;  // the BasicOCSPResponse it came in
};

struct CrlEntry {
  UniquePtr<X509_CRL> crl;
  time_t expires = 0;
};

// What the process has learnt, shared by all threads.
struct Cache {
  std::mutex mutex;
  std::map<std::string, CrlEntry> crls;         // by URL
  std::map<std::string, OcspAnswer> responses;  // by DER of the OCSP cert id
  std::map<std::string, Clock::time_point> offline_until;  // by URL
  bv::ossl::VerifiedSignatures verified_crls{kMaxCachedCrls * 16};
};

Cache& cache() {
  static Cache* instance = new Cache;  // outlives static destructors of other units
  return *instance;
}

using bv::ossl::unix_time_of;

// The CRL is the issuer's: its name, its key, and a key allowed to sign CRLs.
bool crl_is_from(X509_CRL* crl, X509* issuer) {
  if (X509_NAME_cmp(X509_CRL_get_issuer(crl), X509_get_subject_name(issuer)) != 0) return false;
  if ((X509_get_key_usage(issuer) & KU_CRL_SIGN) == 0) return false;
  return cache().verified_crls.check(crl, issuer, [&] {
    EVP_PKEY* issuer_key = X509_get0_pubkey(issuer);
    return issuer_key != nullptr && X509_CRL_verify(crl, issuer_key) == 1;
  });
}

bool crl_is_current(X509_CRL* crl, time_t now) {
  const time_t this_update = unix_time_of(X509_CRL_get0_lastUpdate(crl));
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl);
  if (this_update == 0 || this_update > now + kClockSkewSeconds) return false;
  return next == nullptr || unix_time_of(next) + kClockSkewSeconds >= now;
}

enum class CrlSays { not_applicable, revoked, good, stale };

// What one CRL says about the certificate at `at`.
CrlSays consult_crl(X509_CRL* crl, X509* cert, X509* issuer, time_t at, time_t now, Result& result) {
  if (!crl_is_from(crl, issuer)) return CrlSays::not_applicable;
  X509_REVOKED* entry = nullptr;
  // A revocation is for good: even a CRL past its nextUpdate proves one.
  if (X509_CRL_get0_by_cert(crl, &entry, cert) == 1 && unix_time_of(X509_REVOKED_get0_revocationDate(entry)) <= at) {
    result.verdict = Verdict::revoked;
    result.error = CRYPT_E_REVOKED;
    result.this_update = unix_time_of(X509_CRL_get0_lastUpdate(crl));
    result.next_update = unix_time_of(X509_CRL_get0_nextUpdate(crl));
    int critical = 0;
    UniquePtr<ASN1_ENUMERATED> reason(static_cast<ASN1_ENUMERATED*>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, &critical, nullptr)));
    result.reason = reason ? static_cast<int>(ASN1_ENUMERATED_get(reason.get())) : -1;
    return CrlSays::revoked;
  }
  ERR_clear_error();
  if (!crl_is_current(crl, now)) return CrlSays::stale;
  result.verdict = Verdict::good;
  result.error = 0;
  result.this_update = unix_time_of(X509_CRL_get0_lastUpdate(crl));
  result.next_update = unix_time_of(X509_CRL_get0_nextUpdate(crl));
  return CrlSays::good;
}

std::vector<std::string> distribution_point_urls(X509* cert) {
  std::vector<std::string> urls;
  auto* points = static_cast<STACK_OF(DIST_POINT)*>(
      X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr));
  UniquePtr<STACK_OF(DIST_POINT)> owner(points);
  for (int i = 0; points != nullptr && i < sk_DIST_POINT_num(points); ++i) {
    const DIST_POINT* point = sk_DIST_POINT_value(points, i);
    if (point->distpoint == nullptr || point->distpoint->type != 0) continue;
    const GENERAL_NAMES* names = point->distpoint->name.fullname;
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, j);
      if (name->type != GEN_URI) continue;
      const ASN1_IA5STRING* uri = name->d.uniformResourceIdentifier;
      urls.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                        static_cast<size_t>(ASN1_STRING_length(uri)));
    }
  }
  ERR_clear_error();
  return urls;
}

std::vector<std::string> ocsp_urls(X509* cert) {
  std::vector<std::string> urls;
  UniquePtr<STACK_OF(OPENSSL_STRING)> list(X509_get1_ocsp(cert));
  for (int i = 0; list && i < sk_OPENSSL_STRING_num(list.get()); ++i) urls.emplace_back(sk_OPENSSL_STRING_value(list.get(), i));
  ERR_clear_error();
  return urls;
}

// Only plain http is fetched; other schemes are no source here.
bool fetchable(const std::string& url) {
  return url.size() > 7 && strncasecmp_l(url.c_str(), "http://", 7, ansi_locale()) == 0;
}

// Whether the URL may be asked now, and for how long.
bool request_budget(const std::string& url, const Options& options, std::chrono::milliseconds& timeout) {
  {
    std::lock_guard lock(cache().mutex);
    auto it = cache().offline_until.find(url);
    if (it != cache().offline_until.end()) {
      if (Clock::now() < it->second) return false;
      cache().offline_until.erase(it);
    }
  }
  timeout = options.timeout;
  if (options.deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*options.deadline - Clock::now());
    if (left.count() <= 0) return false;
    if (left < timeout) timeout = left;
  }
  return true;
}

void mark_offline(const std::string& url) {
  std::lock_guard lock(cache().mutex);
  cache().offline_until[url] = Clock::now() + kOfflineMemo;
}

UniquePtr<X509_CRL> parse_crl(std::string_view body) {
  const auto* p = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<X509_CRL> crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(body.size())));
  if (!crl) {
    UniquePtr<BIO> bio(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())));
    crl.reset(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
  }
  ERR_clear_error();
  return crl;
}

// The cached CRL of a URL, with a reference of its own, if still valid.
UniquePtr<X509_CRL> cached_crl(const std::string& url, time_t now) {
  std::lock_guard lock(cache().mutex);
  auto it = cache().crls.find(url);
  if (it == cache().crls.end()) return nullptr;
  if (it->second.expires < now) {
    cache().crls.erase(it);
    return nullptr;
  }
  X509_CRL_up_ref(it->second.crl.get());
  return UniquePtr<X509_CRL>(it->second.crl.get());
}

void remember_crl(const std::string& url, X509_CRL* crl, time_t now) {
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl);
  const time_t expires = next != nullptr ? unix_time_of(next) : now + kCrlWithoutNextUpdateLifetime;
  if (expires < now) return;
  std::lock_guard lock(cache().mutex);
  if (cache().crls.size() >= kMaxCachedCrls) cache().crls.erase(cache().crls.begin());
  X509_CRL_up_ref(crl);
  cache().crls[url] = CrlEntry{UniquePtr<X509_CRL>(crl), expires};
}

std::string encode_id(OCSP_CERTID* id) {
  unsigned char* der = nullptr;
  const int length = i2d_OCSP_CERTID(id, &der);
  if (length <= 0) return {};
  std::string key(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return key;
}

bool apply_ocsp(const OcspAnswer& answer, time_t at, Result& result, Source source, bool keep_evidence) {
  if (answer.status == V_OCSP_CERTSTATUS_REVOKED && answer.revoked_at <= at) {
    result.verdict = Verdict::revoked;
    result.error = CRYPT_E_REVOKED;
    result.reason = answer.reason;
  } else if (answer.status == V_OCSP_CERTSTATUS_GOOD || answer.status == V_OCSP_CERTSTATUS_REVOKED) {
    result.verdict = Verdict::good;  // revoked only after the time asked about
    result.error = 0;
  } else {
    return false;
  }
  result.source = source;
  result.this_update = answer.this_update;
  result.next_update = answer.expires;
  if (keep_evidence) result.evidence = answer.basic_der;
  return true;
}

// The CRL that decided, kept with the verdict when the caller wants proof.
Result with_crl(Result result, X509_CRL* crl, const Options& options) {
  if (options.keep_evidence) {
    unsigned char* der = nullptr;
    const int length = i2d_X509_CRL(crl, &der);
    if (length > 0) result.evidence.assign(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
  }
  return result;
}

// The response was signed by the issuer itself or by a responder the issuer
// certified for OCSP signing.
bool responder_is_authorised(OCSP_BASICRESP* basic, X509* issuer) {
  UniquePtr<STACK_OF(X509)> extra(sk_X509_new_null());
  if (!extra || !sk_X509_push(extra.get(), issuer)) return false;
  X509_up_ref(issuer);
  X509* signer = nullptr;
  if (OCSP_resp_get0_signer(basic, &signer, extra.get()) != 1 || signer == nullptr) return false;
  // The signature itself; the signer's standing is checked below.
  if (OCSP_basic_verify(basic, extra.get(), nullptr, OCSP_NOVERIFY | OCSP_NOCHECKS | OCSP_TRUSTOTHER) != 1)
    return false;
  if (X509_cmp(signer, issuer) == 0) return true;
  EVP_PKEY* issuer_key = X509_get0_pubkey(issuer);
  return X509_check_issued(issuer, signer) == X509_V_OK && issuer_key != nullptr &&
         X509_verify(signer, issuer_key) == 1 && (X509_get_extension_flags(signer) & EXFLAG_XKUSAGE) != 0 &&
         (X509_get_extended_key_usage(signer) & XKU_OCSP_SIGN) != 0;
}

enum class Asked { answered, responder_unknown, failed };

// What a responder's body says about `id`: a successful response to
// `request`, signed by an authorised responder and current.
Asked read_responder_body(std::string_view body, OCSP_REQUEST* request, OCSP_CERTID* id, X509* issuer,
                          OcspAnswer& answer) {
  const auto* p = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<OCSP_RESPONSE> response(d2i_OCSP_RESPONSE(nullptr, &p, static_cast<long>(body.size())));
  if (!response || OCSP_response_status(response.get()) != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    ERR_clear_error();
    SetLastError(ERROR_HTTP_INVALID_SERVER_RESPONSE);
    return Asked::failed;
  }
  UniquePtr<OCSP_BASICRESP> basic(OCSP_response_get1_basic(response.get()));
  // A responder may leave the nonce out (it may answer from its own cache),
  // but one that answers with another nonce answers another request.
  if (!basic || OCSP_check_nonce(request, basic.get()) == 0 || !responder_is_authorised(basic.get(), issuer)) {
    ERR_clear_error();
    SetLastError(TRUST_E_CERT_SIGNATURE);
    return Asked::failed;
  }
  int status = -1, reason = -1;
  ASN1_GENERALIZEDTIME *revoked_at = nullptr, *this_update = nullptr, *next_update = nullptr;
  if (OCSP_resp_find_status(basic.get(), id, &status, &reason, &revoked_at, &this_update, &next_update) != 1 ||
      OCSP_check_validity(this_update, next_update, kClockSkewSeconds, -1) != 1) {
    ERR_clear_error();
    SetLastError(ERROR_HTTP_INVALID_SERVER_RESPONSE);
    return Asked::failed;
  }
  answer.status = status;
  answer.reason = reason;
  answer.revoked_at = unix_time_of(revoked_at);
  answer.this_update = unix_time_of(this_update);
  answer.expires = next_update != nullptr ? unix_time_of(next_update) : 0;
  unsigned char* basic_der = nullptr;
  const int basic_length = i2d_OCSP_BASICRESP(basic.get(), &basic_der);
  if (basic_length > 0) answer.basic_der.assign(reinterpret_cast<char*>(basic_der), static_cast<size_t>(basic_length));
  OPENSSL_free(basic_der);
  return status == V_OCSP_CERTSTATUS_UNKNOWN ? Asked::responder_unknown : Asked::answered;
}

Asked ask_responder(const std::string& url, OCSP_CERTID* id, X509* issuer, std::chrono::milliseconds timeout,
                    OcspAnswer& answer) {
  UniquePtr<OCSP_REQUEST> request(OCSP_REQUEST_new());
  UniquePtr<OCSP_CERTID> id_copy(OCSP_CERTID_dup(id));
  if (!request || !id_copy || OCSP_request_add0_id(request.get(), id_copy.get()) == nullptr) return Asked::failed;
  id_copy.release();
  OCSP_request_add1_nonce(request.get(), nullptr, -1);
  unsigned char* der = nullptr;
  const int der_length = i2d_OCSP_REQUEST(request.get(), &der);
  if (der_length <= 0) return Asked::failed;
  http::Request http_request;
  http_request.url = url;
  http_request.content_type = "application/ocsp-request";
  http_request.body.assign(reinterpret_cast<char*>(der), static_cast<size_t>(der_length));
  http_request.timeout = timeout;
  http_request.max_response = 1u << 20;
  OPENSSL_free(der);
  http::Body body;
  if (!http::fetch(http_request, body)) return Asked::failed;
  return read_responder_body(body->bytes(), request.get(), id, issuer, answer);
}

}  // namespace

Verdict read_ocsp_body(std::string_view body, OCSP_REQUEST* request, X509* cert, X509* issuer) {
  UniquePtr<OCSP_CERTID> id(OCSP_cert_to_id(nullptr, cert, issuer));
  OcspAnswer answer;
  Result result;
  if (!id || read_responder_body(body, request, id.get(), issuer, answer) != Asked::answered ||
      !apply_ocsp(answer, std::time(nullptr), result, Source::ocsp, true))
    return Verdict::unknown;
  return result.verdict;
}

Verdict read_crl_body(std::string_view body, X509* cert, X509* issuer) {
  UniquePtr<X509_CRL> crl = parse_crl(body);
  Result result;
  const time_t now = std::time(nullptr);
  if (!crl || consult_crl(crl.get(), cert, issuer, now, now, result) == CrlSays::not_applicable) return Verdict::unknown;
  return result.verdict;
}

std::chrono::milliseconds default_timeout() {
  if (const char* text = std::getenv("BV_PLATFORM_URL_TIMEOUT_MS")) {
    char* end = nullptr;
    const long value = strtol_l(text, &end, 10, ansi_locale());
    if (end != text && *end == '\0' && value > 0) return std::chrono::milliseconds(value);
  }
  return std::chrono::milliseconds(15000);
}

namespace {
std::atomic<unsigned> clear_count{0};
}  // namespace

unsigned cache_generation() { return clear_count.load(); }

void clear_cache() {
  clear_count.fetch_add(1);
  std::lock_guard lock(cache().mutex);
  cache().crls.clear();
  cache().responses.clear();
  cache().offline_until.clear();
  cache().verified_crls.clear();
}

Result check(X509* cert, X509* issuer, const Options& options) {
  const time_t now = std::time(nullptr);
  const time_t at = options.at != 0 ? options.at : now;
  Result result;
  bool has_source = false;

  // 1. CRLs of the stores.  A revocation in any of them decides; a current
  //    one that doesn't list the certificate makes it good.
  const time_t current_at = options.judge_at ? at : now;
  bool good_by_store = false;
  for (X509_CRL* crl : options.store_crls) {
    Result one;
    switch (consult_crl(crl, cert, issuer, at, current_at, one)) {
      case CrlSays::revoked:
        one.source = Source::store_crl;
        return with_crl(std::move(one), crl, options);
      case CrlSays::good:
        if (!good_by_store) result = with_crl(std::move(one), crl, options);
        result.source = Source::store_crl;
        good_by_store = true;
        break;
      case CrlSays::stale:
        has_source = true;
        break;
      case CrlSays::not_applicable:
        break;
    }
  }
  if (good_by_store) return result;

  UniquePtr<OCSP_CERTID> id(OCSP_cert_to_id(nullptr, cert, issuer));
  ERR_clear_error();

  // Responses the caller brings: one from an authorised responder that
  // speaks of this certificate and was current decides.
  for (OCSP_BASICRESP* basic : options.given_responses) {
    if (!id || !responder_is_authorised(basic, issuer)) continue;
    int status = -1, reason = -1;
    ASN1_GENERALIZEDTIME *revoked_at = nullptr, *this_update = nullptr, *next_update = nullptr;
    const bool found =
        OCSP_resp_find_status(basic, id.get(), &status, &reason, &revoked_at, &this_update, &next_update) == 1;
    ERR_clear_error();
    if (!found || unix_time_of(this_update) > current_at + kClockSkewSeconds ||
        (next_update != nullptr && unix_time_of(next_update) + kClockSkewSeconds < current_at))
      continue;
    OcspAnswer answer;
    answer.status = status;
    answer.reason = reason;
    answer.revoked_at = unix_time_of(revoked_at);
    answer.this_update = unix_time_of(this_update);
    if (apply_ocsp(answer, at, result, Source::given_ocsp, false)) return result;
  }

  // 2. What the cache holds for this certificate.
  const std::string id_key = id ? encode_id(id.get()) : std::string();
  if (!id_key.empty()) {
    std::lock_guard lock(cache().mutex);
    auto it = cache().responses.find(id_key);
    if (it != cache().responses.end()) {
      if (it->second.expires >= now && apply_ocsp(it->second, at, result, Source::cached_ocsp, options.keep_evidence)) return result;
      cache().responses.erase(it);
    }
  }
  const std::vector<std::string> responders = ocsp_urls(cert);
  const std::vector<std::string> distribution_points = distribution_point_urls(cert);
  for (const std::string& url : distribution_points) {
    if (!fetchable(url)) continue;
    has_source = true;
    if (UniquePtr<X509_CRL> crl = cached_crl(url, now)) {
      Result one;
      const CrlSays says = consult_crl(crl.get(), cert, issuer, at, now, one);
      if (says == CrlSays::revoked || says == CrlSays::good) {
        one.source = Source::cached_crl;
        return with_crl(std::move(one), crl.get(), options);
      }
    }
  }
  for (const std::string& url : responders)
    if (fetchable(url)) has_source = true;

  // 3. The certificate's own sources: OCSP first, it is the cheaper answer.
  bool responder_said_unknown = false;
  if (options.network) {
    for (const std::string& url : responders) {
      std::chrono::milliseconds timeout{};
      if (!id || !fetchable(url) || !request_budget(url, options, timeout)) continue;
      OcspAnswer answer;
      switch (ask_responder(url, id.get(), issuer, timeout, answer)) {
        case Asked::answered:
          if (answer.expires > now) {
            std::lock_guard lock(cache().mutex);
            if (cache().responses.size() >= kMaxCachedResponses) cache().responses.clear();
            cache().responses[id_key] = answer;
          }
          apply_ocsp(answer, at, result, Source::ocsp, options.keep_evidence);
          return result;
        case Asked::responder_unknown:
          responder_said_unknown = true;
          break;
        case Asked::failed:
          mark_offline(url);
          break;
      }
    }
    for (const std::string& url : distribution_points) {
      std::chrono::milliseconds timeout{};
      if (!fetchable(url) || !request_budget(url, options, timeout)) continue;
      http::Request request;
      request.url = url;
      request.timeout = timeout;
      http::Body body;
      UniquePtr<X509_CRL> crl;
      if (http::fetch(request, body)) {
        crl = parse_crl(body->bytes());
        if (!crl) SetLastError(ERROR_HTTP_INVALID_SERVER_RESPONSE);
      }
      if (!crl) {
        mark_offline(url);
        continue;
      }
      Result one;
      const CrlSays says = consult_crl(crl.get(), cert, issuer, at, now, one);
      if (says == CrlSays::revoked || says == CrlSays::good) {
        remember_crl(url, crl.get(), now);
        one.source = Source::downloaded_crl;
        return with_crl(std::move(one), crl.get(), options);
      }
      // Not the issuer's, or out of date: this point gave no usable answer.
      mark_offline(url);
    }
  }

  if (responder_said_unknown && distribution_points.empty()) {
    result.verdict = Verdict::unknown;
    result.error = CRYPT_E_NO_REVOCATION_CHECK;
  } else if (has_source) {
    result.verdict = Verdict::offline;
    result.error = CRYPT_E_REVOCATION_OFFLINE;
  } else {
    result.verdict = Verdict::unknown;
    result.error = CRYPT_E_NO_REVOCATION_CHECK;
  }
  return result;
}

}  // namespace bv::platform::revocation
