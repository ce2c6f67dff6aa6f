#include "identity/hash_oid.h"

#include <cstring>

namespace {

constexpr ALG_ID kClassMask = 0xE000;

struct KeyHash {
  const char* key_oid;
  const char* hash_oid;
  ALG_ID hash_algid;
};

// The signature keys whose hash is known without asking the platform.
constexpr KeyHash kKeyHashes[] = {
    {"1.2.643.2.2.19", "1.2.643.2.2.9", CALG_GR3411},
    {"1.2.643.7.1.1.1.1", "1.2.643.7.1.1.2.2", CALG_GR3411_2012_256},
    {"1.2.643.7.1.1.1.2", "1.2.643.7.1.1.2.3", CALG_GR3411_2012_512},
};

const KeyHash* known_key(const char* keyOid) {
  for (const KeyHash& row : kKeyHashes)
    if (std::strcmp(keyOid, row.key_oid) == 0) return &row;
  return nullptr;
}

}  // namespace

bool PubKeyOidMatcher::match(PCCRYPT_OID_INFO candidate) {
  if (std::strcmp(candidate->pszOID, oid.c_str()) != 0) return true;
  if ((candidate->Algid & kClassMask) != classMask) return true;
  algId = candidate->Algid;
  info = candidate;
  return false;
}

bool SignAlgMatcher::match(PCCRYPT_OID_INFO candidate) {
  DWORD key_algid = 0;
  if (candidate->ExtraInfo.pbData != nullptr && candidate->ExtraInfo.cbData >= sizeof(DWORD))
    std::memcpy(&key_algid, candidate->ExtraInfo.pbData, sizeof key_algid);
  if ((key_algid & kClassMask) != ALG_CLASS_SIGNATURE || key_algid != algId) return true;
  info = candidate;
  return false;
}

BOOL oid_enum_callback(PCCRYPT_OID_INFO info, void* matcher) {
  return static_cast<OidInfoMatcher*>(matcher)->match(info) ? 1 : 0;
}

ALG_ID hash_algid_for_key_oid(const char* keyOid) {
  const KeyHash* row = known_key(keyOid);
  return row != nullptr ? row->hash_algid : 0;
}

PCCRYPT_OID_INFO find_hash_oid_info(const char* keyOid) {
  // The GOST keys first, straight from their hash OID.
  if (const KeyHash* row = known_key(keyOid)) {
    PCCRYPT_OID_INFO hash = CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, const_cast<char*>(row->hash_oid),
                                             CRYPT_HASH_ALG_OID_GROUP_ID);
    if (hash != nullptr) return hash;
  }

  // Otherwise the key's signature-class ALG_ID ...
  PubKeyOidMatcher key_matcher(keyOid);
  CryptEnumOIDInfo(CRYPT_PUBKEY_ALG_OID_GROUP_ID, 0, &key_matcher, oid_enum_callback);
  if (key_matcher.algId == 0) return nullptr;

  // ... then a signature algorithm made of a hash and that key ...
  const ALG_ID known_hash = hash_algid_for_key_oid(keyOid);
  ALG_ID pair[2] = {known_hash != 0 ? known_hash : CALG_SHA1, key_matcher.algId};
  PCCRYPT_OID_INFO signature = CryptFindOIDInfo(CRYPT_OID_INFO_SIGN_KEY, pair, CRYPT_SIGN_ALG_OID_GROUP_ID);
  if (signature == nullptr) {
    SignAlgMatcher sign_matcher(key_matcher.algId);
    CryptEnumOIDInfo(CRYPT_SIGN_ALG_OID_GROUP_ID, 0, &sign_matcher, oid_enum_callback);
    signature = sign_matcher.info;
  }
  if (signature == nullptr) return nullptr;

  // ... whose hash ALG_ID names the hash.
  ALG_ID hash_algid = signature->Algid;
  return CryptFindOIDInfo(CRYPT_OID_INFO_ALGID_KEY, &hash_algid, CRYPT_HASH_ALG_OID_GROUP_ID);
}
