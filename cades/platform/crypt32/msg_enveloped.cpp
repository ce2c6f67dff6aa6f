// Enveloped-data messages (CMSG_ENVELOPED).
#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"

namespace bv::platform {

std::unique_ptr<MessageKind> open_enveloped_decoder(DWORD, DecodedContent) {
  SetLastError(CRYPT_E_INVALID_MSG_TYPE);
  return nullptr;
}

}  // namespace bv::platform
