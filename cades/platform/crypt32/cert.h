// The certificate and store services of crypt32 that the library calls:
// certificate contexts and their properties, names, stores, and the private
// key of a certificate.  Names, values and x64 layouts follow the platform's
// public documentation, so that code written against it reads the same here.
#pragma once

#include "kernel32/kernel32.h"  // FILETIME
#include "owned_handle.h"
#include "wincrypt_types.h"

// ---------------------------------------------------------------------------
// Records

struct CERT_PUBLIC_KEY_INFO {
  CRYPT_ALGORITHM_IDENTIFIER Algorithm;
  CRYPT_BIT_BLOB PublicKey;
};
using PCERT_PUBLIC_KEY_INFO = CERT_PUBLIC_KEY_INFO*;

struct CERT_EXTENSION {
  LPSTR pszObjId;
  BOOL fCritical;
  CRYPT_OBJID_BLOB Value;
};
using PCERT_EXTENSION = CERT_EXTENSION*;

using PCERT_NAME_BLOB = CERT_NAME_BLOB*;
using PCRYPT_INTEGER_BLOB = CRYPT_INTEGER_BLOB*;

// SerialNumber holds the serial's two's-complement octets least significant
// first, the reverse of their order in the encoding.
struct CERT_INFO {
  DWORD dwVersion;
  CRYPT_INTEGER_BLOB SerialNumber;
  CRYPT_ALGORITHM_IDENTIFIER SignatureAlgorithm;
  CERT_NAME_BLOB Issuer;
  FILETIME NotBefore;
  FILETIME NotAfter;
  CERT_NAME_BLOB Subject;
  CERT_PUBLIC_KEY_INFO SubjectPublicKeyInfo;
  CRYPT_BIT_BLOB IssuerUniqueId;
  CRYPT_BIT_BLOB SubjectUniqueId;
  DWORD cExtension;
  PCERT_EXTENSION rgExtension;
};
using PCERT_INFO = CERT_INFO*;

struct CERT_CONTEXT {
  DWORD dwCertEncodingType;
  BYTE* pbCertEncoded;
  DWORD cbCertEncoded;
  PCERT_INFO pCertInfo;
  HCERTSTORE hCertStore;
};
using PCERT_CONTEXT = CERT_CONTEXT*;
using PCCERT_CONTEXT = const CERT_CONTEXT*;

struct CRYPT_KEY_PROV_PARAM {
  DWORD dwParam;
  BYTE* pbData;
  DWORD cbData;
  DWORD dwFlags;
};
using PCRYPT_KEY_PROV_PARAM = CRYPT_KEY_PROV_PARAM*;

// Here pwszContainerName is the path of the key file, in UTF-16.
struct CRYPT_KEY_PROV_INFO {
  LPWSTR pwszContainerName;
  LPWSTR pwszProvName;
  DWORD dwProvType;
  DWORD dwFlags;
  DWORD cProvParam;
  PCRYPT_KEY_PROV_PARAM rgProvParam;
  DWORD dwKeySpec;
};
using PCRYPT_KEY_PROV_INFO = CRYPT_KEY_PROV_INFO*;

static_assert(sizeof(CRYPT_BIT_BLOB) == 24);
static_assert(sizeof(CERT_PUBLIC_KEY_INFO) == 48);
static_assert(sizeof(CERT_EXTENSION) == 32);
static_assert(sizeof(CERT_INFO) == 208);
static_assert(sizeof(CERT_CONTEXT) == 40);
static_assert(sizeof(CRYPT_KEY_PROV_PARAM) == 24);
static_assert(sizeof(CRYPT_KEY_PROV_INFO) == 48);

// ---------------------------------------------------------------------------
// Store providers (pointer-typed small integers, as on the platform) and flags

#define CERT_STORE_PROV_MSG ((LPCSTR)1)
#define CERT_STORE_PROV_MEMORY ((LPCSTR)2)
#define CERT_STORE_PROV_FILE ((LPCSTR)3)
#define CERT_STORE_PROV_REG ((LPCSTR)4)
#define CERT_STORE_PROV_PKCS7 ((LPCSTR)5)
#define CERT_STORE_PROV_SERIALIZED ((LPCSTR)6)
#define CERT_STORE_PROV_FILENAME_A ((LPCSTR)7)
#define CERT_STORE_PROV_FILENAME_W ((LPCSTR)8)
#define CERT_STORE_PROV_SYSTEM_A ((LPCSTR)9)
#define CERT_STORE_PROV_SYSTEM_W ((LPCSTR)10)
#define CERT_STORE_PROV_COLLECTION ((LPCSTR)11)

constexpr DWORD CERT_STORE_NO_CRYPT_RELEASE_FLAG = 0x00000001;
constexpr DWORD CERT_STORE_SET_LOCALIZED_NAME_FLAG = 0x00000002;
constexpr DWORD CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG = 0x00000004;
constexpr DWORD CERT_STORE_DELETE_FLAG = 0x00000010;
constexpr DWORD CERT_STORE_SHARE_STORE_FLAG = 0x00000040;
constexpr DWORD CERT_STORE_SHARE_CONTEXT_FLAG = 0x00000080;
constexpr DWORD CERT_STORE_MANIFOLD_FLAG = 0x00000100;
constexpr DWORD CERT_STORE_ENUM_ARCHIVED_FLAG = 0x00000200;
constexpr DWORD CERT_STORE_UPDATE_KEYID_FLAG = 0x00000400;
constexpr DWORD CERT_STORE_BACKUP_RESTORE_FLAG = 0x00000800;
constexpr DWORD CERT_STORE_MAXIMUM_ALLOWED_FLAG = 0x00001000;
constexpr DWORD CERT_STORE_CREATE_NEW_FLAG = 0x00002000;
constexpr DWORD CERT_STORE_OPEN_EXISTING_FLAG = 0x00004000;
constexpr DWORD CERT_STORE_READONLY_FLAG = 0x00008000;

constexpr DWORD CERT_SYSTEM_STORE_LOCATION_MASK = 0x00FF0000;
constexpr DWORD CERT_SYSTEM_STORE_LOCATION_SHIFT = 16;
constexpr DWORD CERT_SYSTEM_STORE_CURRENT_USER = 1u << 16;   // 0x10000
constexpr DWORD CERT_SYSTEM_STORE_LOCAL_MACHINE = 2u << 16;  // 0x20000

constexpr DWORD CERT_CLOSE_STORE_FORCE_FLAG = 0x00000001;
constexpr DWORD CERT_CLOSE_STORE_CHECK_FLAG = 0x00000002;

// Dispositions of CertAddCertificateContextToStore.
constexpr DWORD CERT_STORE_ADD_NEW = 1;
constexpr DWORD CERT_STORE_ADD_USE_EXISTING = 2;
constexpr DWORD CERT_STORE_ADD_REPLACE_EXISTING = 3;
constexpr DWORD CERT_STORE_ADD_ALWAYS = 4;
constexpr DWORD CERT_STORE_ADD_REPLACE_EXISTING_INHERIT_PROPERTIES = 5;
constexpr DWORD CERT_STORE_ADD_NEWER = 6;
constexpr DWORD CERT_STORE_ADD_NEWER_INHERIT_PROPERTIES = 7;

// ---------------------------------------------------------------------------
// Properties

constexpr DWORD CERT_KEY_PROV_HANDLE_PROP_ID = 1;
constexpr DWORD CERT_KEY_PROV_INFO_PROP_ID = 2;
constexpr DWORD CERT_SHA1_HASH_PROP_ID = 3;
constexpr DWORD CERT_MD5_HASH_PROP_ID = 4;
constexpr DWORD CERT_HASH_PROP_ID = CERT_SHA1_HASH_PROP_ID;
constexpr DWORD CERT_KEY_CONTEXT_PROP_ID = 5;
constexpr DWORD CERT_KEY_SPEC_PROP_ID = 6;
constexpr DWORD CERT_FRIENDLY_NAME_PROP_ID = 11;

constexpr DWORD CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG = 0x40000000;
constexpr DWORD CERT_SET_PROPERTY_IGNORE_PERSIST_ERROR_FLAG = 0x80000000;

// Key specs and provider parameters.
constexpr DWORD AT_KEYEXCHANGE = 1;
constexpr DWORD AT_SIGNATURE = 2;
constexpr DWORD PP_KEYEXCHANGE_PIN = 32;
constexpr DWORD PP_SIGNATURE_PIN = 33;

// CryptAcquireCertificatePrivateKey.
constexpr DWORD CRYPT_ACQUIRE_CACHE_FLAG = 0x00000001;
constexpr DWORD CRYPT_ACQUIRE_USE_PROV_INFO_FLAG = 0x00000002;
constexpr DWORD CRYPT_ACQUIRE_COMPARE_KEY_FLAG = 0x00000004;
constexpr DWORD CRYPT_ACQUIRE_NO_HEALING = 0x00000008;
constexpr DWORD CRYPT_ACQUIRE_SILENT_FLAG = 0x00000040;
constexpr DWORD CRYPT_ACQUIRE_WINDOW_HANDLE_FLAG = 0x00000080;

constexpr DWORD NTE_BAD_PUBLIC_KEY = 0x80090015;

// ---------------------------------------------------------------------------
// Find types: (compare function << 16) | which name of CERT_INFO

constexpr DWORD CERT_COMPARE_SHIFT = 16;
constexpr DWORD CERT_COMPARE_ANY = 0;
constexpr DWORD CERT_COMPARE_SHA1_HASH = 1;
constexpr DWORD CERT_COMPARE_NAME = 2;
constexpr DWORD CERT_COMPARE_NAME_STR_A = 7;
constexpr DWORD CERT_COMPARE_EXISTING = 13;
constexpr DWORD CERT_COMPARE_CERT_ID = 16;
constexpr DWORD CERT_COMPARE_SUBJECT_CERT = 11;
constexpr DWORD CERT_INFO_ISSUER_FLAG = 4;
constexpr DWORD CERT_INFO_SUBJECT_FLAG = 7;

constexpr DWORD CERT_FIND_ANY = CERT_COMPARE_ANY << CERT_COMPARE_SHIFT;              // 0
constexpr DWORD CERT_FIND_SHA1_HASH = CERT_COMPARE_SHA1_HASH << CERT_COMPARE_SHIFT;  // 0x10000
constexpr DWORD CERT_FIND_HASH = CERT_FIND_SHA1_HASH;
constexpr DWORD CERT_FIND_SUBJECT_NAME = (CERT_COMPARE_NAME << CERT_COMPARE_SHIFT) | CERT_INFO_SUBJECT_FLAG;
constexpr DWORD CERT_FIND_ISSUER_NAME = (CERT_COMPARE_NAME << CERT_COMPARE_SHIFT) | CERT_INFO_ISSUER_FLAG;
constexpr DWORD CERT_FIND_SUBJECT_STR_A = (CERT_COMPARE_NAME_STR_A << CERT_COMPARE_SHIFT) | CERT_INFO_SUBJECT_FLAG;
constexpr DWORD CERT_FIND_EXISTING = CERT_COMPARE_EXISTING << CERT_COMPARE_SHIFT;
constexpr DWORD CERT_FIND_SUBJECT_CERT = CERT_COMPARE_SUBJECT_CERT << CERT_COMPARE_SHIFT;

// ---------------------------------------------------------------------------
// Name strings

constexpr DWORD CERT_SIMPLE_NAME_STR = 1;
constexpr DWORD CERT_OID_NAME_STR = 2;
constexpr DWORD CERT_X500_NAME_STR = 3;
constexpr DWORD CERT_NAME_STR_SEMICOLON_FLAG = 0x40000000;
constexpr DWORD CERT_NAME_STR_NO_PLUS_FLAG = 0x20000000;
constexpr DWORD CERT_NAME_STR_NO_QUOTING_FLAG = 0x10000000;
constexpr DWORD CERT_NAME_STR_CRLF_FLAG = 0x08000000;
constexpr DWORD CERT_NAME_STR_COMMA_FLAG = 0x04000000;
constexpr DWORD CERT_NAME_STR_REVERSE_FLAG = 0x02000000;
constexpr DWORD CERT_NAME_STR_FORWARD_FLAG = 0x01000000;

// Structure types of CryptDecodeObject that this platform decodes.
#define PKCS_UTC_TIME ((LPCSTR)17)
#define szOID_RSA_signingTime "1.2.840.113549.1.9.5"

// ---------------------------------------------------------------------------
// Functions

PCCERT_CONTEXT CertCreateCertificateContext(DWORD dwCertEncodingType, const BYTE* pbCertEncoded,
                                            DWORD cbCertEncoded);
PCCERT_CONTEXT CertDuplicateCertificateContext(PCCERT_CONTEXT pCertContext);
BOOL CertFreeCertificateContext(PCCERT_CONTEXT pCertContext);

// Reads a property with the two-call size pattern: null pvData gives the size.
BOOL CertGetCertificateContextProperty(PCCERT_CONTEXT pCertContext, DWORD dwPropId, void* pvData,
                                       DWORD* pcbData);
// CERT_KEY_PROV_INFO_PROP_ID takes a CRYPT_KEY_PROV_INFO*, null removes it.
BOOL CertSetCertificateContextProperty(PCCERT_CONTEXT pCertContext, DWORD dwPropId, DWORD dwFlags,
                                       const void* pvData);

// Issuer and serial number of the two.
BOOL CertCompareCertificate(DWORD dwCertEncodingType, PCERT_INFO pCertId1, PCERT_INFO pCertId2);
// The two encoded names, byte for byte.
BOOL CertCompareCertificateName(DWORD dwCertEncodingType, PCERT_NAME_BLOB pCertName1,
                                PCERT_NAME_BLOB pCertName2);
BOOL CertCompareIntegerBlob(PCRYPT_INTEGER_BLOB pInt1, PCRYPT_INTEGER_BLOB pInt2);

// Characters written or needed, terminator included; never less than 1.
// Text is in the ANSI code page (1251).
DWORD CertNameToStrA(DWORD dwCertEncodingType, PCERT_NAME_BLOB pName, DWORD dwStrType, LPSTR psz,
                     DWORD csz);

PCRYPT_ATTRIBUTE CertFindAttribute(LPCSTR pszObjId, DWORD cAttr, CRYPT_ATTRIBUTE rgAttr[]);

// Decodes szOID_RSA_signingTime / PKCS_UTC_TIME (UTCTime or GeneralizedTime)
// into a FILETIME.
BOOL CryptDecodeObject(DWORD dwCertEncodingType, LPCSTR lpszStructType, const BYTE* pbEncoded,
                       DWORD cbEncoded, DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo);

// Stores.  pvPara is the store name (LPCWSTR) for CERT_STORE_PROV_SYSTEM_W,
// an LPCSTR for CERT_STORE_PROV_SYSTEM_A, ignored for CERT_STORE_PROV_MEMORY.
HCERTSTORE CertOpenStore(LPCSTR lpszStoreProvider, DWORD dwEncodingType, HCRYPTPROV_LEGACY hCryptProv,
                         DWORD dwFlags, const void* pvPara);
BOOL CertCloseStore(HCERTSTORE hCertStore, DWORD dwFlags);
PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE hCertStore, PCCERT_CONTEXT pPrevCertContext);
PCCERT_CONTEXT CertFindCertificateInStore(HCERTSTORE hCertStore, DWORD dwCertEncodingType,
                                          DWORD dwFindFlags, DWORD dwFindType, const void* pvFindPara,
                                          PCCERT_CONTEXT pPrevCertContext);
BOOL CertAddCertificateContextToStore(HCERTSTORE hCertStore, PCCERT_CONTEXT pCertContext,
                                      DWORD dwAddDisposition, PCCERT_CONTEXT* ppStoreContext);
BOOL CertAddEncodedCertificateToStore(HCERTSTORE hCertStore, DWORD dwCertEncodingType,
                                      const BYTE* pbCertEncoded, DWORD cbCertEncoded,
                                      DWORD dwAddDisposition, PCCERT_CONTEXT* ppCertContext);
PCCERT_CONTEXT CertGetSubjectCertificateFromStore(HCERTSTORE hCertStore, DWORD dwCertEncodingType,
                                                  PCERT_INFO pCertId);

// The private key of a certificate, through its CERT_KEY_PROV_INFO_PROP_ID.
// With CRYPT_ACQUIRE_CACHE_FLAG the handle belongs to the context and goes
// with it (*pfCallerFreeProvOrNCryptKey FALSE).
BOOL CryptAcquireCertificatePrivateKey(PCCERT_CONTEXT pCert, DWORD dwFlags, void* pvParameters,
                                       HCRYPTPROV_OR_NCRYPT_KEY_HANDLE* phCryptProvOrNCryptKey,
                                       DWORD* pdwKeySpec, BOOL* pfCallerFreeProvOrNCryptKey);

namespace bv::platform {

void close_cert_store(HCERTSTORE store);
void free_cert_context(PCCERT_CONTEXT context);

using CertStore = OwnedHandle<HCERTSTORE, close_cert_store>;
using CertContext = OwnedHandle<PCCERT_CONTEXT, free_cert_context>;

}  // namespace bv::platform
