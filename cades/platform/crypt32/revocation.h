// Revocation status of one certificate, given its issuer: CRLs the caller
// found in stores, then what the process has cached, then the certificate's
// own sources over HTTP (OCSP from authority information access, then CRL
// distribution points).  Works on OpenSSL objects; the chain engine maps the
// verdict to its status bits.  docs/revocation.md tells the order and rules.
#pragma once

#include <openssl/ocsp.h>
#include <openssl/x509.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wincrypt_types.h"

namespace bv::platform::revocation {

enum class Verdict {
  good,
  revoked,
  unknown,  // no source for this certificate at all
  offline,  // it has sources, but none gave an answer that could be used
};

enum class Source { none, store_crl, cached_crl, downloaded_crl, cached_ocsp, ocsp, given_ocsp };

struct Result {
  Verdict verdict = Verdict::unknown;
  Source source = Source::none;
  // 0, CRYPT_E_REVOKED, CRYPT_E_NO_REVOCATION_CHECK or CRYPT_E_REVOCATION_OFFLINE.
  DWORD error = CRYPT_E_NO_REVOCATION_CHECK;
  time_t this_update = 0;  // of the deciding CRL or response, 0 if none
  time_t next_update = 0;  // of the deciding CRL or response, 0 if none or it has none
  int reason = -1;         // CRL reason code of a revocation, -1 if none given
  // What decided, DER-encoded, when Options::keep_evidence asked for it: the
  // CRL, or the BasicOCSPResponse (source cached_ocsp or ocsp).
  std::string evidence;
};

using Clock = std::chrono::steady_clock;

struct Options {
  time_t at = 0;                              // the time the status is wanted for; 0: now
  bool network = true;                        // false: stores and cache only
  std::chrono::milliseconds timeout{15000};   // per request
  std::optional<Clock::time_point> deadline;  // shared by all requests of one chain, if set
  std::vector<X509_CRL*> store_crls;          // borrowed: the CRLs of the stores
  bool keep_evidence = false;                 // fill Result::evidence (signatures that carry their proof)
  // Proof a signature carries, consulted after the stores' CRLs: OCSP
  // responses (borrowed).  With `judge_at` a CRL or response counts when it
  // was current at `at`, as archived proof is judged, instead of now.
  std::vector<OCSP_BASICRESP*> given_responses;
  bool judge_at = false;
};

// The status of `cert` issued by `issuer` (the same object for a
// self-signed certificate).  Never fails: what can't be learnt is a verdict.
Result check(X509* cert, X509* issuer, const Options& options);

// The per-request time-out: BV_PLATFORM_URL_TIMEOUT_MS when set to a number
// above 0, else 15 seconds.
std::chrono::milliseconds default_timeout();

// How check() reads a body a source sent, without the download (the
// fuzzers' way in): an OCSP responder's answer to `request` about `cert`,
// and a distribution point's CRL.  Unknown when the body decides nothing.
Verdict read_ocsp_body(std::string_view body, OCSP_REQUEST* request, X509* cert, X509* issuer);
Verdict read_crl_body(std::string_view body, X509* cert, X509* issuer);

// Forgets cached CRLs, OCSP answers and sources marked unreachable.
void clear_cache();

// Counts the calls of clear_cache(): what was learnt from the cache before
// a change of this number must be learnt again.
unsigned cache_generation();

}  // namespace bv::platform::revocation
