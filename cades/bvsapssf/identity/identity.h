// Signer and recipient identities: a certificate hash in hexadecimal, or a
// distinguished name that is held item by item against a certificate's
// subject.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "wincrypt_types.h"

// Items of a DN in normal form: "<OID or key>=<value without quotes>", in
// order of appearance.
using RdnList = std::list<std::string>;

// True when every byte is a hexadecimal digit or white space.
bool is_hash_id(const char* strSigRcpId, int32_t strSigRcpIdL);

// Reads the hash text into `hash`, reallocating pbData (which the caller
// frees with free()).  False when the text is no whole hash (a digit
// without its partner, a blank inside a pair), with nothing allocated, or
// when the buffer can't be had.
bool parse_CertHashID(const char* strSigRcpId, int32_t strSigRcpIdL, CRYPT_HASH_BLOB* hash);

// Pairs of hex digits, white space allowed between pairs.  True, with the
// number of bytes in *count, when the text is read to its end; false, with
// *count untouched, where a pair is broken.  With a null `out` it only
// counts; otherwise it writes at most `capacity` bytes (false for more).
bool parse_hex_string(const char* text, int32_t length, BYTE* out, DWORD capacity, DWORD* count);

// "0a 1b ff": lower case, one blank between bytes.
std::string bytes_to_hex_string(const BYTE* bytes, int32_t count);

// 0, -1 (an RDN without "=" or starting with it) or 24 (nothing behind the
// last "=").  The items made before a failure stay in `rdns`.
int32_t parse_dn_string(const char* text, int32_t length, RdnList& rdns);

// Turns each "\uXXXX" of the item into one character of the ANSI code page.
int32_t unescape_rdn(std::string& rdn);

// True when each wanted item, bytes and length, is among `have`.
bool dn_contains_all(const RdnList& wanted, const RdnList& have);
