// Where a finished line goes: the log file when one is open, standard error
// (the debug output) otherwise.
#pragma once

#include <cstddef>

namespace bv::trace {

// Opens (creates, appends to) the log file at `path`; false if it cannot.
bool open_log_file(const char* path);
// Back to standard error; for tests that open a log file of their own.
void close_log_file();
bool log_file_open();
void write_line(const char* text, size_t length);

// This module's file name, the text of the first part of every line.
void set_module_identity(int module_id);
int module_id();

}  // namespace bv::trace
