// Where the filter's values come from, read once at load: the registry key
// SOFTWARE\Brelvantec\Trace, then Trace.ini of the common and the local
// folder, and optionally a .trc settings file.  See docs/configuration.md.
#include "trace/settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

#include "advapi32/registry.h"
#include "kernel32/kernel32.h"
#include "kernel32/module.h"
#include "kernel32/profile.h"
#include "kernel32/wide_text.h"
#include "shell32/shell32.h"
#include "trace/output.h"
#include "trace/table.h"
#include "trace/trace.h"

namespace bv::trace {
namespace {

using bv::platform::utf16_from_utf8;
using bv::platform::utf8_from_utf16;

constexpr DWORD kModuleNotFound = 126;  // ERROR_MOD_NOT_FOUND, kept only in the load flag

class RegistryKeyHandle {
 public:
  RegistryKeyHandle() = default;
  ~RegistryKeyHandle() {
    if (key_ != nullptr) RegCloseKey(key_);
  }
  RegistryKeyHandle(const RegistryKeyHandle&) = delete;
  RegistryKeyHandle& operator=(const RegistryKeyHandle&) = delete;
  PHKEY out() { return &key_; }
  HKEY get() const { return key_; }
  bool is_open() const { return key_ != nullptr; }

 private:
  HKEY key_ = nullptr;
};

// A text value of type REG_SZ or REG_EXPAND_SZ; nothing for a missing value
// or one of another type.
std::optional<std::u16string> registry_text(const RegistryKeyHandle& key, const std::u16string& name) {
  if (!key.is_open()) return std::nullopt;
  DWORD type = REG_NONE;
  DWORD size = 0;
  if (RegQueryValueExW(key.get(), name.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return std::nullopt;
  if (type != REG_SZ && type != REG_EXPAND_SZ) return std::nullopt;
  std::vector<BYTE> data(size + sizeof(WCHAR), 0);
  if (RegQueryValueExW(key.get(), name.c_str(), nullptr, &type, data.data(), &size) != ERROR_SUCCESS)
    return std::nullopt;
  std::u16string text;
  for (size_t i = 0; i + 1 < size; i += 2) {
    const char16_t unit = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    if (unit == 0) break;
    text.push_back(unit);
  }
  return text;
}

// Trace.ini, section Trace: the common folder's file first, then the local
// one; the first non-empty value wins.  Empty, with the last error 2, when
// neither has one.
std::u16string trace_ini_value(const std::u16string& key) {
  for (const int folder : {CSIDL_COMMON_APPDATA, CSIDL_LOCAL_APPDATA}) {
    WCHAR path[MAX_PATH];
    if (SHGetFolderPathW(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) continue;
    if (!PathAppendW(path, u"Brelvantec\\Trace.ini")) continue;
    WCHAR value[MAX_PATH] = {};
    if (GetPrivateProfileStringW(u"Trace", key.c_str(), u"", value, MAX_PATH, path) > 0) return value;
  }
  SetLastError(ERROR_FILE_NOT_FOUND);
  return u"";
}

bool open_log_in_folder(int folder, const std::u16string& name) {
  WCHAR path[MAX_PATH];
  if (SHGetFolderPathW(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) return false;
  if (!PathAppendW(path, u"Brelvantec\\LogFiles")) return false;
  const int created = SHCreateDirectory(nullptr, path);
  if (created != ERROR_SUCCESS && created != ERROR_ALREADY_EXISTS) return false;
  if (!PathAppendW(path, name.c_str())) return false;
  return open_log_file(utf8_from_utf16(path).c_str());
}

// A name with a '/' is a path; any other goes into LogFiles of the common
// folder, or of the local one when that fails.  A log file that cannot be
// opened leaves the lines on standard error.
void open_log(const std::u16string& name) {
  if (name.find(u'/') != std::u16string::npos) {
    open_log_file(utf8_from_utf16(name).c_str());
    return;
  }
  if (open_log_in_folder(CSIDL_COMMON_APPDATA, name)) return;
  open_log_in_folder(CSIDL_LOCAL_APPDATA, name);
}

uint32_t status_from_file(unsigned value) {
  return value == kStatusInherit || value == kStatusEnabled ? value : kStatusDisabled;
}

std::string profile_text(const std::u16string& file, const std::u16string& section, const std::u16string& key) {
  WCHAR value[MAX_PATH] = {};
  GetPrivateProfileStringW(section.c_str(), key.c_str(), u"", value, MAX_PATH, file.c_str());
  return utf8_from_utf16(value);
}

}  // namespace

bool apply_settings_file(std::u16string path, const std::u16string& module_path) {
  if (path.empty()) {
    WCHAR own[MAX_PATH] = {};
    if (module_path.size() >= MAX_PATH) return false;
    module_path.copy(own, module_path.size());
    if (!PathRenameExtensionW(own, u".trc")) return false;
    path = own;
  }
  struct stat info{};
  if (::stat(utf8_from_utf16(path).c_str(), &info) != 0) return true;

  // [Process] Info sets the process line.
  const std::string info_line = profile_text(path, u"Process", u"Info");
  unsigned module_count = 0;
  unsigned level = 0;
  char enabled = 0;
  char func_and_category_names = 0;
  char file_name_and_line_no = 0;
  if (std::sscanf(info_line.c_str(),
                  "ModuleCount:%u, Level:%u, Enabled:%c, FuncAndCategoryNames:%c, FileNameAndLineNo:%c",
                  &module_count, &level, &enabled, &func_and_category_names, &file_name_and_line_no) != 5)
    return false;
  ProcessSettings process = read_process();
  process.level = level;
  process.enabled = enabled != 'f';
  process.func_and_category_names = func_and_category_names != 'f';
  process.file_name_and_line_no = file_name_and_line_no != 'f';
  write_process(process);

  // Each ModuleN names a section describing one module and its categories;
  // no file names more of them than the table holds.
  module_count = std::min<unsigned>(module_count, kMaxModules);
  for (unsigned m = 1; m <= module_count; ++m) {
    const std::string section = profile_text(path, u"Process", utf16_from_utf8("Module" + std::to_string(m)));
    if (section.empty()) continue;
    const std::u16string wide_section = utf16_from_utf8(section);
    const int module = find_module(profile_text(path, wide_section, u"Name").c_str(), true);
    if (module == kNoId) continue;

    const std::string settings = profile_text(path, wide_section, u"Settings");
    unsigned category_count = 0;
    unsigned module_level = 0;
    unsigned module_status = 0;
    if (std::sscanf(settings.c_str(), "CategoryCount:%u, Level:%u, Status:%u", &category_count, &module_level,
                    &module_status) != 3)
      continue;
    set_module(module, module_level, status_from_file(module_status));
    category_count = std::min<unsigned>(category_count, kMaxCategories);

    for (unsigned c = 1; c <= category_count; ++c) {
      const std::string line = profile_text(path, wide_section, utf16_from_utf8("Category" + std::to_string(c)));
      unsigned category_level = 0;
      unsigned category_status = 0;
      char name[MAX_PATH] = {};
      if (std::sscanf(line.c_str(), "Level:%u, Status:%u, Name:%259s", &category_level, &category_status, name) != 3)
        continue;
      for_each_category(module, [&](int id, const CategoryRecord& record) {
        if (std::string(record.name) == name) set_category(id, category_level, status_from_file(category_status));
      });
    }
  }
  return true;
}

SettingsDescription describe_settings(const std::u16string& file_name) {
  SettingsDescription out;
  RegistryKeyHandle key;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Brelvantec\\Trace", 0, KEY_READ, key.out());
  // An empty registry value is a setting (level 3) but no log file name.
  const auto read = [&](const std::u16string& name, std::string& value, std::string& from, bool empty_counts) {
    if (std::optional<std::u16string> text = registry_text(key, name); text && (empty_counts || !text->empty())) {
      value = utf8_from_utf16(*text);
      from = "registry";
    } else if (std::u16string ini = trace_ini_value(name); !ini.empty()) {
      value = utf8_from_utf16(ini);
      from = "Trace.ini";
    }
  };
  read(file_name, out.setting, out.setting_from, true);
  read(file_name + u".logfile", out.log_name, out.log_from, false);
  if (out.log_name.find('/') != std::string::npos) {
    out.log_path = out.log_name;
  } else if (!out.log_name.empty()) {
    for (const int folder : {CSIDL_COMMON_APPDATA, CSIDL_LOCAL_APPDATA}) {
      char path[MAX_PATH];
      if (SHGetFolderPathA(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) continue;
      out.log_path += (out.log_path.empty() ? "" : ", else ") + std::string(path) + "/Brelvantec/LogFiles/" + out.log_name;
    }
  }
  return out;
}

bool load_settings() {
  // The settings file is read with scanf, which takes blanks as the
  // thread's locale classes them: the library's own classes here.
  const bv::platform::ScopedAnsiLocale code_page_rules;

  // 1. This module's path and file name.
  WCHAR module_path[MAX_PATH] = {};
  const DWORD path_length = GetModuleFileNameW(bv::platform::this_module(), module_path, MAX_PATH);
  if (path_length == 0 || path_length >= MAX_PATH) return false;
  const std::u16string file_name = PathFindFileNameW(module_path);

  // 2. The setting key and the log key.
  const std::u16string setting_key = file_name;
  const std::u16string log_key = file_name + u".logfile";

  // 3. The registry key.
  RegistryKeyHandle key;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Brelvantec\\Trace", 0, KEY_READ, key.out());

  // 4. The setting: the registry, else Trace.ini.
  std::optional<std::u16string> setting = registry_text(key, setting_key);
  if (!setting.has_value()) {
    // Trace.ini cannot tell an empty value from a missing one: both are none.
    std::u16string from_ini = trace_ini_value(setting_key);
    if (!from_ini.empty()) setting = std::move(from_ini);
  }

  // 5. The log file, only for a module that has a setting.
  if (setting.has_value()) {
    std::u16string log_name = registry_text(key, log_key).value_or(u"");
    if (log_name.empty()) log_name = trace_ini_value(log_key);
    if (!log_name.empty()) open_log(log_name);
  }

  // 6. ProcessFlags: a DWORD of the registry; Trace.ini when the key is not
  //    there or the read failed.
  DWORD process_flags = 0;
  bool flags_read = false;
  if (key.is_open()) {
    DWORD type = REG_NONE;
    DWORD size = sizeof process_flags;
    flags_read = RegQueryValueExW(key.get(), u"ProcessFlags", nullptr, &type, reinterpret_cast<BYTE*>(&process_flags),
                                  &size) == ERROR_SUCCESS &&
                 type == REG_DWORD;
    if (!flags_read) process_flags = 0;
  }
  if (!flags_read && process_flags == 0) {
    const std::string text = utf8_from_utf16(trace_ini_value(u"ProcessFlags"));
    unsigned value = 0;
    if (std::sscanf(text.c_str(), "%u", &value) == 1) process_flags = value;
  }

  // 7. The table, the process switched on, its flags.
  if (!attach()) return false;
  ProcessSettings process = read_process();
  process.enabled = true;
  process.func_and_category_names = (process_flags & 1) != 0;
  process.file_name_and_line_no = (process_flags & 2) != 0;
  write_process(process);

  // 8. This module's record, searched from the last registered.
  const int module = find_module(utf8_from_utf16(file_name).c_str(), false);
  if (module == kNoId) {
    SetLastError(kModuleNotFound);
    return false;
  }

  // 9. The setting applied.
  bool applied = true;
  if (setting.has_value() && setting->empty()) {
    set_module(module, TRACE_INFO, kStatusEnabled);
  } else if (!setting.has_value()) {
    set_module(module, 0, kStatusDisabled);
  } else if (setting->size() == 1 && (*setting)[0] >= u'0' && (*setting)[0] <= u'4') {
    set_module(module, static_cast<uint32_t>((*setting)[0] - u'0'), kStatusEnabled);
  } else {
    applied = apply_settings_file(*setting, module_path);
  }

  // 10. Tell a waiting outside tool.
  announce();
  return applied;
}

}  // namespace bv::trace
