// The CAdES message library: signed messages with the attributes of CAdES
// and their enhancement with time stamps and revocation values.
#pragma once

#include "crypt32/msg.h"
#include "wincrypt_types.h"

// What CadesMsgOpenToEncode takes: the signed message's own encode
// information and the library's options, all zero for its default form.
struct CadesEncodeInfo {
  DWORD dwSize;  // 48
  DWORD dwFlags;
  CMSG_SIGNED_ENCODE_INFO* pSignedEncodeInfo;
  void* options[4];
};
static_assert(sizeof(CadesEncodeInfo) == 48);

// Opens a CAdES signed message to encode; the handle then takes
// CryptMsgUpdate, CryptMsgGetParam and CryptMsgClose.  Null with the last
// error set on failure.
HCRYPTMSG CadesMsgOpenToEncode(DWORD dwMsgEncodingType, DWORD dwFlags, const CadesEncodeInfo* pEncodeInfo,
                               LPSTR pszInnerContentObjID, PCMSG_STREAM_INFO pStreamInfo);
