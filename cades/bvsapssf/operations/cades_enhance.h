// One attempt to raise every signature of an encoded CAdES message to
// CAdES-X Long Type 1 with one time stamp service.
#pragma once

#include <cstdint>

#include "wintypes.h"

// `data`/`dataLen`: the message; on success they hold a new malloc block
// (the old one is released) and its length.  `tsp` null: the CAdES library's
// default service.  Returns 0, or the last error of the failure; traces
// nothing.  A failure leaves `data` and `dataLen` as they were.
DWORD cades_enhance_message(unsigned char** data, uint32_t* dataLen, const char* tsp);
