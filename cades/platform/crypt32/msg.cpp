#include "crypt32/msg.h"
#include "crypt32/msg_internal.h"

#include <new>

#include "checked_handle.h"
#include "kernel32/kernel32.h"

namespace bv::platform {
namespace {
// A platform call reports exhausted memory through the last error, as any
// other failure, instead of throwing into its caller.
template <typename Call>
auto out_of_memory_as_error(Call&& call, decltype(call()) failed) -> decltype(call()) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return failed;
  }
}
}  // namespace

bool MessageKind::control(DWORD, DWORD, const void*) {
  SetLastError(CRYPT_E_CONTROL_TYPE);
  return false;
}

void MessageCloser::operator()(void* message) const noexcept {
  const DWORD error = GetLastError();
  CryptMsgClose(message);
  SetLastError(error);
}

CryptMsg* message_from_handle(HCRYPTMSG handle) { return checked_object<CryptMsg>(handle, ERROR_INVALID_HANDLE); }

HCRYPTMSG new_message_handle(DWORD encoding_type, DWORD flags, std::unique_ptr<MessageKind> kind) {
  auto message = std::make_unique<CryptMsg>();
  message->encoding_type = encoding_type;
  message->flags = flags;
  message->kind = std::move(kind);
  return message.release();
}

}  // namespace bv::platform

using bv::platform::CryptMsg;

HCRYPTMSG CryptMsgOpenToEncode(DWORD dwMsgEncodingType, DWORD dwFlags, DWORD dwMsgType, const void* pvMsgEncodeInfo,
                               LPSTR pszInnerContentObjID, PCMSG_STREAM_INFO pStreamInfo) {
  if ((dwMsgEncodingType & PKCS_7_ASN_ENCODING) == 0 || pvMsgEncodeInfo == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return nullptr;
  }
  if (pStreamInfo != nullptr) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
  }
  return bv::platform::out_of_memory_as_error([&]() -> HCRYPTMSG {
    std::unique_ptr<bv::platform::MessageKind> kind;
    switch (dwMsgType) {
      case CMSG_HASHED:
        kind = bv::platform::open_hashed_encoder(
            dwFlags, *static_cast<const CMSG_HASHED_ENCODE_INFO*>(pvMsgEncodeInfo), pszInnerContentObjID);
        break;
      case CMSG_SIGNED:
        kind = bv::platform::open_signed_encoder(
            dwFlags, *static_cast<const CMSG_SIGNED_ENCODE_INFO*>(pvMsgEncodeInfo), pszInnerContentObjID);
        break;
      case CMSG_ENVELOPED:
        kind = bv::platform::open_enveloped_encoder(dwFlags,
                                                    *static_cast<const CMSG_ENVELOPED_ENCODE_INFO*>(pvMsgEncodeInfo));
        break;
      default:
        SetLastError(CRYPT_E_INVALID_MSG_TYPE);
        return nullptr;
    }
    if (kind == nullptr) return nullptr;
    return bv::platform::new_message_handle(dwMsgEncodingType, dwFlags, std::move(kind));
  },
  nullptr);
}

HCRYPTMSG CryptMsgOpenToDecode(DWORD dwMsgEncodingType, DWORD dwFlags, DWORD dwMsgType, HCRYPTPROV_LEGACY,
                               CERT_INFO*, PCMSG_STREAM_INFO pStreamInfo) {
  if ((dwMsgEncodingType & PKCS_7_ASN_ENCODING) == 0) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return nullptr;
  }
  if (pStreamInfo != nullptr) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
  }
  if (dwMsgType != 0 && dwMsgType != CMSG_SIGNED && dwMsgType != CMSG_ENVELOPED) {
    SetLastError(CRYPT_E_INVALID_MSG_TYPE);
    return nullptr;
  }
  return bv::platform::out_of_memory_as_error([&]() -> HCRYPTMSG {
    return bv::platform::new_message_handle(dwMsgEncodingType, dwFlags,
                                            bv::platform::open_decoder(dwFlags, dwMsgType));
  },
  nullptr);
}

BOOL CryptMsgUpdate(HCRYPTMSG hCryptMsg, const BYTE* pbData, DWORD cbData, BOOL fFinal) {
  CryptMsg* message = bv::platform::message_from_handle(hCryptMsg);
  if (message == nullptr) return FALSE;
  if (cbData != 0 && pbData == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  return bv::platform::out_of_memory_as_error(
      [&]() -> BOOL { return message->kind->update(pbData, cbData, fFinal != FALSE) ? TRUE : FALSE; }, FALSE);
}

BOOL CryptMsgGetParam(HCRYPTMSG hCryptMsg, DWORD dwParamType, DWORD dwIndex, void* pvData, DWORD* pcbData) {
  CryptMsg* message = bv::platform::message_from_handle(hCryptMsg);
  if (message == nullptr) return FALSE;
  if (pcbData == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  return bv::platform::out_of_memory_as_error(
      [&]() -> BOOL { return message->kind->get_param(dwParamType, dwIndex, pvData, pcbData) ? TRUE : FALSE; },
      FALSE);
}

BOOL CryptMsgControl(HCRYPTMSG hCryptMsg, DWORD dwFlags, DWORD dwCtrlType, const void* pvCtrlPara) {
  CryptMsg* message = bv::platform::message_from_handle(hCryptMsg);
  if (message == nullptr) return FALSE;
  return bv::platform::out_of_memory_as_error(
      [&]() -> BOOL { return message->kind->control(dwFlags, dwCtrlType, pvCtrlPara) ? TRUE : FALSE; }, FALSE);
}

BOOL CryptMsgClose(HCRYPTMSG hCryptMsg) {
  // Closing null is allowed and does nothing, as on the platform.
  if (hCryptMsg == nullptr) return TRUE;
  CryptMsg* message = bv::platform::message_from_handle(hCryptMsg);
  if (message == nullptr) return FALSE;
  message->magic = 0;
  delete message;
  return TRUE;
}
