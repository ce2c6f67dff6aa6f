#include "kernel32/module.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <string>

#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"

namespace {

bool module_path(HMODULE module, std::string& path) {
  if (module == nullptr) {
    char resolved[PATH_MAX];
    if (realpath("/proc/self/exe", resolved) == nullptr) return false;
    path = resolved;
    return true;
  }
  Dl_info info{};
  if (dladdr(module, &info) == 0 || info.dli_fname == nullptr || info.dli_fbase != module) return false;
  char resolved[PATH_MAX];
  // The program's own entry may carry the name it was started by.
  if (realpath(info.dli_fname, resolved) != nullptr)
    path = resolved;
  else if (realpath("/proc/self/exe", resolved) != nullptr && info.dli_fname[0] == '\0')
    path = resolved;
  else
    path = info.dli_fname;
  return true;
}

template <typename Char>
DWORD copy_cut(const std::basic_string<Char>& path, Char* out, DWORD size) {
  if (out == nullptr || size == 0) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  if (path.size() + 1 > size) {
    path.copy(out, size - 1);
    out[size - 1] = Char(0);
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return size;
  }
  path.copy(out, path.size());
  out[path.size()] = Char(0);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(path.size());
}

}  // namespace

namespace bv::platform {
HMODULE this_module() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&this_module), &info) == 0) return nullptr;
  return info.dli_fbase;
}
}  // namespace bv::platform

DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) {
  std::string path;
  if (!module_path(module, path)) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
  }
  return copy_cut(path, fileName, size);
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR fileName, DWORD size) {
  std::string path;
  if (!module_path(module, path)) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
  }
  return copy_cut(bv::platform::utf16_from_utf8(path), fileName, size);
}
