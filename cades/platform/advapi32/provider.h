// The provider functions of advapi32 that hashing needs, over OpenSSL with
// the GOST engine.  Provider types 75, 80 and 81 open as verify-only
// contexts; each offers every hash below:
//   CALG_GR3411 (GOST R 34.11-94, CryptoPro parameter set),
//   CALG_GR3411_2012_256, CALG_GR3411_2012_512, CALG_SHA1, CALG_MD5,
//   CALG_MD2 (only where OpenSSL still has it; else NTE_BAD_ALGID).
// Failures set the last error to the number a CryptoAPI caller would read.
#pragma once

#include "owned_handle.h"
#include "wincrypt_types.h"

constexpr DWORD CRYPT_VERIFYCONTEXT = 0xF0000000;
constexpr DWORD CRYPT_NEWKEYSET = 0x00000008;
constexpr DWORD CRYPT_DELETEKEYSET = 0x00000010;
constexpr DWORD CRYPT_MACHINE_KEYSET = 0x00000020;
constexpr DWORD CRYPT_SILENT = 0x00000040;

constexpr DWORD HP_ALGID = 0x0001;
constexpr DWORD HP_HASHVAL = 0x0002;
constexpr DWORD HP_HASHSIZE = 0x0004;

BOOL CryptAcquireContextA(HCRYPTPROV* phProv, LPCSTR szContainer, LPCSTR szProvider, DWORD dwProvType,
                          DWORD dwFlags);
BOOL CryptReleaseContext(HCRYPTPROV hProv, DWORD dwFlags);
BOOL CryptContextAddRef(HCRYPTPROV hProv, DWORD* pdwReserved, DWORD dwFlags);

BOOL CryptCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL CryptHashData(HCRYPTHASH hHash, const BYTE* pbData, DWORD dwDataLen, DWORD dwFlags);
BOOL CryptGetHashParam(HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);
BOOL CryptDestroyHash(HCRYPTHASH hHash);

namespace bv::platform {

void release_provider_context(HCRYPTPROV handle);
void destroy_hash_object(HCRYPTHASH handle);

using ProviderContext = OwnedHandle<HCRYPTPROV, release_provider_context>;
using HashObject = OwnedHandle<HCRYPTHASH, destroy_hash_object>;

}  // namespace bv::platform
