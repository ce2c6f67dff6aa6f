// Paths and texts cross between the wide (UTF-16) interface of the platform
// and the file system, whose names are UTF-8 bytes here.
#pragma once

#include <string>
#include <string_view>

#include "wintypes.h"

namespace bv::platform {

// Invalid sequences become U+FFFD, so a conversion never fails.
std::u16string utf16_from_utf8(std::string_view text);
std::string utf8_from_utf16(std::u16string_view text);
// The same for the platform's NUL-terminated wide texts (null is empty) and
// for names held as std::string.
std::string utf8_of(LPCWSTR text);
std::u16string utf16_of(const std::string& text);

bool is_valid_utf8(std::string_view text);

// A text file as UTF-16: a byte order mark tells UTF-16 (either order) or
// UTF-8; without one the bytes are UTF-8 when they are valid as such, else
// code page 1251.  `was_utf16` tells whether the file itself was UTF-16.
bool read_text_file(const std::string& path, std::u16string& text, bool* was_utf16 = nullptr);
// The raw bytes of a file; false if it cannot be read.
bool read_file_bytes(const std::string& path, std::string& bytes);

// Length of a NUL-terminated wide text.
size_t wide_length(LPCWSTR text);

}  // namespace bv::platform
