#include "identity/identity.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernel32/hex.h"
#include "kernel32/kernel32.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";

// The classes of the library's code page 1251 locale, whatever locale the
// host has set.
bool code_page_space(unsigned char c) { return isspace_l(c, bv::platform::ansi_locale()) != 0; }
bool code_page_xdigit(unsigned char c) { return isxdigit_l(c, bv::platform::ansi_locale()) != 0; }
unsigned hex_value(unsigned char c) {
  return c <= '9' ? static_cast<unsigned>(c - '0')
                  : static_cast<unsigned>(toupper_l(c, bv::platform::ansi_locale()) - 55);
}

bool begins_with(const char* key, const char* word) { return std::strncmp(key, word, std::strlen(word)) == 0; }

// The OID of a DN key; `key` runs on into the rest of the terminated DN
// text, and a word longer than the key is compared against what follows,
// as the lookup always has.  Rows are tried in order; the first holds.
std::string key_oid(const char* key, size_t key_length) {
  const char first = key[0];
  if (begins_with(key, "EMAIL") || first == 'E') return "1.2.840.113549.1.9.1";
  if (begins_with(key, "CN")) return "2.5.4.3";
  if (first == 'C') return "2.5.4.6";
  if (first == 'S' && !begins_with(key, "SN") && !begins_with(key, "STREET")) return "2.5.4.8";
  if (first == 'L') return "2.5.4.7";
  if (begins_with(key, "STREET")) return "2.5.4.9";
  if (first == 'O' && !begins_with(key, "OU") && !begins_with(key, "OGRN") && !begins_with(key, "OGRNIP"))
    return "2.5.4.10";
  if (begins_with(key, "OU")) return "2.5.4.11";
  if (begins_with(key, "TITLE") || first == 'T') return "2.5.4.12";
  if (begins_with(key, "GIVENNAME") || first == 'G') return "2.5.4.42";
  if (begins_with(key, "INITIALS") || (first == 'I' && !begins_with(key, "INN"))) return "2.5.4.43";
  if (begins_with(key, "SN") && !begins_with(key, "SNILS")) return "2.5.4.4";
  if (begins_with(key, "DC")) return "0.9.2342.19200300.100.1.25";
  if (begins_with(key, "PS")) return "2.5.4.65";
  if (begins_with(key, "OGRNIP")) return "1.2.643.100.5";
  if (begins_with(key, "OGRN")) return "1.2.643.100.1";
  if (begins_with(key, "INN")) return "1.2.643.3.131.1.1";
  if (begins_with(key, "SNILS")) return "1.2.643.100.3";
  return std::string(key, key_length);
}

// Quotes are dropped, not interpreted: first every backslash-quote pair,
// then every quote left.
void strip_quotes(std::string& item) {
  std::string unpaired;
  unpaired.reserve(item.size());
  for (size_t i = 0; i < item.size(); ++i) {
    if (item[i] == '\\' && i + 1 < item.size() && item[i + 1] == '"') {
      ++i;
      continue;
    }
    unpaired += item[i];
  }
  item.clear();
  for (const char c : unpaired)
    if (c != '"') item += c;
}

bool has_byte_above_127(const std::string& item) {
  for (const char c : item)
    if (static_cast<unsigned char>(c) > 127) return true;
  return false;
}

}  // namespace

bool is_hash_id(const char* strSigRcpId, int32_t strSigRcpIdL) {
  for (int32_t i = 0; i < strSigRcpIdL; ++i) {
    const auto c = static_cast<unsigned char>(strSigRcpId[i]);
    if (!code_page_xdigit(c) && !code_page_space(c)) return false;
  }
  return true;
}

bool parse_hex_string(const char* text, int32_t length, BYTE* out, DWORD capacity, DWORD* count) {
  const auto at = [&](int32_t i) -> unsigned char {
    return i < length ? static_cast<unsigned char>(text[i]) : 0;
  };
  int32_t position = 0;
  DWORD bytes = 0;
  while (position < length && code_page_space(at(position))) ++position;
  for (;;) {
    if (position >= length) {
      *count = bytes;
      return true;
    }
    const unsigned char high = at(position);
    const unsigned char low = at(position + 1);
    if (!code_page_xdigit(high) || !code_page_xdigit(low)) return false;
    if (out != nullptr) {
      if (bytes >= capacity) return false;
      out[bytes] = static_cast<BYTE>((hex_value(high) << 4) | hex_value(low));
    }
    position += 2;
    while (position < length && code_page_space(at(position))) ++position;
    ++bytes;
  }
}

bool parse_CertHashID(const char* strSigRcpId, int32_t strSigRcpIdL, CRYPT_HASH_BLOB* hash) {
  constexpr const char* trace_function = "parse_CertHashID";
  // A text that stops before its end is no hash, whatever an earlier signer
  // left in the shared blob: its count is never reused.
  DWORD count = 0;
  if (!parse_hex_string(strSigRcpId, strSigRcpIdL, nullptr, 0, &count)) return false;
  hash->cbData = count;
  if (count == 0) return true;
  std::free(hash->pbData);
  hash->pbData = static_cast<BYTE*>(std::malloc(count));
  if (hash->pbData == nullptr) {
    hash->cbData = 0;
    BV_TRACE(TRACE_NORMAL, "#error#: Failed to allocate buffer of %d chars\n", static_cast<int>(count));
    return false;
  }
  return parse_hex_string(strSigRcpId, strSigRcpIdL, hash->pbData, count, &hash->cbData);
}

std::string bytes_to_hex_string(const BYTE* bytes, int32_t count) {
  return bv::platform::hex_text(bytes, count > 0 ? static_cast<size_t>(count) : 0, bv::platform::HexLetters::kLower, ' ');
}

int32_t parse_dn_string(const char* text, int32_t length, RdnList& rdns) {
  constexpr const char* trace_function = "parse_dn_string";
  // The text is read as a terminated string: a subject rendered by the
  // certificate service arrives with its terminator counted in `length`.
  std::vector<char> buffer(static_cast<size_t>(length < 0 ? 0 : length) + 1, '\0');
  if (length > 0) std::memcpy(buffer.data(), text, static_cast<size_t>(length));
  rdns.clear();
  const char* p = buffer.data();

  for (;;) {
    while (*p == ' ') ++p;
    if (*p == ',') {
      ++p;
      while (*p == ' ') ++p;
    }
    if (*p == '\0') return 0;

    if (*p == '=') return -1;
    const char* key = p;
    const char* equals = std::strchr(key, '=');
    if (equals == nullptr) return -1;
    const char* key_last = equals - 1;
    while (key_last > key && *key_last == ' ') --key_last;

    std::string item = key_oid(key, static_cast<size_t>(key_last - key + 1));
    item += '=';

    p = key_last + 1;
    while (*p == ' ') ++p;
    if (*p == '=') {
      ++p;
      while (*p == ' ') ++p;
    }
    if (*p == '\0') return 24;

    const char* value = p;
    const char* value_last = nullptr;
    const char* scan = value + 1;
    if (*value == '"') {
      for (;;) {
        if (*scan == '\0') {
          value_last = scan - 1;
          break;
        }
        if (scan[0] == '\\' && scan[1] == '"') {
          scan += 2;
        } else if (scan[0] == '\\') {
          scan += 1;
        } else if (scan[0] == '"' && scan[1] == '"') {
          scan += 2;
        } else if (scan[0] == '"') {
          value_last = scan;
          break;
        } else {
          ++scan;
        }
      }
    } else {
      while (*scan != '\0' && *scan != ',') ++scan;
      if (*scan == '\0') {
        value_last = scan - 1;
      } else {
        value_last = scan - 1;
        while (value_last > value && *value_last == ' ') --value_last;
      }
    }
    item.append(value, static_cast<size_t>(value_last - value + 1));

    strip_quotes(item);
    if (item.find("\\u") != std::string::npos && !has_byte_above_127(item)) {
      const int32_t rc = unescape_rdn(item);
      if (rc != 0) {
        BV_TRACE(TRACE_NORMAL, "#error#: unescape_rdn failed\n");
        return rc;
      }
    }
    rdns.push_back(std::move(item));
    p = value_last + 1;
  }
}

int32_t unescape_rdn(std::string& rdn) {
  const size_t n = rdn.size();
  std::vector<WCHAR> units(n + 1, 0);
  size_t written = 0;
  const char* p = rdn.c_str();
  while (*p != '\0' && written < n) {
    if (p[0] == '\\' && p[1] == 'u') {
      char digits[5] = {};
      size_t copied = 0;
      while (copied < 4 && p[2 + copied] != '\0') {
        digits[copied] = p[2 + copied];
        ++copied;
      }
      if (copied < 4) break;
      units[written++] = static_cast<WCHAR>(strtoul_l(digits, nullptr, 16, bv::platform::ansi_locale()) & 0xFFFF);
      p += 6;
    } else if (p[0] == '\\') {
      units[written++] = u'\\';
      p += 1;
    } else {
      units[written++] = static_cast<WCHAR>(static_cast<unsigned char>(*p));
      p += 1;
    }
  }
  units[written] = 0;

  std::vector<char> bytes(4 * written + 4, '\0');
  const int converted = WideCharToMultiByte(CP_ACP, 0, units.data(), -1, bytes.data(),
                                            static_cast<int>(bytes.size()), nullptr, nullptr);
  if (converted > 0) {
    if (static_cast<size_t>(converted) > n + 1) bytes[n] = '\0';
    rdn.assign(bytes.data());
  }
  return 0;
}

bool dn_contains_all(const RdnList& wanted, const RdnList& have) {
  for (const std::string& item : wanted) {
    bool found = false;
    for (const std::string& candidate : have) {
      if (candidate.size() == item.size() && std::memcmp(candidate.data(), item.data(), item.size()) == 0) {
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}
