// The OID information of crypt32: one constant table of hash, encryption,
// public key and signature algorithms, searched and enumerated.
#pragma once

#include "wincrypt_types.h"

struct CRYPT_OID_INFO {
  DWORD cbSize;
  LPCSTR pszOID;
  LPCWSTR pwszName;
  DWORD dwGroupId;
  union {
    DWORD dwValue;
    ALG_ID Algid;
    DWORD dwLength;
  };
  CRYPT_DATA_BLOB ExtraInfo;
  LPCWSTR pwszCNGAlgid;
  LPCWSTR pwszCNGExtraAlgid;
};
using PCRYPT_OID_INFO = CRYPT_OID_INFO*;
using PCCRYPT_OID_INFO = const CRYPT_OID_INFO*;
static_assert(sizeof(CRYPT_OID_INFO) == 64);
static_assert(offsetof(CRYPT_OID_INFO, Algid) == 28);
static_assert(offsetof(CRYPT_OID_INFO, ExtraInfo) == 32);

constexpr DWORD CRYPT_HASH_ALG_OID_GROUP_ID = 1;
constexpr DWORD CRYPT_ENCRYPT_ALG_OID_GROUP_ID = 2;
constexpr DWORD CRYPT_PUBKEY_ALG_OID_GROUP_ID = 3;
constexpr DWORD CRYPT_SIGN_ALG_OID_GROUP_ID = 4;

constexpr DWORD CRYPT_OID_INFO_OID_KEY = 1;
constexpr DWORD CRYPT_OID_INFO_NAME_KEY = 2;
constexpr DWORD CRYPT_OID_INFO_ALGID_KEY = 3;
// pvKey points to two ALG_IDs: the hash, then the public key.
constexpr DWORD CRYPT_OID_INFO_SIGN_KEY = 4;

// Group 0 searches every group.  Null (last error untouched) if nothing fits.
PCCRYPT_OID_INFO CryptFindOIDInfo(DWORD dwKeyType, void* pvKey, DWORD dwGroupId);

using PFN_CRYPT_ENUM_OID_INFO = BOOL (*)(PCCRYPT_OID_INFO pInfo, void* pvArg);

// Calls `pfnEnumOIDInfo` for each record of the group (0: all) in table
// order; FALSE as soon as the callback returns FALSE, else TRUE.
BOOL CryptEnumOIDInfo(DWORD dwGroupId, DWORD dwFlags, void* pvArg, PFN_CRYPT_ENUM_OID_INFO pfnEnumOIDInfo);
