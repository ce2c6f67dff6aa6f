// System stores as folders, finding certificates, properties that stay in
// memory, and private keys where the signer search does not reach: a key
// file of another certificate, signing with a key that did not open.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/store.h"
#include "signing.h"

namespace bv::test {
namespace {

constexpr DWORD kExplicitPin = CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_COMPARE_KEY_FLAG | CRYPT_ACQUIRE_SILENT_FLAG;
constexpr DWORD kAnyEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

HCERTSTORE open_my(DWORD flags = CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_OPEN_EXISTING_FLAG,
                   const char16_t* name = u"My") {
  return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, flags, name);
}

std::string hash_of(PCCERT_CONTEXT context) {
  BYTE hash[20];
  DWORD size = sizeof hash;
  if (!CertGetCertificateContextProperty(context, CERT_HASH_PROP_ID, hash, &size)) return {};
  char hex[41];
  for (int i = 0; i < 20; ++i) std::snprintf(hex + 2 * i, 3, "%02X", hash[i]);
  return hex;
}

std::vector<BYTE> bytes_of(const std::string& hex) {
  std::vector<BYTE> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<BYTE>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

// The certificate with that hash in My; the store is closed again.
PCCERT_CONTEXT in_my(const TestCert& cert) {
  std::vector<BYTE> bytes = bytes_of(cert.sha1_hex);
  CRYPT_HASH_BLOB blob{20, bytes.data()};
  HCERTSTORE store = open_my();
  PCCERT_CONTEXT found = CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
  CertCloseStore(store, 0);
  return found;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { w.apply_environment(); }
  const SigningWorld& w = SigningWorld::get();
};

TEST_F(StoreTest, MissingStoreIsCreatedOnlyWithoutOpenExisting) {
  TempDir home;
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  EXPECT_EQ(open_my(0x14004, u"Fresh"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  HCERTSTORE store = open_my(CERT_SYSTEM_STORE_CURRENT_USER, u"Fresh");
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(home / "Brelvantec/Certificates/Fresh"));
  EXPECT_EQ(CertEnumCertificatesInStore(store, nullptr), nullptr);
  CertCloseStore(store, 0);
  EXPECT_EQ(open_my(CERT_SYSTEM_STORE_CURRENT_USER, u"../escape"), nullptr);
  EXPECT_EQ(open_my(0x30000), nullptr);  // unknown location
}

// A renewal written over the old file keeps the folder as it was: the next
// open sees the new certificate all the same.
TEST_F(StoreTest, CertificateRewrittenInPlaceIsSeenAtTheNextOpen) {
  TempDir home;
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  const std::string folder = home / "Brelvantec/Certificates/Renewed";
  for (const TestCert* cert : {&w.alice, &w.bob, &w.carol}) {
    SCOPED_TRACE(cert->sha1_hex);
    // Truncate and write the same file: the folder's entry stays untouched.
    write_file(folder + "/signer.pem", read_file(cert->cert_pem));
    HCERTSTORE store = open_my(CERT_SYSTEM_STORE_CURRENT_USER, u"Renewed");
    ASSERT_NE(store, nullptr);
    PCCERT_CONTEXT first = CertEnumCertificatesInStore(store, nullptr);
    EXPECT_EQ(first != nullptr ? hash_of(first) : "", cert->sha1_hex);
    if (first != nullptr) CertFreeCertificateContext(first);
    CertCloseStore(store, 0);
  }
}

TEST_F(StoreTest, FindByHashAndBySubjectCertificate) {
  HCERTSTORE store = open_my();
  ASSERT_NE(store, nullptr);
  std::vector<BYTE> bytes = bytes_of(w.bob.sha1_hex);
  CRYPT_HASH_BLOB blob{20, bytes.data()};
  PCCERT_CONTEXT found = CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(hash_of(found), w.bob.sha1_hex);
  // Searching on frees the previous context; one match only.
  EXPECT_EQ(CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &blob, found), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NOT_FOUND));
  CRYPT_HASH_BLOB short_blob{19, bytes.data()};
  EXPECT_EQ(CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &short_blob, nullptr), nullptr);

  // By issuer and serial, as a message names its signer; the first in the
  // store is the first file.
  PCCERT_CONTEXT any = CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_ANY, nullptr, nullptr);
  ASSERT_NE(any, nullptr);
  CERT_INFO id{};
  id.Issuer = any->pCertInfo->Issuer;
  id.SerialNumber = any->pCertInfo->SerialNumber;
  PCCERT_CONTEXT subject = CertGetSubjectCertificateFromStore(store, kAnyEncoding, &id);
  EXPECT_EQ(subject, any);
  CertFreeCertificateContext(subject);
  CertFreeCertificateContext(any);
  // Contexts outlive their store's handle.
  PCCERT_CONTEXT kept = CertEnumCertificatesInStore(store, nullptr);
  EXPECT_TRUE(CertCloseStore(store, CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG));
  EXPECT_EQ(hash_of(kept), w.alice.sha1_hex);
  EXPECT_TRUE(CertFreeCertificateContext(kept));
}

TEST_F(StoreTest, InhibitedPropertyStaysWithThisOpenStore) {
  const auto listing = [&] {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(w.my(""))) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  };
  const auto files_before = listing();
  // The key link's parameters: none stored, then the one given.
  const auto parameters = [](PCCERT_CONTEXT context) -> std::string {
    DWORD size = 0;
    EXPECT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
    std::vector<BYTE> buffer(size);
    EXPECT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size));
    const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
    EXPECT_EQ(info->dwProvType, PROV_GOST_2012_256);
    return info->cProvParam == 0 ? "" : reinterpret_cast<const char*>(info->rgProvParam[0].pbData);
  };
  HCERTSTORE one = open_my(), two = open_my();
  PCCERT_CONTEXT context = CertEnumCertificatesInStore(one, nullptr);
  EXPECT_EQ(parameters(context), "");
  give_pin(context, "secret-pin");
  EXPECT_EQ(parameters(context), "secret-pin");
  // Another opening of the same store never sees it, and nothing was written.
  PCCERT_CONTEXT other = CertEnumCertificatesInStore(two, nullptr);
  EXPECT_EQ(parameters(other), "");
  EXPECT_EQ(listing(), files_before);
  CertFreeCertificateContext(context);
  CertFreeCertificateContext(other);
  CertCloseStore(one, 0);
  CertCloseStore(two, 0);
}

TEST_F(StoreTest, KeyOfAnotherCertificateIsRefused) {
  TempDir home;
  const std::string folder = home / "Brelvantec/Certificates/My";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(w.my("01-alice.cer"), folder + "/x.cer");
  std::filesystem::copy_file(w.my("03-carol.key"), folder + "/x.key");  // plain, but not its key
  std::filesystem::copy_file(w.my("02-bob.cer"), folder + "/y.cer");    // no key file
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  HCERTSTORE store = open_my();
  PCCERT_CONTEXT with_key = CertEnumCertificatesInStore(store, nullptr);
  PCCERT_CONTEXT without_key = CertEnumCertificatesInStore(store, CertDuplicateCertificateContext(with_key));
  CertCloseStore(store, 0);
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  EXPECT_FALSE(CryptAcquireCertificatePrivateKey(with_key, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_PUBLIC_KEY));
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(with_key, CRYPT_ACQUIRE_SILENT_FLAG, nullptr, &provider, &key_spec, nullptr));
  EXPECT_FALSE(key_opened(provider));
  CryptReleaseContext(provider, 0);
  DWORD size = 0;
  EXPECT_FALSE(CertGetCertificateContextProperty(without_key, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  EXPECT_FALSE(CryptAcquireCertificatePrivateKey(without_key, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NO_KEY_PROPERTY));
  CertFreeCertificateContext(with_key);
  CertFreeCertificateContext(without_key);
}

TEST_F(StoreTest, SigningNeedsAnOpenKeyAndAHashOfItsSize) {
  const struct {
    const char* pin;
    ALG_ID hash_algorithm;
    DWORD error;
  } cases[] = {{"wrong-pin", CALG_GR3411_2012_256, SCARD_W_WRONG_CHV}, {"1111", CALG_GR3411_2012_512, NTE_BAD_ALGID}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pin);
    PCCERT_CONTEXT context = in_my(w.alice);
    ASSERT_NE(context, nullptr);
    give_pin(context, c.pin);
    HCRYPTPROV provider = 0;
    DWORD key_spec = 0;
    ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider, c.hash_algorithm, 0, 0, &hash));
    BYTE signature[128];
    DWORD size = sizeof signature;
    EXPECT_FALSE(CryptSignHashA(hash, key_spec, nullptr, 0, signature, &size));
    EXPECT_EQ(GetLastError(), c.error);
    CryptDestroyHash(hash);
    CertFreeCertificateContext(context);
  }
}

}  // namespace
}  // namespace bv::test
