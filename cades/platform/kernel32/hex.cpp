#include "kernel32/hex.h"

namespace bv::platform {

std::string hex_text(const unsigned char* bytes, size_t length, HexLetters letters, char separator) {
  const char* digits = letters == HexLetters::kUpper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string text;
  text.reserve(length * (separator != '\0' ? 3 : 2));
  for (size_t i = 0; i < length; ++i) {
    if (i > 0 && separator != '\0') text += separator;
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace bv::platform
