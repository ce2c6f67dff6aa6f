// The CAdES message library: signed messages with the attributes of CAdES
// (CAdES-BES at encoding) and their enhancement to CAdES-X Long Type 1 with
// time stamps, certificate and revocation references and values.
// docs/cades.md tells the forms, sources and checks.
#pragma once

#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "wincrypt_types.h"

// Signature forms (CadesSignPara::dwCadesType).
constexpr DWORD CADES_BES = 0x01;
constexpr DWORD CADES_T = 0x05;
constexpr DWORD CADES_X_LONG_TYPE_1 = 0x5D;

// What CadesMsgOpenToEncode takes: the signed message's own encode
// information and the library's options, all zero for its default form.
struct CadesEncodeInfo {
  DWORD dwSize;  // 48
  DWORD dwFlags;
  CMSG_SIGNED_ENCODE_INFO* pSignedEncodeInfo;
  void* options[4];
};
static_assert(sizeof(CadesEncodeInfo) == 48);

// Where a time stamp service is: its address as a wide text.
struct CadesServiceConnectionPara {
  DWORD dwSize;  // 24
  LPCWSTR wszUri;
  void* pAuthPara;  // reserved, null
};
static_assert(sizeof(CadesServiceConnectionPara) == 24);

struct CadesSignPara {
  DWORD dwSize;  // 56
  DWORD dwCadesType;
  PCCERT_CONTEXT pSignerCert;  // reserved here, null
  LPCSTR szHashAlgorithm;      // reserved here, null: the signer's own hash is used
  HCERTSTORE hAdditionalStore;
  CadesServiceConnectionPara* pTspConnectionPara;  // null: the default service
  void* pProxyPara;                                // reserved, null
  void* pCadesExtraPara;                           // reserved, null
};
static_assert(sizeof(CadesSignPara) == 56);

// Opens a CAdES signed message to encode; the handle then takes
// CryptMsgUpdate, CryptMsgGetParam and CryptMsgClose.  Null with the last
// error set on failure.
HCRYPTMSG CadesMsgOpenToEncode(DWORD dwMsgEncodingType, DWORD dwFlags, const CadesEncodeInfo* pEncodeInfo,
                               LPSTR pszInnerContentObjID, PCMSG_STREAM_INFO pStreamInfo);

// Raises every signer of a message opened with CryptMsgOpenToDecode (and
// updated) to the form of pSignPara (only CADES_X_LONG_TYPE_1).  On failure
// the message is unchanged and the last error says why.
BOOL CadesMsgEnhanceSignatureAll(HCRYPTMSG hCryptMsg, const CadesSignPara* pSignPara);

// One signer to add to a decoded message: as CryptMsgOpenToEncode takes it,
// with the form and service it is to be raised to.
struct CadesEnhancedSignerPara {
  DWORD dwSize;  // 24
  CMSG_SIGNER_ENCODE_INFO* pSignerEncodeInfo;
  CadesSignPara* pCadesSignPara;
};
static_assert(sizeof(CadesEnhancedSignerPara) == 24);

// Adds a signer with the CAdES-BES attributes to a message opened with
// CryptMsgOpenToDecode (a detached one with its content given) and raises
// that signer alone to the form of pCadesSignPara; the other signers stay as
// they are.  On failure the message is unchanged and the last error says why.
BOOL CadesMsgAddEnhancedSignature(HCRYPTMSG hCryptMsg, const CadesEnhancedSignerPara* pEnhancedSignerPara);

// What CadesMsgVerifySignature found about one signer; released with
// CadesFreeVerificationInfo.
struct CadesVerificationInfo {
  DWORD dwSize;                  // 40
  DWORD dwStatus;                // CADES_VERIFY_*: the first check that failed, or 0
  PCCERT_CONTEXT pSignerCert;    // the signer's certificate, or null when not found
  FILETIME* pSigningTime;        // the signing-time attribute, or null
  void* pReserved;               // null
  FILETIME* pSignatureTimeStampTime;  // the signature time stamp's time, or null
};
static_assert(sizeof(CadesVerificationInfo) == 40);

// Statuses, in the order the checks run (docs/cades.md).
constexpr DWORD CADES_VERIFY_SUCCESS = 0;
constexpr DWORD CADES_VERIFY_INVALID_REFS_AND_VALUES = 1;
constexpr DWORD CADES_VERIFY_SIGNER_NOT_FOUND = 2;
constexpr DWORD CADES_VERIFY_INVALID_SIGNATURE_TIMESTAMP = 3;
constexpr DWORD CADES_VERIFY_REFS_AND_VALUES_NO_MATCH = 4;
constexpr DWORD CADES_VERIFY_NO_CHAIN = 5;
constexpr DWORD CADES_VERIFY_END_CERT_REVOCATION = 6;
constexpr DWORD CADES_VERIFY_CHAIN_CERT_REVOCATION = 7;
constexpr DWORD CADES_VERIFY_INVALID_SIGNATURE = 8;
constexpr DWORD CADES_VERIFY_INVALID_CADES_C_TIMESTAMP = 9;
constexpr DWORD CADES_VERIFY_INVALID_CONTENT_TYPE = 10;

// Verifies signer `dwSignerIndex` of a decoded signed message (CAdES or
// plain).  *ppVerificationInfo is always set when the pointer is given, so
// a caller may read it whatever the answer; TRUE only with status 0, else
// FALSE with the last error of the failed check.
BOOL CadesMsgVerifySignature(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, void* pVerifyPara,
                             CadesVerificationInfo** ppVerificationInfo);
BOOL CadesFreeVerificationInfo(CadesVerificationInfo* pVerificationInfo);

// *pbResult: whether signer `dwSignerIndex` carries every attribute of the
// form `dwCadesType` (CADES_BES, CADES_T or CADES_X_LONG_TYPE_1).
BOOL CadesMsgIsType(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, DWORD dwCadesType, BOOL* pbResult);

struct CadesBlobArray {
  DWORD cBlob;
  CRYPT_DATA_BLOB* rgBlob;
};
// The certificate-values of signer `dwSignerIndex`, DER each, in one block
// released with CadesFreeBlobArray; FALSE (CRYPT_E_NOT_FOUND) when it has none.
BOOL CadesMsgGetCertificateValues(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, CadesBlobArray** ppCertificateValues);
BOOL CadesFreeBlobArray(CadesBlobArray* pBlobArray);
