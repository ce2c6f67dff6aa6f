// The key services of advapi32 over a key container opened for a
// certificate (CryptAcquireCertificatePrivateKey): provider parameters and
// signing a hash.
#pragma once

#include "wincrypt_types.h"

constexpr DWORD PP_NAME = 4;
constexpr DWORD PP_CONTAINER = 6;
constexpr DWORD PP_PROVTYPE = 16;
// Answered only by a container whose key is open: the PIN it was given
// decrypted the key file and the key is the certificate's.
constexpr DWORD PP_KEY_OPENED = 109;

BOOL CryptGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);

// Signs the hash value with the container's key.  The signature comes in the
// order of the platform's GOST providers: the reverse of the order the
// signature value has in CMS and X.509.
BOOL CryptSignHashA(HCRYPTHASH hHash, DWORD dwKeySpec, LPCSTR szDescription, DWORD dwFlags, BYTE* pbSignature,
                    DWORD* pdwSigLen);
