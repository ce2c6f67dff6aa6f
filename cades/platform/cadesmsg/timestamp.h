// The RFC 3161 client of the CAdES layer: a time stamp over a hash, used
// only after every check has passed.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <string_view>

#include "cadesmsg/evidence.h"

namespace bv::cades {

// The service used when the caller names none: DefaultTSP of section
// [cades] in Brelvantec/cades.ini (per-user folder, then the machine-wide one,
// which wins), else BV_CADES_DEFAULT_TSP.  Empty when neither is set.
std::string default_time_stamp_service();

struct TimeStamp {
  std::string token;                  // DER ContentInfo of the token
  UniquePtr<X509> authority;          // the certificate that signed it
  std::vector<UniquePtr<X509>> certificates;  // those the token carries
};

// Asks `url` for a time stamp over `data` hashed with `md`, with a nonce and
// the authority's certificate requested.  The answer is used only when it is
// granted, its imprint and nonce are those sent, its signer is a time
// stamping authority (critical time stamping usage) that `prove_authority`
// accepts (its path to a Root anchor, proved not revoked), and the token's
// signature is valid under it.  False with the last error: the HTTP
// client's (server down, time-out), E_ACCESSDENIED (refused),
// ERROR_HTTP_INVALID_SERVER_RESPONSE (not a time stamp response),
// TRUST_E_TIME_STAMP (imprint, nonce or signature wrong), CERT_E_WRONG_USAGE,
// or what `prove_authority` set.
bool request_time_stamp(const std::string& url, const EVP_MD* md, std::string_view data,
                        const std::function<bool(TimeStamp&)>& prove_authority, TimeStamp& out);

// request_time_stamp's reading of the service's `body`, the answer to
// `request`, without the download (the fuzzers' way in): the same checks
// and results.
bool read_time_stamp_response(std::string_view body, TS_REQ* request,
                              const std::function<bool(TimeStamp&)>& prove_authority, TimeStamp& out);

// The certificates of a token and the one that signed it.
bool token_authority(const std::string& token, TimeStamp& out);

}  // namespace bv::cades
