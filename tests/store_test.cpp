// System stores as folders, finding certificates, and properties that stay
// in memory.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "crypt32/store.h"
#include "host.h"
#include "pki.h"

namespace {

using bv::test::DemoPki;

HCERTSTORE open_system(const char16_t* name, DWORD flags) {
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

std::vector<std::string> hashes_in(HCERTSTORE store) {
  std::vector<std::string> out;
  PCCERT_CONTEXT context = nullptr;
  while ((context = CertEnumCertificatesInStore(store, context)) != nullptr) out.push_back(hash_of(context));
  return out;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { DemoPki::get().apply_environment(); }
};

TEST_F(StoreTest, MissingStoreIsCreatedOnlyWithoutOpenExisting) {
  bv::test::TempDir home;
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  EXPECT_EQ(open_system(u"Fresh", 0x14004), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  HCERTSTORE store = open_system(u"Fresh", CERT_SYSTEM_STORE_CURRENT_USER);
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(home / "Brelvantec/Certificates/Fresh"));
  EXPECT_TRUE(hashes_in(store).empty());
  CertCloseStore(store, 0);
  EXPECT_EQ(open_system(u"../escape", CERT_SYSTEM_STORE_CURRENT_USER), nullptr);
  EXPECT_EQ(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x30000, u"My"), nullptr);  // unknown location
}

// A renewal written over the old file keeps the folder as it was: the next
// open sees the new certificate all the same.
TEST_F(StoreTest, CertificateRewrittenInPlaceIsSeenAtTheNextOpen) {
  const DemoPki& pki = DemoPki::get();
  bv::test::TempDir home;
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  const std::string folder = home / "Brelvantec/Certificates/Renewed";
  std::filesystem::create_directories(folder);
  for (const char* name : {"signer-2012-256", "signer-2012-512", "signer-2001"}) {
    SCOPED_TRACE(name);
    // Truncate and write the same file: the folder's entry stays untouched.
    bv::test::write_file(folder + "/signer.cer", bv::test::read_file(pki.certificate_file(name)));
    HCERTSTORE store = open_system(u"Renewed", CERT_SYSTEM_STORE_CURRENT_USER);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(hashes_in(store), std::vector<std::string>{pki.hash(name)});
    CertCloseStore(store, 0);
  }
}

TEST_F(StoreTest, FindByHashAndBySubjectCertificate) {
  const DemoPki& pki = DemoPki::get();
  HCERTSTORE store = open_system(u"My", CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_OPEN_EXISTING_FLAG);
  ASSERT_NE(store, nullptr);
  const std::string wanted = pki.hash("signer-2012-512");
  BYTE bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<BYTE>(std::stoi(wanted.substr(2 * i, 2), nullptr, 16));
  CRYPT_HASH_BLOB blob{20, bytes};
  PCCERT_CONTEXT found =
      CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(hash_of(found), wanted);
  // Searching on frees the previous context; one match only.
  EXPECT_EQ(CertFindCertificateInStore(store, 65537, 0, CERT_FIND_SHA1_HASH, &blob, found), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NOT_FOUND));
  CRYPT_HASH_BLOB short_blob{19, bytes};
  EXPECT_EQ(CertFindCertificateInStore(store, 65537, 0, CERT_FIND_SHA1_HASH, &short_blob, nullptr), nullptr);

  // By issuer and serial, as a message names its signer.
  PCCERT_CONTEXT any = CertFindCertificateInStore(store, 65537, 0, CERT_FIND_ANY, nullptr, nullptr);
  ASSERT_NE(any, nullptr);
  CERT_INFO id{};
  id.Issuer = any->pCertInfo->Issuer;
  id.SerialNumber = any->pCertInfo->SerialNumber;
  PCCERT_CONTEXT subject = CertGetSubjectCertificateFromStore(store, 65537, &id);
  EXPECT_EQ(subject, any);
  CertFreeCertificateContext(subject);
  CertFreeCertificateContext(any);
  // Contexts outlive their store's handle.
  PCCERT_CONTEXT kept = CertEnumCertificatesInStore(store, nullptr);
  EXPECT_TRUE(CertCloseStore(store, CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG));
  EXPECT_EQ(hash_of(kept), pki.hash("signer-2001"));
  EXPECT_TRUE(CertFreeCertificateContext(kept));
}

TEST_F(StoreTest, InhibitedPropertyStaysWithThisOpenStore) {
  const DemoPki& pki = DemoPki::get();
  const std::string folder = pki.store_folder("local", "My");
  const auto listing = [&] {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  };
  const auto files_before = listing();
  HCERTSTORE one = open_system(u"My", 0x14004);
  PCCERT_CONTEXT context = CertEnumCertificatesInStore(one, nullptr);
  DWORD size = 0;
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> buffer(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size));
  auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buffer.data());
  EXPECT_EQ(info->dwProvType, PROV_GOST_2001_DH);
  EXPECT_EQ(info->cProvParam, 0u);
  char pin[] = "secret-pin";
  CRYPT_KEY_PROV_PARAM param{PP_KEYEXCHANGE_PIN, reinterpret_cast<BYTE*>(pin), sizeof pin, 0};
  info->cProvParam = 1;
  info->rgProvParam = &param;
  ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID,
                                                CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG, info));
  // Read back through the two-call pattern: the parameter came with it.
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> again(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, again.data(), &size));
  const auto* read = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(again.data());
  ASSERT_EQ(read->cProvParam, 1u);
  EXPECT_STREQ(reinterpret_cast<const char*>(read->rgProvParam[0].pbData), "secret-pin");
  // Another opening of the same store never sees it, and nothing was written.
  HCERTSTORE two = open_system(u"My", 0x14004);
  PCCERT_CONTEXT other = CertEnumCertificatesInStore(two, nullptr);
  ASSERT_TRUE(CertGetCertificateContextProperty(other, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> fresh(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(other, CERT_KEY_PROV_INFO_PROP_ID, fresh.data(), &size));
  EXPECT_EQ(reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(fresh.data())->cProvParam, 0u);
  EXPECT_EQ(listing(), files_before);
  CertFreeCertificateContext(context);
  CertFreeCertificateContext(other);
  CertCloseStore(one, 0);
  CertCloseStore(two, 0);
}

}  // namespace
