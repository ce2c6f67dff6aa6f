// The shell's special folders and the path helpers that go with them.
// Folders map to POSIX places:
//   CSIDL_LOCAL_APPDATA  $BV_PLATFORM_LOCAL_APPDATA, else $XDG_DATA_HOME, else $HOME/.local/share
//   CSIDL_COMMON_APPDATA $BV_PLATFORM_COMMON_APPDATA, else /var/opt
// Path texts of the A functions are file system bytes; the W functions carry
// the same names as UTF-16.  A separator is '/', and a '\\' in an appended
// part counts as one, so that Windows-style relative names work unchanged.
#pragma once

#include "wintypes.h"

using HWND = void*;

constexpr DWORD MAX_PATH = 260;

constexpr int CSIDL_LOCAL_APPDATA = 0x001c;
constexpr int CSIDL_COMMON_APPDATA = 0x0023;
constexpr int CSIDL_FLAG_CREATE = 0x8000;
constexpr DWORD SHGFP_TYPE_CURRENT = 0;

// `path` must hold MAX_PATH characters.  S_OK, or E_INVALIDARG for a folder
// this platform does not know, or E_FAIL when no place can be found for it
// or it is too long.  The folder need not exist unless CSIDL_FLAG_CREATE asks.
HRESULT SHGetFolderPathA(HWND owner, int folder, HANDLE token, DWORD flags, LPSTR path);
HRESULT SHGetFolderPathW(HWND owner, int folder, HANDLE token, DWORD flags, LPWSTR path);

// Appends `more` to `path` (MAX_PATH characters) with one separator between;
// FALSE, with `path` unchanged, when the result would not fit.
BOOL PathAppendA(LPSTR path, LPCSTR more);
BOOL PathAppendW(LPWSTR path, LPCWSTR more);

// The part after the last separator, or the whole text if there is none.
LPSTR PathFindFileNameA(LPCSTR path);
LPWSTR PathFindFileNameW(LPCWSTR path);

// Replaces the extension (from the last '.' of the file name) or adds one.
BOOL PathRenameExtensionW(LPWSTR path, LPCWSTR extension);

// Creates the folder and its parents.  ERROR_SUCCESS, ERROR_ALREADY_EXISTS,
// or the error that stopped it (ERROR_ACCESS_DENIED, ERROR_PATH_NOT_FOUND...).
int SHCreateDirectory(HWND owner, LPCWSTR path);
int SHCreateDirectoryExA(HWND owner, LPCSTR path, void* security);
