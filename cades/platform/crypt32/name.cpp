// CertNameToStrA: an encoded X.500 name as the text CryptoAPI gives, in
// the ANSI code page (1251).  RDNs are joined with ", " (or "; ", "\r\n"),
// the attributes of one RDN with " + "; a value is put in double quotes
// when it is empty, starts or ends with a blank, or holds one of
// , + = " \n < > # ; and a quote inside it is doubled.
#include <openssl/asn1.h>  // the V_ASN1_ tag numbers

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "kernel32/hex.h"
#include "kernel32/kernel32.h"

namespace {

// Keys of the X.500 form; other attributes show as "OID.<dotted>".
struct X500Key {
  const char* oid;
  const char* key;
};
constexpr X500Key kX500Keys[] = {
    {"2.5.4.3", "CN"},
    {"2.5.4.4", "SN"},
    {"2.5.4.5", "SERIALNUMBER"},
    {"2.5.4.6", "C"},
    {"2.5.4.7", "L"},
    {"2.5.4.8", "S"},
    {"2.5.4.9", "STREET"},
    {"2.5.4.10", "O"},
    {"2.5.4.11", "OU"},
    {"2.5.4.12", "T"},
    {"2.5.4.42", "G"},
    {"2.5.4.43", "I"},
    {"1.2.840.113549.1.9.1", "E"},
    {"0.9.2342.19200300.100.1.25", "DC"},
};

// Code page 1251, 0x80 to 0xBF (0xC0 to 0xFF are U+0410 to U+044F).
constexpr char16_t kCp1251High[64] = {
    0x0402, 0x0403, 0x201A, 0x0453, 0x201E, 0x2026, 0x2020, 0x2021, 0x20AC, 0x2030, 0x0409, 0x2039, 0x040A,
    0x040C, 0x040B, 0x040F, 0x0452, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, 0xFFFF, 0x2122,
    0x0459, 0x203A, 0x045A, 0x045C, 0x045B, 0x045F, 0x00A0, 0x040E, 0x045E, 0x0408, 0x00A4, 0x0490, 0x00A6,
    0x00A7, 0x0401, 0x00A9, 0x0404, 0x00AB, 0x00AC, 0x00AD, 0x00AE, 0x0407, 0x00B0, 0x00B1, 0x0406, 0x0456,
    0x0491, 0x00B5, 0x00B6, 0x00B7, 0x0451, 0x2116, 0x0454, 0x00BB, 0x0458, 0x0405, 0x0455, 0x0457,
};

char ansi_of(uint32_t code) {
  if (code < 0x80) return static_cast<char>(code);
  if (code >= 0x0410 && code <= 0x044F) return static_cast<char>(0xC0 + (code - 0x0410));
  for (int i = 0; i < 64; ++i)
    if (kCp1251High[i] == code) return static_cast<char>(0x80 + i);
  return '?';
}

bool decode_utf8(const unsigned char* bytes, size_t length, std::vector<uint32_t>& out) {
  for (size_t i = 0; i < length;) {
    const unsigned char byte = bytes[i];
    size_t extra = 0;
    uint32_t code = 0;
    if (byte < 0x80) {
      code = byte;
    } else if ((byte & 0xE0) == 0xC0) {
      code = byte & 0x1F, extra = 1;
    } else if ((byte & 0xF0) == 0xE0) {
      code = byte & 0x0F, extra = 2;
    } else if ((byte & 0xF8) == 0xF0) {
      code = byte & 0x07, extra = 3;
    } else {
      return false;
    }
    if (extra != 0 && i + extra >= length) return false;  // cut short
    for (size_t k = 1; k <= extra; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      code = (code << 6) | (bytes[i + k] & 0x3F);
    }
    out.push_back(code);
    i += extra + 1;
  }
  return true;
}

// One DER element: its tag, its content, and the whole of it.
struct Element {
  int tag = 0;
  const unsigned char* content = nullptr;
  size_t length = 0;
  const unsigned char* start = nullptr;
  size_t total = 0;
};

// Reads the element at `cursor` (single-byte tags, definite lengths) and
// steps over it.  False for anything malformed or running past `end`.
bool read_element(const unsigned char*& cursor, const unsigned char* end, Element& out) {
  if (cursor >= end) return false;
  out.start = cursor;
  out.tag = *cursor++;
  if ((out.tag & 0x1F) == 0x1F || cursor >= end) return false;
  size_t length = *cursor++;
  if (length & 0x80) {
    const size_t bytes = length & 0x7F;
    if (bytes == 0 || bytes > 4 || static_cast<size_t>(end - cursor) < bytes) return false;
    length = 0;
    for (size_t i = 0; i < bytes; ++i) length = (length << 8) | *cursor++;
  }
  if (static_cast<size_t>(end - cursor) < length) return false;
  out.content = cursor;
  out.length = length;
  cursor += length;
  out.total = static_cast<size_t>(cursor - out.start);
  return true;
}

// Dotted text of an OBJECT IDENTIFIER's content; empty if malformed.
std::string dotted_oid(const unsigned char* bytes, size_t length) {
  std::string text;
  uint64_t arc = 0;
  bool first = true;
  for (size_t i = 0; i < length; ++i) {
    if (arc > (UINT64_MAX >> 7)) return {};
    arc = (arc << 7) | (bytes[i] & 0x7F);
    if (bytes[i] & 0x80) continue;
    if (first) {
      const uint64_t top = arc < 40 ? 0 : arc < 80 ? 1 : 2;
      text = std::to_string(top) + "." + std::to_string(arc - 40 * top);
      first = false;
    } else {
      text += "." + std::to_string(arc);
    }
    arc = 0;
  }
  return (length == 0 || (bytes[length - 1] & 0x80)) ? std::string() : text;
}

// The value's characters as code points.  Types that are no text show as
// '#' and the hexadecimal of their encoding.
std::vector<uint32_t> value_characters(const Element& value) {
  std::vector<uint32_t> out;
  const unsigned char* bytes = value.content;
  const size_t length = value.length;
  switch (value.tag) {
    case V_ASN1_UTF8STRING:
      if (!decode_utf8(bytes, length, out)) {
        out.clear();
        for (size_t i = 0; i < length; ++i) out.push_back(bytes[i]);
      }
      break;
    case V_ASN1_BMPSTRING:
      for (size_t i = 0; i + 1 < length; i += 2) {
        uint32_t unit = (static_cast<uint32_t>(bytes[i]) << 8) | bytes[i + 1];
        if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < length) {
          const uint32_t low = (static_cast<uint32_t>(bytes[i + 2]) << 8) | bytes[i + 3];
          unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
          i += 2;
        }
        out.push_back(unit);
      }
      break;
    case V_ASN1_UNIVERSALSTRING:
      for (size_t i = 0; i + 3 < length; i += 4)
        out.push_back((static_cast<uint32_t>(bytes[i]) << 24) | (static_cast<uint32_t>(bytes[i + 1]) << 16) |
                      (static_cast<uint32_t>(bytes[i + 2]) << 8) | bytes[i + 3]);
      break;
    case V_ASN1_T61STRING:
      // Teletex text is taken as UTF-8 when it is valid as such.
      if (decode_utf8(bytes, length, out)) break;
      out.clear();
      [[fallthrough]];
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_NUMERICSTRING:
    case V_ASN1_VISIBLESTRING:
      for (size_t i = 0; i < length; ++i) out.push_back(bytes[i]);
      break;
    default: {
      out.push_back('#');
      for (const char digit : bv::platform::hex_text(value.start, value.total, bv::platform::HexLetters::kUpper))
        out.push_back(static_cast<uint32_t>(digit));
      break;
    }
  }
  return out;
}

bool is_text(int tag) {
  switch (tag) {
    case V_ASN1_UTF8STRING:
    case V_ASN1_BMPSTRING:
    case V_ASN1_UNIVERSALSTRING:
    case V_ASN1_T61STRING:
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_NUMERICSTRING:
    case V_ASN1_VISIBLESTRING:
      return true;
    default:
      return false;
  }
}

struct Attribute {
  std::string oid;
  Element value;
};

// Name ::= SEQUENCE OF RelativeDistinguishedName
// RelativeDistinguishedName ::= SET SIZE (1..MAX) OF AttributeTypeAndValue
// AttributeTypeAndValue ::= SEQUENCE { type OBJECT IDENTIFIER, value ANY }
// Read directly: this runs for every certificate a DN search visits.
bool read_name(const unsigned char* der, size_t length, std::vector<std::vector<Attribute>>& rdns) {
  const unsigned char* cursor = der;
  const unsigned char* end = der + length;
  Element name;
  if (!read_element(cursor, end, name) || name.tag != 0x30) return false;
  const unsigned char* rdn_cursor = name.content;
  const unsigned char* rdn_end = name.content + name.length;
  while (rdn_cursor < rdn_end) {
    Element set;
    if (!read_element(rdn_cursor, rdn_end, set) || set.tag != 0x31 || set.length == 0) return false;
    rdns.emplace_back();
    const unsigned char* attribute_cursor = set.content;
    const unsigned char* attribute_end = set.content + set.length;
    while (attribute_cursor < attribute_end) {
      Element sequence, type, value;
      if (!read_element(attribute_cursor, attribute_end, sequence) || sequence.tag != 0x30) return false;
      const unsigned char* inner = sequence.content;
      const unsigned char* inner_end = sequence.content + sequence.length;
      if (!read_element(inner, inner_end, type) || type.tag != 0x06 || !read_element(inner, inner_end, value) ||
          inner != inner_end) {
        return false;
      }
      Attribute attribute{dotted_oid(type.content, type.length), value};
      if (attribute.oid.empty()) return false;
      rdns.back().push_back(std::move(attribute));
    }
  }
  return true;
}

bool needs_quotes(const std::vector<uint32_t>& value) {
  if (value.empty()) return true;
  if (value.front() == ' ' || value.back() == ' ') return true;
  for (uint32_t c : value) {
    switch (c) {
      case ',':
      case '+':
      case '=':
      case '"':
      case '\n':
      case '<':
      case '>':
      case '#':
      case ';':
        return true;
      default:
        break;
    }
  }
  return false;
}

}  // namespace

DWORD CertNameToStrA(DWORD /*dwCertEncodingType*/, PCERT_NAME_BLOB pName, DWORD dwStrType, LPSTR psz, DWORD csz) {
  std::string text;
  const DWORD form = dwStrType & 0xFFFF;
  std::vector<std::vector<Attribute>> rdns;
  if (pName == nullptr || pName->pbData == nullptr || !read_name(pName->pbData, pName->cbData, rdns)) {
    SetLastError(CRYPT_E_ASN1_BADTAG);
  } else {
    if (dwStrType & CERT_NAME_STR_REVERSE_FLAG) std::reverse(rdns.begin(), rdns.end());
    const char* rdn_separator = ", ";
    if (dwStrType & CERT_NAME_STR_SEMICOLON_FLAG) rdn_separator = "; ";
    if (dwStrType & CERT_NAME_STR_CRLF_FLAG) rdn_separator = "\r\n";
    const char* attribute_separator = (dwStrType & CERT_NAME_STR_NO_PLUS_FLAG) ? " " : " + ";
    const bool quoting = !(dwStrType & CERT_NAME_STR_NO_QUOTING_FLAG);

    for (size_t r = 0; r < rdns.size(); ++r) {
      if (r != 0) text += rdn_separator;
      for (size_t a = 0; a < rdns[r].size(); ++a) {
        if (a != 0) text += attribute_separator;
        const Attribute& entry = rdns[r][a];
        const std::string& oid = entry.oid;
        if (form == CERT_OID_NAME_STR) {
          text += oid + "=";
        } else if (form == CERT_X500_NAME_STR) {
          const char* key = nullptr;
          for (const X500Key& known : kX500Keys)
            if (oid == known.oid) key = known.key;
          text += key != nullptr ? std::string(key) + "=" : "OID." + oid + "=";
        }
        const std::vector<uint32_t> value = value_characters(entry.value);
        // The '#' in front of an encoding in hexadecimal is no reason to quote.
        const bool quoted = quoting && is_text(entry.value.tag) && needs_quotes(value);
        if (quoted) text += '"';
        for (uint32_t c : value) {
          if (quoted && c == '"') text += '"';
          text += ansi_of(c);
        }
        if (quoted) text += '"';
      }
    }
  }

  const DWORD needed = static_cast<DWORD>(text.size()) + 1;
  if (psz == nullptr || csz == 0) return needed;
  const DWORD copied = std::min<DWORD>(needed - 1, csz - 1);
  std::memcpy(psz, text.data(), copied);
  psz[copied] = '\0';
  return copied + 1;
}
