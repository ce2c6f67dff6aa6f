// The certificate chooser of cryptui, without a window system: a numbered
// list on the controlling terminal, or the program named by
// BV_PLATFORM_SELECT, or cancelled.  docs/revocation.md describes the
// program's protocol.
#pragma once

#include "crypt32/cert.h"
#include "wintypes.h"

using HWND = void*;

// Columns the caller may leave out (dwDontUseColumn).
constexpr DWORD CRYPTUI_SELECT_ISSUEDTO_COLUMN = 0x00000001;
constexpr DWORD CRYPTUI_SELECT_ISSUEDBY_COLUMN = 0x00000002;
constexpr DWORD CRYPTUI_SELECT_INTENDEDUSE_COLUMN = 0x00000004;
constexpr DWORD CRYPTUI_SELECT_FRIENDLYNAME_COLUMN = 0x00000008;
constexpr DWORD CRYPTUI_SELECT_LOCATION_COLUMN = 0x00000010;
constexpr DWORD CRYPTUI_SELECT_EXPIRATION_COLUMN = 0x00000020;

// Lets the user choose one certificate of hCertStore.  Returns a context of
// its own for the caller to free, or null: ERROR_CANCELLED when the user
// declined or nobody could be asked, CRYPT_E_NOT_FOUND for an empty store,
// ERROR_INVALID_DATA when the program's answer names no certificate.
// hwnd, dwFlags and pvReserved are not used.
PCCERT_CONTEXT CryptUIDlgSelectCertificateFromStore(HCERTSTORE hCertStore, HWND hwnd, LPCWSTR pwszTitle,
                                                    LPCWSTR pwszDisplayString, DWORD dwDontUseColumn, DWORD dwFlags,
                                                    void* pvReserved);
