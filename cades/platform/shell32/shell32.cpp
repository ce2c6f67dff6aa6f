#include "shell32/shell32.h"

#include "kernel32/files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"

namespace {

constexpr int kErrorFileExists = 80;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// Empty when the folder has no place here.
std::string folder_location(int folder) {
  switch (folder) {
    case CSIDL_LOCAL_APPDATA: {
      if (std::string own = environment("BV_PLATFORM_LOCAL_APPDATA"); !own.empty()) return own;
      // A relative XDG_DATA_HOME is invalid by its own rules and ignored.
      if (std::string xdg = environment("XDG_DATA_HOME"); !xdg.empty() && xdg[0] == '/') return xdg;
      if (std::string home = environment("HOME"); !home.empty()) return home + "/.local/share";
      return "";
    }
    case CSIDL_COMMON_APPDATA: {
      if (std::string own = environment("BV_PLATFORM_COMMON_APPDATA"); !own.empty()) return own;
      return "/var/opt";
    }
    default:
      return "";
  }
}

bool is_separator(char16_t c) { return c == u'/' || c == u'\\'; }

DWORD error_from_errno(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return ERROR_ACCESS_DENIED;
    case ENOENT:
    case ENOTDIR:
      return ERROR_PATH_NOT_FOUND;
    case EEXIST:
      return ERROR_ALREADY_EXISTS;
    default:
      return ERROR_PATH_NOT_FOUND;
  }
}

int create_directories(const std::string& path) {
  if (path.empty()) return ERROR_PATH_NOT_FOUND;
  struct stat info{};
  if (::stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode) ? ERROR_ALREADY_EXISTS : kErrorFileExists;
  const int error = bv::platform::make_directories(path, 0755);
  return error == 0 ? ERROR_SUCCESS : static_cast<int>(error_from_errno(error));
}

HRESULT folder_path(int request, std::string& out) {
  const int folder = request & ~CSIDL_FLAG_CREATE;
  if (folder != CSIDL_LOCAL_APPDATA && folder != CSIDL_COMMON_APPDATA) return E_INVALIDARG;
  std::string location = folder_location(folder);
  while (location.size() > 1 && location.back() == '/') location.pop_back();
  if (location.empty() || location.size() >= MAX_PATH) return E_FAIL;
  if ((request & CSIDL_FLAG_CREATE) != 0) {
    const int created = create_directories(location);
    if (created != ERROR_SUCCESS && created != ERROR_ALREADY_EXISTS) return E_FAIL;
  }
  out = std::move(location);
  return S_OK;
}

// Shared by the A and W forms: works on code units of either width.
template <typename Char>
bool append_path(std::basic_string<Char>& path, const Char* more) {
  std::basic_string<Char> tail;
  if (more != nullptr)
    for (const Char* p = more; *p != 0; ++p) tail.push_back(is_separator(*p) ? Char('/') : *p);
  size_t skip = 0;
  while (skip < tail.size() && tail[skip] == Char('/')) ++skip;
  tail.erase(0, skip);
  std::basic_string<Char> joined = path;
  if (!joined.empty() && !tail.empty() && joined.back() != Char('/')) joined.push_back(Char('/'));
  joined += tail;
  if (joined.size() >= MAX_PATH) return false;
  path = std::move(joined);
  return true;
}

template <typename Char>
const Char* after_last_separator(const Char* path) {
  const Char* name = path;
  for (const Char* p = path; *p != 0; ++p)
    if (is_separator(*p)) name = p + 1;
  return name;
}

}  // namespace

HRESULT SHGetFolderPathA(HWND, int folder, HANDLE, DWORD, LPSTR path) {
  if (path == nullptr) return E_INVALIDARG;
  std::string location;
  const HRESULT hr = folder_path(folder, location);
  if (hr != S_OK) {
    path[0] = '\0';
    return hr;
  }
  std::memcpy(path, location.c_str(), location.size() + 1);
  return S_OK;
}

HRESULT SHGetFolderPathW(HWND, int folder, HANDLE, DWORD, LPWSTR path) {
  if (path == nullptr) return E_INVALIDARG;
  std::string location;
  HRESULT hr = folder_path(folder, location);
  const std::u16string wide = bv::platform::utf16_from_utf8(location);
  if (hr == S_OK && wide.size() >= MAX_PATH) hr = E_FAIL;
  if (hr != S_OK) {
    path[0] = 0;
    return hr;
  }
  std::memcpy(path, wide.c_str(), (wide.size() + 1) * sizeof(WCHAR));
  return S_OK;
}

BOOL PathAppendA(LPSTR path, LPCSTR more) {
  if (path == nullptr) return FALSE;
  std::string joined(path);
  if (!append_path(joined, more)) return FALSE;
  std::memcpy(path, joined.c_str(), joined.size() + 1);
  return TRUE;
}

BOOL PathAppendW(LPWSTR path, LPCWSTR more) {
  if (path == nullptr) return FALSE;
  std::u16string joined(path);
  if (!append_path(joined, more)) return FALSE;
  std::memcpy(path, joined.c_str(), (joined.size() + 1) * sizeof(WCHAR));
  return TRUE;
}

LPSTR PathFindFileNameA(LPCSTR path) {
  return path != nullptr ? const_cast<LPSTR>(after_last_separator(path)) : nullptr;
}

LPWSTR PathFindFileNameW(LPCWSTR path) {
  return path != nullptr ? const_cast<LPWSTR>(after_last_separator(path)) : nullptr;
}

BOOL PathRenameExtensionW(LPWSTR path, LPCWSTR extension) {
  if (path == nullptr || extension == nullptr) return FALSE;
  std::u16string text(path);
  const size_t name_start = static_cast<size_t>(after_last_separator(path) - path);
  const size_t dot = text.rfind(u'.');
  if (dot != std::u16string::npos && dot >= name_start) text.erase(dot);
  text += extension;
  if (text.size() >= MAX_PATH) return FALSE;
  std::memcpy(path, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
  return TRUE;
}

int SHCreateDirectory(HWND, LPCWSTR path) {
  if (path == nullptr) return ERROR_INVALID_PARAMETER;
  return create_directories(bv::platform::utf8_from_utf16(path));
}

int SHCreateDirectoryExA(HWND, LPCSTR path, void*) {
  if (path == nullptr) return ERROR_INVALID_PARAMETER;
  return create_directories(path);
}
