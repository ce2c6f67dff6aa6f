#include "kernel32/profile.h"

#include <optional>
#include <string>
#include <vector>

#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"

namespace {

template <typename Char>
using Text = std::basic_string<Char>;

template <typename Char>
bool is_blank(Char c) {
  return c == Char(' ') || c == Char('\t');
}

template <typename Char>
Text<Char> trimmed(const Text<Char>& s) {
  size_t begin = 0;
  size_t end = s.size();
  while (begin < end && is_blank(s[begin])) ++begin;
  while (end > begin && is_blank(s[end - 1])) --end;
  return s.substr(begin, end - begin);
}

// Case is folded for ASCII letters only.
template <typename Char>
bool same_name(const Text<Char>& a, const Text<Char>& b) {
  if (a.size() != b.size()) return false;
  const auto fold = [](Char c) { return (c >= Char('A') && c <= Char('Z')) ? Char(c - Char('A') + Char('a')) : c; };
  for (size_t i = 0; i < a.size(); ++i)
    if (fold(a[i]) != fold(b[i])) return false;
  return true;
}

template <typename Char>
struct Entry {
  Text<Char> section;
  Text<Char> key;
  Text<Char> value;
};

template <typename Char>
struct Ini {
  std::vector<Text<Char>> sections;
  std::vector<Entry<Char>> entries;
};

template <typename Char>
Ini<Char> parse(const Text<Char>& text) {
  Ini<Char> ini;
  Text<Char> section;
  bool in_section = false;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = pos;
    while (end < text.size() && text[end] != Char('\n') && text[end] != Char('\r')) ++end;
    const Text<Char> line = trimmed(text.substr(pos, end - pos));
    pos = end + 1;
    if (end < text.size() && text[end] == Char('\r') && pos < text.size() && text[pos] == Char('\n')) ++pos;
    if (line.empty() || line[0] == Char(';')) continue;
    if (line[0] == Char('[')) {
      const size_t close = line.find(Char(']'));
      section = trimmed(line.substr(1, close == Text<Char>::npos ? Text<Char>::npos : close - 1));
      in_section = true;
      ini.sections.push_back(section);
      continue;
    }
    if (!in_section) continue;
    const size_t equals = line.find(Char('='));
    Entry<Char> entry{section, trimmed(line.substr(0, equals)), Text<Char>()};
    if (equals != Text<Char>::npos) {
      entry.value = trimmed(line.substr(equals + 1));
      const size_t n = entry.value.size();
      if (n >= 2 && (entry.value[0] == Char('"') || entry.value[0] == Char('\'')) && entry.value[n - 1] == entry.value[0])
        entry.value = entry.value.substr(1, n - 2);
    }
    ini.entries.push_back(std::move(entry));
  }
  return ini;
}

template <typename Char>
bool has_name(const std::vector<Text<Char>>& names, const Text<Char>& name) {
  for (const Text<Char>& n : names)
    if (same_name(n, name)) return true;
  return false;
}

// A value, cut to the buffer.
template <typename Char>
DWORD copy_value(const Text<Char>& value, Char* buffer, DWORD size) {
  if (size == 0) return 0;
  const size_t copied = std::min<size_t>(value.size(), size - 1);
  value.copy(buffer, copied);
  buffer[copied] = Char(0);
  SetLastError(copied < value.size() ? ERROR_MORE_DATA : ERROR_SUCCESS);
  return static_cast<DWORD>(copied);
}

// NUL-separated names with a final NUL; a list that does not fit is cut at
// size - 2 and still ends with two NULs.
template <typename Char>
DWORD copy_list(const std::vector<Text<Char>>& names, Char* buffer, DWORD size) {
  if (size == 0) return 0;
  if (size == 1) {
    buffer[0] = Char(0);
    return 0;
  }
  Text<Char> list;
  for (const Text<Char>& n : names) {
    list += n;
    list.push_back(Char(0));
  }
  if (list.size() + 1 <= size) {
    list.copy(buffer, list.size());
    buffer[list.size()] = Char(0);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(list.size());
  }
  list.copy(buffer, size - 2);
  buffer[size - 2] = Char(0);
  buffer[size - 1] = Char(0);
  SetLastError(ERROR_MORE_DATA);
  return size - 2;
}

template <typename Char>
DWORD lookup(const std::optional<Text<Char>>& content, const Char* appName, const Char* keyName,
             const Char* defaultValue, Char* buffer, DWORD size) {
  if (buffer == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (content.has_value()) {
    const Ini<Char> ini = parse(*content);
    if (appName == nullptr) {
      std::vector<Text<Char>> unique;
      for (const Text<Char>& s : ini.sections)
        if (!has_name(unique, s)) unique.push_back(s);
      return copy_list(unique, buffer, size);
    }
    const Text<Char> section(appName);
    if (keyName == nullptr) {
      std::vector<Text<Char>> keys;
      for (const Entry<Char>& e : ini.entries)
        if (same_name(e.section, section) && !has_name(keys, e.key)) keys.push_back(e.key);
      return copy_list(keys, buffer, size);
    }
    const Text<Char> key(keyName);
    for (const Entry<Char>& e : ini.entries)
      if (same_name(e.section, section) && same_name(e.key, key)) return copy_value(e.value, buffer, size);
  } else if (appName == nullptr || keyName == nullptr) {
    if (size >= 2) buffer[0] = buffer[1] = Char(0);
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
  }
  Text<Char> fallback = defaultValue != nullptr ? Text<Char>(defaultValue) : Text<Char>();
  while (!fallback.empty() && is_blank(fallback.back())) fallback.pop_back();
  const DWORD copied = copy_value(fallback, buffer, size);
  SetLastError(ERROR_FILE_NOT_FOUND);
  return copied;
}

std::optional<std::string> narrow_content(const char* fileName) {
  std::string bytes;
  if (fileName == nullptr || !bv::platform::read_file_bytes(fileName, bytes)) return std::nullopt;
  if (bytes.rfind("\xFF\xFE", 0) == 0 || bytes.rfind("\xFE\xFF", 0) == 0) {
    std::u16string wide;
    bv::platform::read_text_file(fileName, wide);
    const int length = WideCharToMultiByte(1251, 0, reinterpret_cast<LPCWSTR>(wide.data()),
                                           static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(std::max(length, 0)), '\0');
    if (length > 0)
      WideCharToMultiByte(1251, 0, reinterpret_cast<LPCWSTR>(wide.data()), static_cast<int>(wide.size()),
                          narrow.data(), length, nullptr, nullptr);
    return narrow;
  }
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
  return bytes;
}

std::optional<std::u16string> wide_content(LPCWSTR fileName) {
  std::u16string text;
  if (fileName == nullptr || !bv::platform::read_text_file(bv::platform::utf8_from_utf16(fileName), text))
    return std::nullopt;
  return text;
}

}  // namespace

DWORD GetPrivateProfileStringA(LPCSTR appName, LPCSTR keyName, LPCSTR defaultValue, LPSTR buffer, DWORD size,
                               LPCSTR fileName) {
  return lookup<char>(narrow_content(fileName), appName, keyName, defaultValue, buffer, size);
}

DWORD GetPrivateProfileStringW(LPCWSTR appName, LPCWSTR keyName, LPCWSTR defaultValue, LPWSTR buffer,
                               DWORD size, LPCWSTR fileName) {
  return lookup<char16_t>(wide_content(fileName), appName, keyName, defaultValue, buffer, size);
}
