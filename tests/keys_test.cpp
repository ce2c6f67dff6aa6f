// Private keys of certificates: PINs handed over as the library hands them,
// the proof of parameter 109, the key cache, prompts through a helper
// program, and signatures checked by the openssl command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
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

constexpr DWORD kExplicitPin = CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_COMPARE_KEY_FLAG | CRYPT_ACQUIRE_SILENT_FLAG;
constexpr DWORD kMayAsk = CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_COMPARE_KEY_FLAG;

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

// Hands the PIN over as the signer search does: one PP_KEYEXCHANGE_PIN
// parameter, null data for no PIN, in a property that is not persisted.
void give_pin(PCCERT_CONTEXT context, const char* pin) {
  DWORD size = 0;
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> buffer(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size));
  std::string copy = pin != nullptr ? pin : "";
  CRYPT_KEY_PROV_PARAM param{PP_KEYEXCHANGE_PIN, pin != nullptr ? reinterpret_cast<BYTE*>(copy.data()) : nullptr,
                             pin != nullptr ? static_cast<DWORD>(copy.size() + 1) : 0, 0};
  auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buffer.data());
  info->cProvParam = 1;
  info->rgProvParam = &param;
  ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID,
                                                CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG, info));
}

bool key_opened(HCRYPTPROV provider) {
  BYTE value[8];
  DWORD size = sizeof value;
  return CryptGetProvParam(provider, PP_KEY_OPENED, value, &size, 0) != 0;
}

TEST(PrivateKey, Parameter109ProvesThePin) {
  const DemoPki& pki = DemoPki::get();
  struct Case {
    const char* name;
    std::optional<std::string> pin;  // none: no PIN at all
    bool opened;
    DWORD error;
  };
  const std::string wrong = "wrong-pin";
  const std::vector<Case> cases = {
      {"signer-2001", pki.pin("signer-2001"), true, 0},
      {"signer-2012-256", pki.pin("signer-2012-256"), true, 0},
      {"signer-2012-512", pki.pin("signer-2012-512"), true, 0},
      {"recipient-2012-512", pki.pin("recipient-2012-512"), true, 0},
      {"signer-2012-256", wrong, false, SCARD_W_WRONG_CHV},
      {"signer-2012-256", pki.pin("signer-2012-512"), false, SCARD_W_WRONG_CHV},  // another key's PIN
      {"signer-2012-256", "", false, NTE_SILENT_CONTEXT},  // an empty PIN opens nothing
      {"signer-2012-256", std::nullopt, false, NTE_SILENT_CONTEXT},
      {"signer-nopin", std::nullopt, true, 0},
      {"signer-nopin", wrong, true, 0},  // a plain key opens with any PIN
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " with " + (c.pin ? "PIN '" + *c.pin + "'" : "no PIN"));
    PCCERT_CONTEXT context = certificate(c.name);
    ASSERT_NE(context, nullptr);
    give_pin(context, c.pin ? c.pin->c_str() : nullptr);
    HCRYPTPROV provider = 0;
    DWORD key_spec = 0;
    BOOL caller_frees = TRUE;
    ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, kExplicitPin, nullptr, &provider, &key_spec, &caller_frees))
        << std::hex << GetLastError();
    EXPECT_EQ(key_spec, AT_KEYEXCHANGE);
    EXPECT_FALSE(caller_frees);
    EXPECT_EQ(key_opened(provider), c.opened);
    if (!c.opened) {
      EXPECT_EQ(GetLastError(), c.error);
    }
    CertFreeCertificateContext(context);  // the handle goes with it
  }
}

TEST(PrivateKey, CacheFlagTiesTheHandleToTheContext) {
  PCCERT_CONTEXT context = certificate("signer-nopin");
  ASSERT_NE(context, nullptr);
  HCRYPTPROV first = 0, second = 0, own = 0;
  DWORD key_spec = 0;
  BOOL frees = TRUE;
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, CRYPT_ACQUIRE_CACHE_FLAG, nullptr, &first, &key_spec, &frees));
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, CRYPT_ACQUIRE_CACHE_FLAG, nullptr, &second, &key_spec, &frees));
  EXPECT_EQ(first, second);
  EXPECT_FALSE(frees);
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, 0, nullptr, &own, &key_spec, &frees));
  EXPECT_NE(own, first);
  EXPECT_TRUE(frees);
  EXPECT_TRUE(key_opened(own));
  EXPECT_TRUE(CryptReleaseContext(own, 0));
  CertFreeCertificateContext(context);
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

TEST(PrivateKey, AsksTheHelperProgramWhenAllowed) {
  const DemoPki& pki = DemoPki::get();
  bv::test::TempDir dir;
  const std::string good = dir / "good.sh";
  const std::string refuses = dir / "refuses.sh";
  bv::test::write_file(good, "#!/bin/sh\necho '" + pki.pin("signer-2012-512") + "'\n");
  bv::test::write_file(refuses, "#!/bin/sh\nexit 1\n");
  std::filesystem::permissions(good, std::filesystem::perms::owner_all);
  std::filesystem::permissions(refuses, std::filesystem::perms::owner_all);
  struct Case {
    std::string helper;
    DWORD flags;
    bool acquired, opened;
  };
  for (const Case& c : {Case{good, kMayAsk, true, true}, Case{refuses, kMayAsk, false, false},
                        Case{good, kExplicitPin, true, false}}) {
    SCOPED_TRACE(c.helper + " flags " + std::to_string(c.flags));
    auto env = pki.environment();
    env["BV_PLATFORM_ASKPASS"] = c.helper;
    const auto result = bv::test::run_isolated(env, [&] {
      setsid();  // no controlling terminal: only the helper can be asked
      PCCERT_CONTEXT context = certificate("signer-2012-512");
      ASSERT_NE(context, nullptr);
      give_pin(context, nullptr);
      HCRYPTPROV provider = 0;
      DWORD key_spec = 0;
      const BOOL acquired = CryptAcquireCertificatePrivateKey(context, c.flags, nullptr, &provider, &key_spec, nullptr);
      EXPECT_EQ(acquired != 0, c.acquired);
      if (!acquired) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(SCARD_W_CANCELLED_BY_USER));
      } else {
        EXPECT_EQ(key_opened(provider), c.opened);
      }
      CertFreeCertificateContext(context);
    });
    EXPECT_EQ(result.exit_code, 0) << result.stderr_text;
  }
}

TEST(PrivateKey, SignatureIsTheReverseOfOpenSslOrder) {
  const DemoPki& pki = DemoPki::get();
  struct Case {
    const char* name;
    ALG_ID hash;
    const char* openssl_digest;
    DWORD size;
  };
  bv::test::TempDir dir;
  const std::string data = "The quick brown fox jumps over the lazy dog";
  bv::test::write_file(dir / "data.bin", data);
  for (const Case& c : {Case{"signer-2001", CALG_GR3411, "md_gost94", 64},
                        Case{"signer-2012-256", CALG_GR3411_2012_256, "md_gost12_256", 64},
                        Case{"signer-2012-512", CALG_GR3411_2012_512, "md_gost12_512", 128}}) {
    SCOPED_TRACE(c.name);
    PCCERT_CONTEXT context = certificate(c.name);
    ASSERT_NE(context, nullptr);
    give_pin(context, pki.pin(c.name).c_str());
    HCRYPTPROV provider = 0;
    DWORD key_spec = 0;
    ASSERT_TRUE(CryptAcquireCertificatePrivateKey(context, kExplicitPin, nullptr, &provider, &key_spec, nullptr));
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider, c.hash, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0));
    DWORD size = 0;
    ASSERT_TRUE(CryptSignHashA(hash, key_spec, nullptr, 0, nullptr, &size));
    ASSERT_EQ(size, c.size);
    std::vector<BYTE> signature(size);
    ASSERT_TRUE(CryptSignHashA(hash, key_spec, nullptr, 0, signature.data(), &size)) << std::hex << GetLastError();
    CryptDestroyHash(hash);

    const std::string key = dir / (std::string(c.name) + ".pub");
    int status = 0;
    bv::test::run_command("openssl x509 -engine gost -pubkey -noout -in " + pki.pem_file(c.name) + " > " + key + " 2>/dev/null",
                          &status);
    ASSERT_EQ(status, 0);
    auto verify = [&](const std::vector<BYTE>& bytes) {
      bv::test::write_file(dir / "sig.bin", std::string(bytes.begin(), bytes.end()));
      return bv::test::run_command("openssl dgst -engine gost -" + std::string(c.openssl_digest) + " -verify " + key +
                                   " -signature " + (dir / "sig.bin") + " " + (dir / "data.bin") + " 2>/dev/null");
    };
    EXPECT_EQ(verify(signature), "Verification failure\n");  // as given: the platform's order
    std::reverse(signature.begin(), signature.end());
    EXPECT_EQ(verify(signature), "Verified OK\n");
    CertFreeCertificateContext(context);
  }
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
  size = 4;
  EXPECT_FALSE(CryptGetProvParam(provider, PP_KEY_OPENED, signature, &size, 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
  EXPECT_EQ(size, 8u);
  CertFreeCertificateContext(context);
}

}  // namespace
