// Bytes as hexadecimal text: certificate hashes, stored file names, hash
// identities.
#pragma once

#include <cstddef>
#include <string>

namespace bv::platform {

enum class HexLetters { kLower, kUpper };

// Two digits a byte; `separator`, unless '\0', between the pairs.
std::string hex_text(const unsigned char* bytes, size_t length, HexLetters letters, char separator = '\0');

}  // namespace bv::platform
