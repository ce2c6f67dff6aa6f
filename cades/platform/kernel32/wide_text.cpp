#include "kernel32/wide_text.h"

#include <fstream>
#include <iterator>

#include "kernel32/kernel32.h"

namespace bv::platform {

namespace {
constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point at `i`, moving `i` past it.
char32_t next_code_point(std::string_view s, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char lead = byte(i++);
  if (lead < 0x80) return lead;
  int extra;
  char32_t cp;
  char32_t minimum;
  if ((lead & 0xE0) == 0xC0) {
    extra = 1, cp = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2, cp = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3, cp = lead & 0x07, minimum = 0x10000;
  } else {
    return kReplacement;
  }
  for (int k = 0; k < extra; ++k) {
    if (i >= s.size() || (byte(i) & 0xC0) != 0x80) return kReplacement;
    cp = (cp << 6) | (byte(i++) & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kReplacement;
  return cp;
}
}  // namespace

std::u16string utf16_from_utf8(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const char32_t cp = next_code_point(text, i);
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string utf8_from_utf16(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

std::string utf8_of(LPCWSTR text) { return text == nullptr ? std::string() : utf8_from_utf16(text); }

std::u16string utf16_of(const std::string& text) { return utf16_from_utf8(text); }

bool is_valid_utf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const size_t start = i;
    const char32_t cp = next_code_point(text, i);
    if (cp == kReplacement && text.substr(start, 3) != "\xEF\xBF\xBD") return false;
  }
  return true;
}

bool read_file_bytes(const std::string& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool read_text_file(const std::string& path, std::u16string& text, bool* was_utf16) {
  std::string bytes;
  if (!read_file_bytes(path, bytes)) return false;
  const auto starts_with = [&](std::string_view mark) { return std::string_view(bytes).substr(0, mark.size()) == mark; };
  if (was_utf16 != nullptr) *was_utf16 = false;
  text.clear();
  if (starts_with("\xFF\xFE") || starts_with("\xFE\xFF")) {
    const bool little = bytes[0] == '\xFF';
    for (size_t i = 2; i + 1 < bytes.size(); i += 2) {
      const auto a = static_cast<unsigned char>(bytes[i]);
      const auto b = static_cast<unsigned char>(bytes[i + 1]);
      text.push_back(static_cast<char16_t>(little ? (a | (b << 8)) : ((a << 8) | b)));
    }
    if (was_utf16 != nullptr) *was_utf16 = true;
    return true;
  }
  if (starts_with("\xEF\xBB\xBF")) {
    text = utf16_from_utf8(std::string_view(bytes).substr(3));
    return true;
  }
  if (is_valid_utf8(bytes)) {
    text = utf16_from_utf8(bytes);
    return true;
  }
  const int units = MultiByteToWideChar(1251, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
  text.resize(static_cast<size_t>(units));
  if (units > 0)
    MultiByteToWideChar(1251, 0, bytes.data(), static_cast<int>(bytes.size()), reinterpret_cast<LPWSTR>(text.data()), units);
  return true;
}

size_t wide_length(LPCWSTR text) {
  size_t n = 0;
  if (text != nullptr)
    while (text[n] != 0) ++n;
  return n;
}

}  // namespace bv::platform
