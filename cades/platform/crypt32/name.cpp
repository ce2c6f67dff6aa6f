// CertNameToStrA: an encoded X.500 name as the text CryptoAPI gives, in
// the ANSI code page (1251).  RDNs are joined with ", " (or "; ", "\r\n"),
// the attributes of one RDN with " + "; a value is put in double quotes
// when it is empty, starts or ends with a blank, or holds one of
// , + = " \n < > # ; and a quote inside it is doubled.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "kernel32/kernel32.h"
#include "openssl/ossl.h"

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

// The value's characters as code points.  Types that are no text show as
// '#' and the hexadecimal of their encoding.
std::vector<uint32_t> value_characters(const ASN1_STRING* value) {
  std::vector<uint32_t> out;
  const unsigned char* bytes = ASN1_STRING_get0_data(value);
  const size_t length = static_cast<size_t>(ASN1_STRING_length(value));
  switch (ASN1_STRING_type(value)) {
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
      static const char digits[] = "0123456789ABCDEF";
      unsigned char* der = nullptr;
      ASN1_TYPE* any = ASN1_TYPE_new();
      int der_length = 0;
      if (any != nullptr) {
        ASN1_TYPE_set1(any, ASN1_STRING_type(value), value);
        der_length = i2d_ASN1_TYPE(any, &der);
        ASN1_TYPE_free(any);
      }
      out.push_back('#');
      for (int i = 0; i < der_length; ++i) {
        out.push_back(static_cast<uint32_t>(digits[der[i] >> 4]));
        out.push_back(static_cast<uint32_t>(digits[der[i] & 15]));
      }
      OPENSSL_free(der);
      break;
    }
  }
  return out;
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

std::string oid_of(const ASN1_OBJECT* object) {
  char text[128];
  const int length = OBJ_obj2txt(text, sizeof text, object, 1);
  return length > 0 && static_cast<size_t>(length) < sizeof text ? std::string(text) : std::string();
}

}  // namespace

DWORD CertNameToStrA(DWORD /*dwCertEncodingType*/, PCERT_NAME_BLOB pName, DWORD dwStrType, LPSTR psz, DWORD csz) {
  std::string text;
  const DWORD form = dwStrType & 0xFFFF;
  const unsigned char* cursor = pName != nullptr ? pName->pbData : nullptr;
  bv::ossl::UniquePtr<X509_NAME> name;
  if (cursor != nullptr && pName->cbData != 0) {
    name.reset(d2i_X509_NAME(nullptr, &cursor, static_cast<long>(pName->cbData)));
  }
  if (!name) {
    bv::ossl::fail(CRYPT_E_ASN1_BADTAG);
  } else {
    // Group the attributes by RDN, in encoded order.
    std::vector<std::vector<const X509_NAME_ENTRY*>> rdns;
    int last_set = -1;
    for (int i = 0; i < X509_NAME_entry_count(name.get()); ++i) {
      const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name.get(), i);
      if (rdns.empty() || X509_NAME_ENTRY_set(entry) != last_set) rdns.emplace_back();
      last_set = X509_NAME_ENTRY_set(entry);
      rdns.back().push_back(entry);
    }
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
        const X509_NAME_ENTRY* entry = rdns[r][a];
        const std::string oid = oid_of(X509_NAME_ENTRY_get_object(entry));
        if (form == CERT_OID_NAME_STR) {
          text += oid + "=";
        } else if (form == CERT_X500_NAME_STR) {
          const char* key = nullptr;
          for (const X500Key& known : kX500Keys)
            if (oid == known.oid) key = known.key;
          text += key != nullptr ? std::string(key) + "=" : "OID." + oid + "=";
        }
        const std::vector<uint32_t> value = value_characters(X509_NAME_ENTRY_get_data(entry));
        const bool quoted = quoting && needs_quotes(value);
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
