// Load of the trace settings (registry, Trace.ini, .trc file, log file).
#pragma once

namespace bv::trace {
// Runs once at load, after the module and categories are registered.
// Returns the outcome, which only the load flag keeps.
bool load_settings();
}  // namespace bv::trace
