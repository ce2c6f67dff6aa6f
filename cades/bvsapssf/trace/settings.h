// Load of the trace settings (registry, Trace.ini, .trc file, log file).
#pragma once

#include <string>

namespace bv::trace {
// Runs once at load, after the module and categories are registered.
// Returns the outcome, which only the load flag keeps.
bool load_settings();

// Applies a settings file (ini text, UTF-8 or UTF-16 with its byte order
// mark) to the table: the process line and the modules it names.  An empty
// path means the module's own path with the extension ".trc".  A missing
// file changes nothing and counts as success; an [Process] Info line that
// does not parse is a failure.
bool apply_settings_file(std::u16string path, const std::u16string& module_path);

// How the trace of the module named `file_name` ("libbvsapssf.so") is set,
// read as load_settings reads it, without changing anything: the setting
// and the log file name with where each came from ("registry", "Trace.ini"
// or empty for none), and where the log file goes.
struct SettingsDescription {
  std::string setting, setting_from;
  std::string log_name, log_from, log_path;
};
SettingsDescription describe_settings(const std::u16string& file_name);
}  // namespace bv::trace
