// The private key of a signer's certificate: the PIN of the record handed to
// the provider through a property that is not persisted, the key opened and
// proven, and the hash that goes with the key.
#pragma once

#include <cstdint>
#include <list>

#include "bvsapssf_api.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"

// Certificates that won the search, in signer order.  Each holds its
// signer's provider handle (acquired with the cache flag), which goes with
// the context.
using SignerCertList = std::list<PCCERT_CONTEXT>;

// Frees the contexts and empties the list.
void free_signer_certs(SignerCertList& certs);

// 0 when the record's PIN is a marker ("!" to "!!!") or empty with asking
// allowed: the provider may then ask.  1 when the record's text is the PIN.
int32_t IsPinExplicit(const SsfInfo& info);

// How a step of the signer search ends.  CallEnds: the record's PIN has a
// negative length, which no text has; the operation then ends at once as
// an unexpected failure ends it (13), without a further signer.
enum class SearchStep { Found, NotFound, CallEnds };

// How opening a certificate's private key ends.  NoKeyHere: the
// certificate has no key on this machine, or its key property can't be
// set.  NotAcquired: the provider refused the key (Result 24; the last
// error is left for the caller).  PinRefused: the key is there but the PIN
// does not open it (Result 25).  CallEnds: see SearchStep.
enum class KeyOpen { Opened, NoKeyHere, NotAcquired, PinRefused, CallEnds };

// How the two lines of a refused key stand: "#trace#" at level 4 when
// signing and opening an envelope, "#info#" at level 2 when adding a
// signature.
enum class KeyLines { Trace, Info };

// The record's PIN handed to the provider through the certificate's key
// property (in memory only), the key acquired with the cache flag (it then
// goes with the context) and proven.  Traces the lines signing and opening
// an envelope share.
KeyOpen open_certificate_key(const char* trace_function, PCCERT_CONTEXT cert, SsfInfo* info, int32_t pin_explicit,
                             HCRYPTPROV* provider, DWORD* key_spec, KeyLines lines = KeyLines::Trace);

// Found: fills hCryptProv, dwKeySpec, HashAlgorithm, pCertInfo and the
// attribute counts of `encode`, and appends `cert` to `certs`, which from
// then on owns it.  NotFound: writes the record's Result as the cause
// demands and leaves `cert` to the caller.  Trace lines carry
// `trace_function`, the operation's name.
SearchStep acquire_signer_key(const char* trace_function, PCCERT_CONTEXT cert, SsfInfo* info,
                              CMSG_SIGNER_ENCODE_INFO* encode, SignerCertList& certs,
                              KeyLines lines = KeyLines::Trace);
