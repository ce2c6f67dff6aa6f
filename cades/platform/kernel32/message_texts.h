// Texts that FormatMessageA gives for the error numbers this platform sets.
#pragma once

#include "wintypes.h"

namespace bv::platform {
// Null when the number has no text (the caller then falls back to its own).
const char* system_message_text(DWORD messageId);
const char* wininet_message_text(DWORD messageId);
}  // namespace bv::platform
