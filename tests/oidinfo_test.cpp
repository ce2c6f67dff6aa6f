// The OID table and the search for a signature key's hash.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "crypt32/oidinfo.h"
#include "identity/hash_oid.h"

namespace {

PCCRYPT_OID_INFO by_oid(const char* oid, DWORD group) {
  return CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, const_cast<char*>(oid), group);
}

std::vector<PCCRYPT_OID_INFO> group_records(DWORD group) {
  std::vector<PCCRYPT_OID_INFO> records;
  CryptEnumOIDInfo(group, 0, &records, [](PCCRYPT_OID_INFO info, void* arg) -> BOOL {
    static_cast<std::vector<PCCRYPT_OID_INFO>*>(arg)->push_back(info);
    return TRUE;
  });
  return records;
}

TEST(OidTable, LookupsByOidAlgidNameAndSignaturePair) {
  // The same OID text in a group it is not in finds nothing; group 0 finds it.
  PCCRYPT_OID_INFO gost94 = by_oid("1.2.643.2.2.9", CRYPT_HASH_ALG_OID_GROUP_ID);
  ASSERT_NE(gost94, nullptr);
  EXPECT_EQ(gost94->Algid, CALG_GR3411);
  EXPECT_EQ(gost94->cbSize, sizeof(CRYPT_OID_INFO));
  EXPECT_EQ(by_oid("1.2.643.2.2.9", 0), gost94);
  EXPECT_EQ(by_oid("1.2.643.2.2.9", CRYPT_SIGN_ALG_OID_GROUP_ID), nullptr);
  EXPECT_EQ(by_oid("1.2.643.2.2.9.1", 0), nullptr);
  EXPECT_EQ(by_oid("1.2.643.2.2", 0), nullptr);

  // An ALG_ID is both a hash and part of a signature record: the group decides.
  ALG_ID algid = CALG_GR3411_2012_256;
  PCCRYPT_OID_INFO hash = CryptFindOIDInfo(CRYPT_OID_INFO_ALGID_KEY, &algid, CRYPT_HASH_ALG_OID_GROUP_ID);
  ASSERT_NE(hash, nullptr);
  EXPECT_STREQ(hash->pszOID, "1.2.643.7.1.1.2.2");
  PCCRYPT_OID_INFO signature = CryptFindOIDInfo(CRYPT_OID_INFO_ALGID_KEY, &algid, CRYPT_SIGN_ALG_OID_GROUP_ID);
  ASSERT_NE(signature, nullptr);
  EXPECT_STREQ(signature->pszOID, "1.2.643.7.1.1.3.2");

  ALG_ID pair[2] = {CALG_GR3411_2012_512, CALG_GR3410_12_512};
  signature = CryptFindOIDInfo(CRYPT_OID_INFO_SIGN_KEY, pair, CRYPT_SIGN_ALG_OID_GROUP_ID);
  ASSERT_NE(signature, nullptr);
  EXPECT_STREQ(signature->pszOID, "1.2.643.7.1.1.3.3");
  ALG_ID crossed[2] = {CALG_GR3411_2012_512, CALG_GR3410_12_256};
  EXPECT_EQ(CryptFindOIDInfo(CRYPT_OID_INFO_SIGN_KEY, crossed, CRYPT_SIGN_ALG_OID_GROUP_ID), nullptr);
  EXPECT_EQ(CryptFindOIDInfo(CRYPT_OID_INFO_NAME_KEY, const_cast<char16_t*>(u"SHA1"), 0),
            by_oid("1.3.14.3.2.26", 0));
}

// Every GOST public key is a signature key, and every signature record
// names a hash and a public key that the table itself knows.
TEST(OidTable, GroupsHoldTogether) {
  for (PCCRYPT_OID_INFO key : group_records(CRYPT_PUBKEY_ALG_OID_GROUP_ID)) {
    SCOPED_TRACE(key->pszOID);
    if (std::strncmp(key->pszOID, "1.2.643.", 8) == 0) EXPECT_EQ(key->Algid & 0xE000, ALG_CLASS_SIGNATURE);
  }
  for (PCCRYPT_OID_INFO signature : group_records(CRYPT_SIGN_ALG_OID_GROUP_ID)) {
    SCOPED_TRACE(signature->pszOID);
    ALG_ID hash = signature->Algid;
    EXPECT_NE(CryptFindOIDInfo(CRYPT_OID_INFO_ALGID_KEY, &hash, CRYPT_HASH_ALG_OID_GROUP_ID), nullptr);
    ASSERT_GE(signature->ExtraInfo.cbData, sizeof(DWORD));
    DWORD key = 0;
    std::memcpy(&key, signature->ExtraInfo.pbData, sizeof key);
    EXPECT_EQ(key & 0xE000, ALG_CLASS_SIGNATURE);
  }
  // The enumeration stops when the callback says so.
  int calls = 0;
  EXPECT_FALSE(CryptEnumOIDInfo(0, 0, &calls, [](PCCRYPT_OID_INFO, void* arg) -> BOOL {
    return ++*static_cast<int*>(arg) < 3;
  }));
  EXPECT_EQ(calls, 3);
}

TEST(HashOid, SignatureKeysGiveTheirHash) {
  struct Case {
    const char* key_oid;
    const char* hash_oid;  // null: none
    ALG_ID algid;
  };
  const Case cases[] = {
      {"1.2.643.2.2.19", "1.2.643.2.2.9", CALG_GR3411},
      {"1.2.643.7.1.1.1.1", "1.2.643.7.1.1.2.2", CALG_GR3411_2012_256},
      {"1.2.643.7.1.1.1.2", "1.2.643.7.1.1.2.3", CALG_GR3411_2012_512},
      {"1.2.840.113549.1.1.1", nullptr, 0},  // an RSA key is registered for key exchange
      {"1.2.643.2.2.98", nullptr, 0},        // GOST R 34.10-2001 key agreement, not in the table
      {"1.2.3", nullptr, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key_oid);
    EXPECT_EQ(hash_algid_for_key_oid(c.key_oid), c.algid);
    PCCRYPT_OID_INFO hash = find_hash_oid_info(c.key_oid);
    if (c.hash_oid == nullptr) {
      EXPECT_EQ(hash, nullptr);
    } else {
      ASSERT_NE(hash, nullptr);
      EXPECT_STREQ(hash->pszOID, c.hash_oid);
      EXPECT_EQ(hash->dwGroupId, CRYPT_HASH_ALG_OID_GROUP_ID);
    }
  }
}

}  // namespace
