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
