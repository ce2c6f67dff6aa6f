// The kernel32 subset the library calls: the thread's last error, message
// texts for error numbers, module handles, code page conversion and time.
#pragma once

#include <locale.h>

#include <cstdarg>

#include "wintypes.h"

DWORD GetLastError();
void SetLastError(DWORD error);

constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x00000800;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;

// With FORMAT_MESSAGE_ALLOCATE_BUFFER, `buffer` is really a char** that
// receives a LocalAlloc'd text.  The texts are those of the numbers this
// platform produces (Win32 errors, the HRESULTs of CryptoAPI and WinINet).
DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPSTR buffer,
                     DWORD size, va_list* arguments);
HLOCAL LocalAlloc(UINT flags, size_t bytes);
HLOCAL LocalFree(HLOCAL memory);

// Modules that this platform knows by name; any other name gives null with
// ERROR_MOD_NOT_FOUND.  "wininet.dll" stands for the HTTP layer.
HMODULE GetModuleHandleA(LPCSTR moduleName);

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

// Overwrites `length` bytes at `destination` with zeros in a way the
// compiler cannot drop as a dead store: for secrets about to be freed.
void SecureZeroMemory(void* destination, size_t length);

void GetLocalTime(SYSTEMTIME* time);
// Both refuse counts of 2^63 and above (ERROR_INVALID_PARAMETER); local time
// takes the zone's offset at that instant.
BOOL FileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local);
BOOL FileTimeToSystemTime(const FILETIME* time, SYSTEMTIME* system);

constexpr UINT CP_ACP = 0;
constexpr UINT CP_THREAD_ACP = 3;
constexpr UINT CP_UTF8 = 65001;

// CP_ACP and CP_THREAD_ACP are code page 1251 here.
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int textLength, LPWSTR wide,
                        int wideLength);
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR text,
                        int textLength, LPCSTR defaultChar, BOOL* usedDefaultChar);

namespace bv::platform {

// The library's own locale of the ANSI code page, 1251: the first such
// locale the system has, else "C".  Byte classes, case and conversions
// inside the library follow it (isspace_l, toupper_l, strtoul_l, ...); the
// host's locale is never changed.
locale_t ansi_locale();

// Makes ansi_locale() the calling thread's for a scope, for calls that
// read the thread's locale and have no _l form (sscanf, iconv's
// transliteration); the thread's own comes back at scope exit.
class ScopedAnsiLocale {
 public:
  ScopedAnsiLocale() : previous_(uselocale(ansi_locale())) {}
  ~ScopedAnsiLocale() {
    if (previous_ != nullptr) uselocale(previous_);
  }
  ScopedAnsiLocale(const ScopedAnsiLocale&) = delete;
  ScopedAnsiLocale& operator=(const ScopedAnsiLocale&) = delete;

 private:
  locale_t previous_;
};

}  // namespace bv::platform
