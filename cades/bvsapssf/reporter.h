// Turns a failure into trace text: the thread's last error (-1), nothing
// (0), or a row of the message catalogue (a code, bit 0x20000000 optional).
#pragma once

#include <cstdint>

#include "wintypes.h"

// Returns the number reported: the last error for -1, the catalogue code
// finally printed, 0 for nothing.
int32_t ReportError(const char* file, int line, int32_t code);

// Writes `text` at TRACE_NORMAL.  The text is the format, so "%s" in it
// prints as empty, as it always has.
void PrintString(const char* text);

// The text of the last error as the reporter prints it (a platform text, or
// the catalogue's "unknown error" row); writes nothing for 0.
void print_last_error_text(DWORD error);

namespace bv::catalogue {
constexpr int kRows = 141;
constexpr int32_t kMarker = 0x20000000;
struct Row {
  const char* russian;  // code page 1251 bytes
  const char* english;
};
extern const Row kRowsTable[kRows];
// First row of pages 1 to 8 (index 0 is page 1).
extern const int kPageStart[8];
// Row index of a code (marker cleared, at least 100), or -1 without a page.
int row_of(int32_t code);
}  // namespace bv::catalogue
