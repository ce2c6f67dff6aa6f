// Bare GOST signatures: the signature value of the provider, without any
// message around it.
#pragma once

#include <cstdint>

#include "wincrypt_types.h"

// Hashes `data` with the hash of `hashOid` (GOST R 34.11-94 when null) and
// signs it with the key of `hProv`.  On success *out is a malloc block of
// *outLen bytes in the provider's byte order; on false the last error holds
// the cause and *outLen is 0.
bool calc_simple_sign(HCRYPTPROV hProv, const char* hashOid, DWORD keySpec, const unsigned char* data,
                      int32_t dataLen, unsigned char** out, uint32_t* outLen);

// Reverses a byte string in place.
void reverse_bytes(unsigned char* buffer, uint32_t length);
