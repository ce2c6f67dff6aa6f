// Whole files and folder paths, the way every platform module and tool
// reads and writes them.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace bv::platform {

// The whole file; empty when it cannot be read.
std::string read_whole_file(const std::string& path);

// Writes `bytes` beside `path` and renames them into place, so that a reader
// never sees half a file.  0, or the errno of the step that failed (the
// temporary file is gone then).
int replace_file(const std::string& path, std::string_view bytes, mode_t mode);

// Creates `path` and the folders above it that are missing, each with
// `mode`.  0 when the folder exists afterwards, else the errno.
int make_directories(const std::string& path, mode_t mode);

}  // namespace bv::platform
