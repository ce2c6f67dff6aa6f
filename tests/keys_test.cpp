// Private keys of certificates where the signer search does not reach: the
// key cache, a key file that belongs to another certificate, and signing
// with a key that did not open.  PINs, prompts and signatures are checked
// through SsfSign (lookup_test, sign_test).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/cert.h"
#include "crypt32/store.h"
#include "host.h"
#include "pki.h"

namespace {

using bv::test::DemoPki;
using bv::test::give_pin;
using bv::test::key_opened;

constexpr DWORD kExplicitPin = CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_COMPARE_KEY_FLAG | CRYPT_ACQUIRE_SILENT_FLAG;

// The certificate with that hash in the demo's My store; the store is closed.
PCCERT_CONTEXT certificate(const std::string& name) {
  DemoPki::get().apply_environment();
  const std::string hex = DemoPki::get().hash(name);
  BYTE bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<BYTE>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  CRYPT_HASH_BLOB blob{20, bytes};
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x14004, u"My");
  PCCERT_CONTEXT found = CertFindCertificateInStore(store, 65537, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
  CertCloseStore(store, 0);
  return found;
}

TEST(PrivateKey, KeyOfAnotherCertificateIsRefused) {
  const DemoPki& pki = DemoPki::get();
  bv::test::TempDir home;
  const std::string folder = home / "Brelvantec/Certificates/My";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(pki.certificate_file("signer-2012-256"), folder + "/x.cer");
  std::filesystem::copy_file(pki.key_file("signer-nopin"), folder + "/x.key");  // plain, but not its key
  std::filesystem::copy_file(pki.certificate_file("signer-2012-512"), folder + "/y.cer");  // no key file
  setenv("BV_PLATFORM_LOCAL_APPDATA", home.path().c_str(), 1);
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x14004, u"My");
  PCCERT_CONTEXT with_key = CertEnumCertificatesInStore(store, nullptr);
  PCCERT_CONTEXT without_key = CertDuplicateCertificateContext(with_key);
  without_key = CertEnumCertificatesInStore(store, without_key);
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
  DemoPki::get().apply_environment();
}

TEST(PrivateKey, SigningNeedsAnOpenKeyAndAHashOfItsSize) {
  const DemoPki& pki = DemoPki::get();
  PCCERT_CONTEXT context = certificate("signer-2012-256");
  ASSERT_NE(context, nullptr);
  give_pin(context, "wrong-pin");
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
  HCRYPTHASH hash = 0;
  ASSERT_TRUE(CryptCreateHash(provider, CALG_GR3411_2012_256, 0, 0, &hash));
  BYTE signature[128];
  DWORD size = sizeof signature;
  EXPECT_FALSE(CryptSignHashA(hash, key_spec, nullptr, 0, signature, &size));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(SCARD_W_WRONG_CHV));
  CryptDestroyHash(hash);
  CertFreeCertificateContext(context);

  context = certificate("signer-2012-256");
  give_pin(context, pki.pin("signer-2012-256").c_str());
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
  ASSERT_TRUE(CryptCreateHash(provider, CALG_GR3411_2012_512, 0, 0, &hash));
  size = sizeof signature;
  EXPECT_FALSE(CryptSignHashA(hash, key_spec, nullptr, 0, signature, &size));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
  CryptDestroyHash(hash);
  CertFreeCertificateContext(context);
}

}  // namespace
