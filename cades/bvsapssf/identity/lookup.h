// From a signer record to a certificate with a usable key: the store its
// profile names, the identity read as a hash or a DN, and the walk of the
// store under the chain policy.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "bvsapssf_api.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "identity/identity.h"
#include "identity/signer_key.h"

// Which operation opens the store: the default name and the flags differ.
enum class ProfileStoreUse { Sign, AddSign, Develope, Envelope, Verify };

// Opens the system store that `name` names (counted text; "m" and "u" pick
// the location, "<TIME>" and 14 leading digits are skipped).  A length of 0
// or less opens the operation's default.  Empty with the last error set when
// the store can't be opened.
bv::platform::CertStore open_profile_store(const char* name, int32_t nameL, ProfileStoreUse use);

// The hash blob a call's identities share (parse_CertHashID reuses its
// buffer): one buffer at most, freed when the call ends.
struct SharedHash {
  CRYPT_HASH_BLOB blob{0, nullptr};
  SharedHash() = default;
  SharedHash(const SharedHash&) = delete;
  SharedHash& operator=(const SharedHash&) = delete;
  ~SharedHash() { std::free(blob.pbData); }
};

// An identity read for a store search: by hash (CERT_FIND_SHA1_HASH with
// the blob) or by DN (every certificate, each subject held against the
// wanted items).
class IdentityMatches {
 public:
  // Reads the record's identity; `hash` is the call's shared blob (reused,
  // freed by the caller).  False when the identity can't be read.
  bool read(const char* strSigRcpId, int32_t strSigRcpIdL, CRYPT_HASH_BLOB* hash);

  // Moves `cert` to the next certificate of `store` the identity names; the
  // previous one goes back to the store.  A subject that can't be read is
  // traced, sets the record's Result to 27 and is passed over.
  bool next(HCERTSTORE store, const char* trace_function, SsfInfo* info, bv::platform::CertContext& cert);

 private:
  DWORD find_type_ = 0;
  const void* find_para_ = nullptr;
  RdnList wanted_;
  std::vector<char> subject_;  // rendered subjects, reused between candidates
};

// Which operation walks a store for its signer: signing and adding a
// signature word the policy's refusal and the key failures differently.
enum class SignerWalk { Sign, AddSign };

// Walks `store` for the first certificate `matches` names that passes the
// chain policy (when VerifyCertOnSign is on) and whose key opens; on Found
// `certs` owns it and `encode` is filled.  Trace lines carry `trace_function`.
SearchStep walk_to_signer(HCERTSTORE store, IdentityMatches& matches, const char* trace_function, SsfInfo* info,
                          CMSG_SIGNER_ENCODE_INFO* encode, SignerCertList& certs, SignerWalk walk);

// State one signing call shares between its signers.
struct SignerSearch {
  CRYPT_HASH_BLOB hash{0, nullptr};  // shared by all signers; freed once, after the last
  int32_t failures = 0;              // signers left without a certificate
  SignerCertList certs;              // the winners, in signer order
};

// Runs the search for the signer at `index` (its record is not null): writes
// its Result, counts a failure in `search`, and on success fills `encode`
// and appends the certificate.  CallEnds leaves the failure uncounted: the
// operation ends.  Trace lines carry `trace_function`.
SearchStep search_signer_certificate(const char* trace_function, SsfInfo* info, int index,
                               CMSG_SIGNER_ENCODE_INFO* encode, SignerSearch& search);
