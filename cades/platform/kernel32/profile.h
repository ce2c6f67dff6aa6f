// Reading ini files as Windows does: sections and keys without case, blanks
// around names and values dropped, one pair of matching quotes around a value
// removed, lines starting with ';' ignored, the first occurrence of a section
// or key counts.  A file in UTF-16 (with its byte order mark) or in 8-bit
// text is read by both forms: the A form gives an 8-bit file's bytes as they
// stand and a UTF-16 file's text in code page 1251; the W form decodes an
// 8-bit file as UTF-8 when valid, else as code page 1251.
#pragma once

#include "wintypes.h"

// Copies the value, or `defaultValue` (trailing blanks dropped) when the file,
// section or key is missing, into `buffer` of `size` characters, cutting it
// to size - 1 characters and a NUL.  Returns the characters copied, without
// the NUL.  Last error: ERROR_SUCCESS when the key was found, ERROR_MORE_DATA
// when the text was cut, ERROR_FILE_NOT_FOUND when the default was used.
// With a null `keyName` the section's key names come back, with a null
// `appName` the section names, each ended by a NUL and all by one more; cut
// lists return size - 2.
DWORD GetPrivateProfileStringA(LPCSTR appName, LPCSTR keyName, LPCSTR defaultValue, LPSTR buffer, DWORD size,
                               LPCSTR fileName);
DWORD GetPrivateProfileStringW(LPCWSTR appName, LPCWSTR keyName, LPCWSTR defaultValue, LPWSTR buffer,
                               DWORD size, LPCWSTR fileName);
