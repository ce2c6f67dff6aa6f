#include "cadesmsg/cadesmsg.h"

#include "kernel32/kernel32.h"

// The CAdES encoder has not been built yet: every open is refused, so a
// caller takes its failure path for the open.
HCRYPTMSG CadesMsgOpenToEncode(DWORD, DWORD, const CadesEncodeInfo*, LPSTR, PCMSG_STREAM_INFO) {
  SetLastError(ERROR_NOT_SUPPORTED);
  return nullptr;
}
