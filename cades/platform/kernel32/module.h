// Module handles and file names.  A module handle here is the address where
// a loaded object (the program or a shared library) begins.
#pragma once

#include "wintypes.h"

namespace bv::platform {
// The handle of the object this code is linked into: the shared library
// when called from it, the program when the core is linked into a program.
HMODULE this_module();
}  // namespace bv::platform

// The module's real path (links resolved); a null handle means the program.
// Returns the characters copied without the NUL; a path that does not fit is
// cut to size - 1 characters and a NUL, the result is `size` and the last
// error ERROR_INSUFFICIENT_BUFFER.  0 with ERROR_MOD_NOT_FOUND for an
// address that belongs to no module.
DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size);
DWORD GetModuleFileNameW(HMODULE module, LPWSTR fileName, DWORD size);
