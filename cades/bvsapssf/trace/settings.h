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
}  // namespace bv::trace
