// The CAdES encoder: the platform's signed message with the signed
// attributes of CAdES-BES for every signer.
#include "cadesmsg/cadesmsg.h"

#include <new>

#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"

HCRYPTMSG CadesMsgOpenToEncode(DWORD dwMsgEncodingType, DWORD dwFlags, const CadesEncodeInfo* pEncodeInfo,
                               LPSTR pszInnerContentObjID, PCMSG_STREAM_INFO pStreamInfo) {
  if ((dwMsgEncodingType & PKCS_7_ASN_ENCODING) == 0 || pEncodeInfo == nullptr ||
      pEncodeInfo->dwSize < sizeof(CadesEncodeInfo) || pEncodeInfo->pSignedEncodeInfo == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return nullptr;
  }
  if (pStreamInfo != nullptr) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
  }
  try {
    auto kind = bv::platform::open_signed_encoder(dwFlags, *pEncodeInfo->pSignedEncodeInfo, pszInnerContentObjID,
                                                  bv::platform::SignedForm::cades_bes);
    if (!kind) return nullptr;
    return bv::platform::new_message_handle(dwMsgEncodingType, dwFlags, std::move(kind));
  } catch (const std::bad_alloc&) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return nullptr;
  }
}
