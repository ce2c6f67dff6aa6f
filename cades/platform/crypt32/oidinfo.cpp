#include "crypt32/oidinfo.h"

#include <cstring>

namespace {

// A signature record's ExtraInfo: the public key ALG_ID, then flags.
const DWORD kGost2001SignExtra[] = {CALG_GR3410EL, 0};
const DWORD kGost2012_256SignExtra[] = {CALG_GR3410_12_256, 0};
const DWORD kGost2012_512SignExtra[] = {CALG_GR3410_12_512, 0};
const DWORD kRsaSignExtra[] = {CALG_RSA_SIGN, 0};

CRYPT_DATA_BLOB extra(const DWORD (&values)[2]) {
  return {sizeof values, reinterpret_cast<BYTE*>(const_cast<DWORD*>(values))};
}

CRYPT_OID_INFO record(LPCSTR oid, LPCWSTR name, DWORD group, ALG_ID algid, CRYPT_DATA_BLOB extra_info = {}) {
  CRYPT_OID_INFO info{};
  info.cbSize = sizeof(CRYPT_OID_INFO);
  info.pszOID = oid;
  info.pwszName = name;
  info.dwGroupId = group;
  info.Algid = algid;
  info.ExtraInfo = extra_info;
  return info;
}

// Public keys carry the class of what the key does: the GOST keys of
// certificates are signature keys (ALG_CLASS_SIGNATURE), an RSA key is
// registered as a key exchange key, as the platform has always done.
const CRYPT_OID_INFO kTable[] = {
    record("1.2.643.2.2.9", u"GOST R 34.11-94", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_GR3411),
    record("1.2.643.7.1.1.2.2", u"GOST R 34.11-2012 256", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_GR3411_2012_256),
    record("1.2.643.7.1.1.2.3", u"GOST R 34.11-2012 512", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_GR3411_2012_512),
    record("1.3.14.3.2.26", u"sha1", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_SHA1),
    record("1.2.840.113549.2.5", u"md5", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_MD5),
    record("1.2.840.113549.2.2", u"md2", CRYPT_HASH_ALG_OID_GROUP_ID, CALG_MD2),

    record("1.2.643.2.2.21", u"GOST 28147-89", CRYPT_ENCRYPT_ALG_OID_GROUP_ID, CALG_G28147),

    record("1.2.643.2.2.19", u"GOST R 34.10-2001", CRYPT_PUBKEY_ALG_OID_GROUP_ID, CALG_GR3410EL),
    record("1.2.643.7.1.1.1.1", u"GOST R 34.10-2012 256", CRYPT_PUBKEY_ALG_OID_GROUP_ID, CALG_GR3410_12_256),
    record("1.2.643.7.1.1.1.2", u"GOST R 34.10-2012 512", CRYPT_PUBKEY_ALG_OID_GROUP_ID, CALG_GR3410_12_512),
    record("1.2.840.113549.1.1.1", u"RSA", CRYPT_PUBKEY_ALG_OID_GROUP_ID, CALG_RSA_KEYX),

    record("1.2.643.2.2.3", u"GOST R 34.11-94/34.10-2001", CRYPT_SIGN_ALG_OID_GROUP_ID, CALG_GR3411,
           extra(kGost2001SignExtra)),
    record("1.2.643.7.1.1.3.2", u"GOST R 34.11-2012/34.10-2012 256", CRYPT_SIGN_ALG_OID_GROUP_ID,
           CALG_GR3411_2012_256, extra(kGost2012_256SignExtra)),
    record("1.2.643.7.1.1.3.3", u"GOST R 34.11-2012/34.10-2012 512", CRYPT_SIGN_ALG_OID_GROUP_ID,
           CALG_GR3411_2012_512, extra(kGost2012_512SignExtra)),
    record("1.2.840.113549.1.1.5", u"sha1RSA", CRYPT_SIGN_ALG_OID_GROUP_ID, CALG_SHA1, extra(kRsaSignExtra)),
    record("1.2.840.113549.1.1.4", u"md5RSA", CRYPT_SIGN_ALG_OID_GROUP_ID, CALG_MD5, extra(kRsaSignExtra)),
    record("1.2.840.113549.1.1.2", u"md2RSA", CRYPT_SIGN_ALG_OID_GROUP_ID, CALG_MD2, extra(kRsaSignExtra)),
};

bool in_group(const CRYPT_OID_INFO& info, DWORD group) { return group == 0 || info.dwGroupId == group; }

ALG_ID public_key_algid(const CRYPT_OID_INFO& info) {
  if (info.ExtraInfo.pbData == nullptr || info.ExtraInfo.cbData < sizeof(DWORD)) return 0;
  DWORD value = 0;
  std::memcpy(&value, info.ExtraInfo.pbData, sizeof value);
  return value;
}

char16_t ascii_lower(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; }

bool same_name_ignoring_case(LPCWSTR a, LPCWSTR b) {
  for (; *a != 0 && *b != 0; ++a, ++b)
    if (ascii_lower(*a) != ascii_lower(*b)) return false;
  return *a == *b;
}

bool fits(const CRYPT_OID_INFO& info, DWORD keyType, const void* key) {
  switch (keyType) {
    case CRYPT_OID_INFO_OID_KEY:
      return std::strcmp(info.pszOID, static_cast<const char*>(key)) == 0;
    case CRYPT_OID_INFO_NAME_KEY:
      return same_name_ignoring_case(info.pwszName, static_cast<LPCWSTR>(key));
    case CRYPT_OID_INFO_ALGID_KEY:
      return info.Algid == *static_cast<const ALG_ID*>(key);
    case CRYPT_OID_INFO_SIGN_KEY: {
      const auto* pair = static_cast<const ALG_ID*>(key);
      return info.dwGroupId == CRYPT_SIGN_ALG_OID_GROUP_ID && info.Algid == pair[0] &&
             public_key_algid(info) == pair[1];
    }
    default:
      return false;
  }
}

}  // namespace

PCCRYPT_OID_INFO CryptFindOIDInfo(DWORD dwKeyType, void* pvKey, DWORD dwGroupId) {
  if (pvKey == nullptr) return nullptr;
  for (const CRYPT_OID_INFO& info : kTable)
    if (in_group(info, dwGroupId) && fits(info, dwKeyType, pvKey)) return &info;
  return nullptr;
}

BOOL CryptEnumOIDInfo(DWORD dwGroupId, DWORD dwFlags, void* pvArg, PFN_CRYPT_ENUM_OID_INFO pfnEnumOIDInfo) {
  if (pfnEnumOIDInfo == nullptr) return FALSE;
  for (const CRYPT_OID_INFO& info : kTable)
    if (in_group(info, dwGroupId) && !pfnEnumOIDInfo(&info, pvArg)) return FALSE;
  return TRUE;
}
