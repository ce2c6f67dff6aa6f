// The provider's hash handles as a CryptoAPI caller uses them: sizes, the
// finished state and references, checked against OpenSSL's own digests.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <string>
#include <vector>

#include "advapi32/provider.h"
#include "kernel32/kernel32.h"

namespace {

using bv::platform::HashObject;
using bv::platform::ProviderContext;

std::vector<BYTE> reference_digest(int nid, const std::string& data) {
  const EVP_MD* md = bv::ossl::digest_by_nid(nid);
  std::vector<BYTE> out(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), out.data(), &size, md, nullptr), 1);
  out.resize(size);
  return out;
}

std::vector<BYTE> hash_value(HCRYPTHASH hash) {
  DWORD size = 0;
  EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, nullptr, &size, 0));
  std::vector<BYTE> value(size);
  EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &size, 0));
  value.resize(size);
  return value;
}

TEST(Hash, SizeQueriesShortBuffersAndTheFinishedState) {
  ProviderContext provider;
  ASSERT_TRUE(CryptAcquireContextA(provider.receive(), nullptr, nullptr, 75, CRYPT_VERIFYCONTEXT));
  HashObject hash;
  ASSERT_TRUE(CryptCreateHash(provider.get(), CALG_SHA1, 0, 0, hash.receive()));
  ASSERT_TRUE(CryptHashData(hash.get(), reinterpret_cast<const BYTE*>("ab"), 2, 0));

  // Asking for the size does not close the hash.
  DWORD size = 0;
  ASSERT_TRUE(CryptGetHashParam(hash.get(), HP_HASHVAL, nullptr, &size, 0));
  EXPECT_EQ(size, 20u);
  ASSERT_TRUE(CryptHashData(hash.get(), reinterpret_cast<const BYTE*>("c"), 1, 0));

  BYTE value[20];
  size = 19;
  EXPECT_FALSE(CryptGetHashParam(hash.get(), HP_HASHVAL, value, &size, 0));
  EXPECT_EQ(GetLastError(), ERROR_MORE_DATA);
  EXPECT_EQ(size, 20u);

  const std::vector<BYTE> first = hash_value(hash.get());
  EXPECT_EQ(first, reference_digest(NID_sha1, "abc"));
  EXPECT_FALSE(CryptHashData(hash.get(), reinterpret_cast<const BYTE*>("d"), 1, 0));
  EXPECT_EQ(GetLastError(), NTE_BAD_HASH_STATE);
  EXPECT_EQ(hash_value(hash.get()), first);

  size = sizeof value;
  EXPECT_FALSE(CryptGetHashParam(hash.get(), 0x77, value, &size, 0));
  EXPECT_EQ(GetLastError(), NTE_BAD_TYPE);
  EXPECT_FALSE(CryptGetHashParam(hash.get(), HP_HASHVAL, value, &size, 1));
  EXPECT_EQ(GetLastError(), NTE_BAD_FLAGS);
}

TEST(Handles, WrongHandlesAreRefusedAndReferencesKeepTheProvider) {
  HCRYPTPROV provider = 0;
  ASSERT_TRUE(CryptAcquireContextA(&provider, nullptr, nullptr, 81, CRYPT_VERIFYCONTEXT));
  HCRYPTHASH hash = 0;
  ASSERT_TRUE(CryptCreateHash(provider, CALG_GR3411_2012_512, 0, 0, &hash));

  // A provider is no hash and a hash no provider.
  EXPECT_FALSE(CryptHashData(static_cast<HCRYPTHASH>(provider), reinterpret_cast<const BYTE*>("x"), 1, 0));
  EXPECT_EQ(GetLastError(), NTE_BAD_HASH);
  EXPECT_FALSE(CryptDestroyHash(0));
  EXPECT_EQ(GetLastError(), NTE_BAD_HASH);
  HCRYPTHASH other = 0;
  EXPECT_FALSE(CryptCreateHash(static_cast<HCRYPTPROV>(hash), CALG_SHA1, 0, 0, &other));
  EXPECT_EQ(GetLastError(), NTE_BAD_UID);

  // The hash holds the provider: releasing the caller's reference first is
  // fine, and so is an extra reference released twice.
  ASSERT_TRUE(CryptContextAddRef(provider, nullptr, 0));
  EXPECT_TRUE(CryptReleaseContext(provider, 0));
  EXPECT_TRUE(CryptReleaseContext(provider, 0));
  ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("abc"), 3, 0));
  EXPECT_EQ(hash_value(hash), reference_digest(NID_id_GostR3411_2012_512, "abc"));
  EXPECT_TRUE(CryptDestroyHash(hash));
}

}  // namespace
