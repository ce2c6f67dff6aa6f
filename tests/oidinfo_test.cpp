// The OID table holds together: lookups by OID, ALG_ID and signature pair
// are exercised by every signature and digest the other tests check.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "crypt32/oidinfo.h"

namespace {

std::vector<PCCRYPT_OID_INFO> group_records(DWORD group) {
  std::vector<PCCRYPT_OID_INFO> records;
  CryptEnumOIDInfo(group, 0, &records, [](PCCRYPT_OID_INFO info, void* arg) -> BOOL {
    static_cast<std::vector<PCCRYPT_OID_INFO>*>(arg)->push_back(info);
    return TRUE;
  });
  return records;
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

}  // namespace
