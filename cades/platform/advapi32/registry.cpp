#include "advapi32/registry.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"
#include "shell32/shell32.h"

struct RegistryKey {
  static constexpr uint32_t kMagic = 0x52454759;  // "REGY"
  struct Value {
    std::u16string name;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;  // text types as UTF-16LE with their NUL
  };
  uint32_t magic = kMagic;
  std::u16string path;  // "HKEY_LOCAL_MACHINE\..." without a trailing separator
  std::vector<Value> values;
};

namespace {

constexpr char16_t kLocalMachine[] = u"HKEY_LOCAL_MACHINE";

char16_t fold(char16_t c) { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c; }

bool same_text(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (fold(a[i]) != fold(b[i])) return false;
  return true;
}

std::u16string trimmed(std::u16string_view s) {
  size_t b = 0;
  size_t e = s.size();
  while (b < e && (s[b] == u' ' || s[b] == u'\t')) ++b;
  while (e > b && (s[e - 1] == u' ' || s[e - 1] == u'\t')) --e;
  return std::u16string(s.substr(b, e - b));
}

// Separators made single backslashes, none at either end, and the short
// root name spelled out.
std::u16string normalized_path(std::u16string_view raw) {
  std::u16string path;
  for (char16_t c : raw) {
    if (c == u'/') c = u'\\';
    if (c == u'\\' && (path.empty() || path.back() == u'\\')) continue;
    path.push_back(c);
  }
  while (!path.empty() && path.back() == u'\\') path.pop_back();
  const size_t root_end = path.find(u'\\');
  if (same_text(std::u16string_view(path).substr(0, root_end), u"HKLM")) path.replace(0, 4, kLocalMachine);
  return path;
}

std::string registry_file() {
  char path[MAX_PATH];
  if (SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) return "";
  if (!PathAppendA(path, "Brelvantec\\registry.reg")) return "";
  return path;
}

int hex_digit(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// A quoted text at `pos` with \\ and \" escapes; moves `pos` past it.
bool read_quoted(std::u16string_view line, size_t& pos, std::u16string& out) {
  if (pos >= line.size() || line[pos] != u'"') return false;
  out.clear();
  for (++pos; pos < line.size(); ++pos) {
    if (line[pos] == u'\\' && pos + 1 < line.size()) {
      out.push_back(line[++pos]);
    } else if (line[pos] == u'"') {
      ++pos;
      return true;
    } else {
      out.push_back(line[pos]);
    }
  }
  return false;
}

void append_utf16le(std::vector<BYTE>& data, std::u16string_view text) {
  for (char16_t c : text) {
    data.push_back(static_cast<BYTE>(c & 0xFF));
    data.push_back(static_cast<BYTE>(c >> 8));
  }
  data.push_back(0);
  data.push_back(0);
}

// The data after '='; false for a form not understood or a deletion.
bool read_data(std::u16string_view text, RegistryKey::Value& value) {
  if (text.empty()) return false;
  if (text[0] == u'"') {
    size_t pos = 0;
    std::u16string s;
    if (!read_quoted(text, pos, s)) return false;
    value.type = REG_SZ;
    append_utf16le(value.data, s);
    return true;
  }
  if (text.substr(0, 6) == u"dword:") {
    const std::u16string_view digits = text.substr(6);
    if (digits.empty() || digits.size() > 8) return false;
    DWORD number = 0;
    for (char16_t c : digits) {
      const int d = hex_digit(c);
      if (d < 0) return false;
      number = (number << 4) | static_cast<DWORD>(d);
    }
    value.type = REG_DWORD;
    for (int i = 0; i < 4; ++i) value.data.push_back(static_cast<BYTE>(number >> (8 * i)));
    return true;
  }
  if (text.substr(0, 3) != u"hex") return false;
  size_t pos = 3;
  value.type = REG_BINARY;
  if (pos < text.size() && text[pos] == u'(') {
    DWORD type = 0;
    for (++pos; pos < text.size() && text[pos] != u')'; ++pos) {
      const int d = hex_digit(text[pos]);
      if (d < 0) return false;
      type = (type << 4) | static_cast<DWORD>(d);
    }
    ++pos;
    value.type = type;
  }
  if (pos >= text.size() || text[pos] != u':') return false;
  int high = -1;
  for (++pos; pos < text.size(); ++pos) {
    const char16_t c = text[pos];
    if (c == u',' || c == u' ' || c == u'\t' || c == u'\\') continue;
    const int d = hex_digit(c);
    if (d < 0) return false;
    if (high < 0) {
      high = d;
    } else {
      value.data.push_back(static_cast<BYTE>((high << 4) | d));
      high = -1;
    }
  }
  return high < 0;
}

void set_value(std::vector<RegistryKey::Value>& values, RegistryKey::Value value) {
  for (RegistryKey::Value& v : values)
    if (same_text(v.name, value.name)) {
      v = std::move(value);
      return;
    }
  values.push_back(std::move(value));
}

// Reads the file into `key` when it has the key's section or one below it.
bool load_key(const std::u16string& path, RegistryKey& key) {
  std::u16string text;
  const std::string file = registry_file();
  if (file.empty() || !bv::platform::read_text_file(file, text)) return false;
  bool exists = false;
  bool in_key = false;
  std::u16string pending;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = pos;
    while (end < text.size() && text[end] != u'\n' && text[end] != u'\r') ++end;
    std::u16string line = trimmed(std::u16string_view(text).substr(pos, end - pos));
    pos = end + 1;
    if (end < text.size() && text[end] == u'\r' && pos < text.size() && text[pos] == u'\n') ++pos;
    // Long binary values are wrapped with a trailing backslash.
    if (!pending.empty()) {
      line = pending + line;
      pending.clear();
    }
    if (!line.empty() && line.back() == u'\\' && line.find(u"=hex") != std::u16string::npos) {
      pending = line.substr(0, line.size() - 1);
      if (pos <= text.size()) continue;
      line = pending;
    }
    if (line.empty() || line[0] == u';') continue;
    if (line[0] == u'[') {
      const size_t close = line.rfind(u']');
      in_key = false;
      if (close == std::u16string::npos || line.size() < 2 || line[1] == u'-') continue;
      const std::u16string section = normalized_path(std::u16string_view(line).substr(1, close - 1));
      in_key = same_text(section, path);
      if (in_key || (section.size() > path.size() && section[path.size()] == u'\\' &&
                     same_text(std::u16string_view(section).substr(0, path.size()), path)))
        exists = true;
      continue;
    }
    if (!in_key) continue;
    RegistryKey::Value value;
    size_t at = 0;
    if (line[0] == u'@') {
      at = 1;
    } else if (!read_quoted(line, at, value.name)) {
      continue;
    }
    while (at < line.size() && (line[at] == u' ' || line[at] == u'\t')) ++at;
    if (at >= line.size() || line[at] != u'=') continue;
    if (read_data(trimmed(std::u16string_view(line).substr(at + 1)), value)) set_value(key.values, std::move(value));
  }
  return exists;
}

bool is_predefined(HKEY key) {
  const auto value = reinterpret_cast<ULONG_PTR>(key);
  return value >= 0x80000000u && value <= 0x800000FFu;
}

RegistryKey* live(HKEY key) {
  if (key == nullptr || is_predefined(key)) return nullptr;
  return key->magic == RegistryKey::kMagic ? key : nullptr;
}

LONG open_key(HKEY base, std::u16string_view subKey, PHKEY result) {
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  std::u16string path;
  if (base == HKEY_LOCAL_MACHINE) {
    path = kLocalMachine;
  } else if (RegistryKey* open = live(base)) {
    path = open->path;
  } else {
    return ERROR_INVALID_HANDLE;
  }
  path = normalized_path(path + u"\\" + std::u16string(subKey));
  auto key = std::make_unique<RegistryKey>();
  key->path = path;
  if (!load_key(path, *key) && !same_text(path, kLocalMachine)) return ERROR_FILE_NOT_FOUND;
  *result = key.release();
  return ERROR_SUCCESS;
}

LONG query(HKEY key, std::u16string_view name, LPDWORD type, LPBYTE data, LPDWORD dataSize, bool narrow) {
  RegistryKey* open = live(key);
  if (open == nullptr) return ERROR_INVALID_HANDLE;
  if (data != nullptr && dataSize == nullptr) return ERROR_INVALID_PARAMETER;
  for (const RegistryKey::Value& v : open->values) {
    if (!same_text(v.name, name)) continue;
    std::vector<BYTE> bytes = v.data;
    if (narrow && (v.type == REG_SZ || v.type == REG_EXPAND_SZ || v.type == REG_MULTI_SZ)) {
      const int units = static_cast<int>(v.data.size() / 2);
      const auto* wide = reinterpret_cast<LPCWSTR>(v.data.data());
      const int length = units > 0 ? WideCharToMultiByte(1251, 0, wide, units, nullptr, 0, nullptr, nullptr) : 0;
      bytes.assign(static_cast<size_t>(std::max(length, 0)), 0);
      if (length > 0)
        WideCharToMultiByte(1251, 0, wide, units, reinterpret_cast<LPSTR>(bytes.data()), length, nullptr, nullptr);
    }
    if (type != nullptr) *type = v.type;
    const DWORD needed = static_cast<DWORD>(bytes.size());
    if (data != nullptr && *dataSize < needed) {
      *dataSize = needed;
      return ERROR_MORE_DATA;
    }
    if (data != nullptr && needed > 0) std::memcpy(data, bytes.data(), needed);
    if (dataSize != nullptr) *dataSize = needed;
    return ERROR_SUCCESS;
  }
  return ERROR_FILE_NOT_FOUND;
}

std::u16string wide_from_narrow(LPCSTR text) {
  if (text == nullptr || *text == '\0') return u"";
  const int units = MultiByteToWideChar(1251, 0, text, -1, nullptr, 0);
  std::u16string wide(static_cast<size_t>(std::max(units, 1)), u'\0');
  if (units > 0) MultiByteToWideChar(1251, 0, text, -1, reinterpret_cast<LPWSTR>(wide.data()), units);
  wide.resize(bv::platform::wide_length(reinterpret_cast<LPCWSTR>(wide.c_str())));
  return wide;
}

}  // namespace

LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM, PHKEY result) {
  return open_key(key, wide_from_narrow(subKey), result);
}

LONG RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD, REGSAM, PHKEY result) {
  return open_key(key, subKey != nullptr ? std::u16string_view(subKey) : std::u16string_view(), result);
}

LONG RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD dataSize) {
  return query(key, wide_from_narrow(valueName), type, data, dataSize, true);
}

LONG RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD dataSize) {
  return query(key, valueName != nullptr ? std::u16string_view(valueName) : std::u16string_view(), type, data,
               dataSize, false);
}

LONG RegCloseKey(HKEY key) {
  if (is_predefined(key)) return ERROR_SUCCESS;
  RegistryKey* open = live(key);
  if (open == nullptr) return ERROR_INVALID_HANDLE;
  open->magic = 0;
  delete open;
  return ERROR_SUCCESS;
}
