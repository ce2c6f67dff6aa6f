// Format, hash and encryption names as the host gives them: counted text,
// compared as bytes with case.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wintypes.h"

// Compares at most `count` bytes and stops at a terminator both texts share,
// so an `a` of `count` bytes that is a prefix of `b` compares equal.
int _mbsnbcmp(const unsigned char* a, const unsigned char* b, size_t count);

// 0 for "PKCS7", "CADES", "PKCS7_CADES", "PKCS7_ANY" at their exact lengths
// (writing 1 to *isCades for the two CAdES names), 2 otherwise with a
// warning line.  Always writes *isCades.
int check_ssf_format(const char* strFormat, int32_t strFormatL, unsigned char* isCades);

// The second chance of the operations that take bare signatures: 1 for
// "RAW_GOST" at length 8, 2 for "RAW_GOST_INVERTED" at length 17, else 0.
unsigned char raw_gost_format(const char* strFormat, int32_t strFormatL);

struct HashName {
  const char* name;
  const char* oid;
  DWORD provider_type;
};

// The first row whose name the given text matches as a prefix (see
// _mbsnbcmp); null for a length below 1 or no match.
const HashName* find_hash_name(const char* strHashAlg, int32_t strHashAlgL);

// The content encryption OID for "GOST28147" or "GOST-28147-89" (prefixes
// match as for hash names); null otherwise.
const char* find_encryption_oid(const char* strEncrAlg, int32_t strEncrAlgL);
