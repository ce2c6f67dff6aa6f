// The registry, read-only, over a file in the text form of a registry export:
//   HKEY_LOCAL_MACHINE  <CSIDL_COMMON_APPDATA>/Brelvantec/registry.reg
// The file is read at each RegOpenKeyEx; a key handle holds the values of
// its key as they were then.  Understood value forms:
//   "name"="text"            REG_SZ (\\ and \" escaped)
//   "name"=dword:00000003    REG_DWORD
//   "name"=hex(2):41,00,..   REG_EXPAND_SZ as UTF-16LE bytes
//   "name"=hex:..., hex(N):  binary, or type N
//   @=...                    the key's default value (empty name)
// Lines continue after a trailing '\'; ';' starts a comment line; "=-" and
// "[-...]" deletions are ignored.  Key paths compare without case.
#pragma once

#include "wintypes.h"

struct RegistryKey;
using HKEY = RegistryKey*;
using PHKEY = HKEY*;
using REGSAM = DWORD;
using LPBYTE = BYTE*;
using LPDWORD = DWORD*;

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000000)))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000001)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000002)))
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000003)))

constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_NOTIFY = 0x0010;
constexpr REGSAM KEY_READ = 0x20019;
constexpr REGSAM KEY_WOW64_64KEY = 0x0100;

constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_MULTI_SZ = 7;
constexpr DWORD REG_QWORD = 11;

// ERROR_SUCCESS, ERROR_FILE_NOT_FOUND for a key that is not there,
// ERROR_INVALID_HANDLE for a root this platform does not keep.
LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM desired, PHKEY result);
LONG RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM desired, PHKEY result);

// ERROR_FILE_NOT_FOUND for a value that is not there, ERROR_MORE_DATA (with
// *dataSize set to the size needed) when `data` is too small.  Text values
// come with their terminating NUL, counted in *dataSize, 8-bit text in code
// page 1251 for the A form, UTF-16 for the W form.
LONG RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD dataSize);
LONG RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD dataSize);

LONG RegCloseKey(HKEY key);
