#include "identity/names.h"

#include <string>

#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";

struct FormatName {
  const char* name;
  int32_t length;
};
constexpr FormatName kFormats[] = {{"CADES", 5}, {"PKCS7", 5}, {"PKCS7_CADES", 11}, {"PKCS7_ANY", 9}};

bool same_name(const char* text, int32_t length, const char* name, int32_t name_length) {
  return _mbsnbcmp(reinterpret_cast<const unsigned char*>(text), reinterpret_cast<const unsigned char*>(name),
                   static_cast<size_t>(length)) == 0 &&
         length == name_length;
}

constexpr HashName kHashNames[] = {
    {"SHA1", "1.3.14.3.2.26", 75},
    {"GOST3411", "1.2.643.2.2.9", 75},
    {"GOST-R-34.11-94", "1.2.643.2.2.9", 75},
    {"GOST2012-256", "1.2.643.7.1.1.2.2", 80},
    {"GOST-R-34.11-2012-256", "1.2.643.7.1.1.2.2", 80},
    {"GOST2012-512", "1.2.643.7.1.1.2.3", 81},
    // "32", not "34": the long name of the 512-bit hash as it was accepted.
    {"GOST-R-32.11-2012-512", "1.2.643.7.1.1.2.3", 81},
    {"MD2", "1.2.840.113549.2.2", 75},
    {"MD5", "1.2.840.113549.2.5", 75},
};

constexpr const char* kEncryptionNames[] = {"GOST28147", "GOST-28147-89"};
constexpr const char* kGost28147Oid = "1.2.643.2.2.21";
}  // namespace

int _mbsnbcmp(const unsigned char* a, const unsigned char* b, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    if (a[i] == 0) return 0;
  }
  return 0;
}

int check_ssf_format(const char* strFormat, int32_t strFormatL, unsigned char* isCades) {
  constexpr const char* trace_function = "check_ssf_format";
  *isCades = 0;
  if (strFormatL < 1 || strFormatL > 256) {
    BV_TRACE(TRACE_NORMAL, "#warn# Invalid format name lnegth (%d)\n", strFormatL);
    return 2;
  }
  if (strFormat == nullptr) {
    // A counted name without bytes: refused like any unknown name, not read.
    BV_TRACE(TRACE_NORMAL, "#warn# Unknown format name ('%s').\n", "");
    return 2;
  }
  bool known = false;
  for (const FormatName& format : kFormats)
    if (same_name(strFormat, strFormatL, format.name, format.length)) known = true;
  if (!known) {
    const std::string name(strFormat, static_cast<size_t>(strFormatL));
    BV_TRACE(TRACE_NORMAL, "#warn# Unknown format name ('%s').\n", name.c_str());
    return 2;
  }
  if (same_name(strFormat, strFormatL, "CADES", 5) || same_name(strFormat, strFormatL, "PKCS7_CADES", 11))
    *isCades = 1;
  return 0;
}

unsigned char raw_gost_format(const char* strFormat, int32_t strFormatL) {
  if (strFormat == nullptr) return 0;
  const auto* text = reinterpret_cast<const unsigned char*>(strFormat);
  if (strFormatL == 8 && _mbsnbcmp(text, reinterpret_cast<const unsigned char*>("RAW_GOST"), 8) == 0) return 1;
  if (strFormatL == 17 && _mbsnbcmp(text, reinterpret_cast<const unsigned char*>("RAW_GOST_INVERTED"), 17) == 0)
    return 2;
  return 0;
}

const HashName* find_hash_name(const char* strHashAlg, int32_t strHashAlgL) {
  if (strHashAlgL < 1 || strHashAlg == nullptr) return nullptr;
  for (const HashName& row : kHashNames)
    if (_mbsnbcmp(reinterpret_cast<const unsigned char*>(strHashAlg),
                  reinterpret_cast<const unsigned char*>(row.name), static_cast<size_t>(strHashAlgL)) == 0)
      return &row;
  return nullptr;
}

const char* find_encryption_oid(const char* strEncrAlg, int32_t strEncrAlgL) {
  if (strEncrAlgL < 1 || strEncrAlg == nullptr) return nullptr;
  for (const char* name : kEncryptionNames)
    if (_mbsnbcmp(reinterpret_cast<const unsigned char*>(strEncrAlg), reinterpret_cast<const unsigned char*>(name),
                  static_cast<size_t>(strEncrAlgL)) == 0)
      return kGost28147Oid;
  return nullptr;
}
