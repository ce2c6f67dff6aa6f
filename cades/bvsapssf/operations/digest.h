// The hash of one block through a provider, for SsfDigest's raw formats.
#pragma once

#include "advapi32/provider.h"
#include "wincrypt_types.h"

// Creates on `hProv` the hash of `hashOid` (GOST R 34.11-94 when null).
// False with the cause as last error and its "#error#" line written under
// the caller's `trace_function`.
bool create_hash_for_oid(const char* trace_function, HCRYPTPROV hProv, const char* hashOid,
                         bv::platform::HashObject& hash);

// Hashes `data` with the hash of `hashOid` (GOST R 34.11-94 when null) and
// hands back a malloc'd value.  False with the cause as last error; if only
// the final read failed, *out is already the caller's, with *outL 0.
bool calc_simple_hash(HCRYPTPROV hProv, const char* hashOid, const BYTE* data, DWORD dataL, BYTE** out,
                      DWORD* outL);
