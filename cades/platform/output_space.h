// The two-call size pattern of the CryptoAPI "get" functions, done once:
// a null buffer asks for the size; a short buffer gets the size and
// ERROR_MORE_DATA; otherwise the bytes are copied and the size stored.
#pragma once

#include <cstring>

#include "kernel32/kernel32.h"
#include "wintypes.h"

namespace bv::platform {

// Where the value is produced straight into the caller's buffer: true when
// `out` can take `needed` bytes; the size is stored in every case.
inline bool prepare_output_space(void* out, DWORD* outLength, DWORD needed) {
  if (outLength == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  const DWORD offered = *outLength;
  *outLength = needed;
  if (out == nullptr) return false;
  if (offered < needed) {
    SetLastError(ERROR_MORE_DATA);
    return false;
  }
  return true;
}

// Copies `size` bytes of `value` out with the pattern above.  A size query
// (null buffer) succeeds.
inline bool copy_output(const void* value, DWORD size, void* out, DWORD* outLength) {
  if (!prepare_output_space(out, outLength, size)) return out == nullptr && outLength != nullptr;
  if (size != 0) std::memcpy(out, value, size);
  return true;
}

}  // namespace bv::platform
