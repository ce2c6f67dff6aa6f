// System stores as folders, finding certificates, properties that stay in
// memory, and private keys where the signer search does not reach: a key
// file of another certificate, signing with a key that did not open.  And
// bvstore round trips: what it imports the platform reads back, keys open
// under the new PIN only, and the demo PKI passes openssl's own checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/keys.h"
#include "crypt32/store.h"
#include "kernel32/hex.h"
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
  return bv::platform::hex_text(hash, size, bv::platform::HexLetters::kUpper);
}

// The certificate with that hash in My; the store is closed again.
PCCERT_CONTEXT in_my(const TestCert& cert) {
  std::string bytes = bytes_of_hex(cert.sha1_hex);
  CRYPT_HASH_BLOB blob{20, reinterpret_cast<BYTE*>(bytes.data())};
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
  std::string bytes = bytes_of_hex(w.bob.sha1_hex);
  CRYPT_HASH_BLOB blob{20, reinterpret_cast<BYTE*>(bytes.data())};
  PCCERT_CONTEXT found = CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(hash_of(found), w.bob.sha1_hex);
  // Searching on frees the previous context; one match only.
  EXPECT_EQ(CertFindCertificateInStore(store, kAnyEncoding, 0, CERT_FIND_SHA1_HASH, &blob, found), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NOT_FOUND));
  CRYPT_HASH_BLOB short_blob{19, blob.pbData};
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

class BvstoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("BV_PLATFORM_LOCAL_APPDATA", (home_ / "user").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (home_ / "machine").c_str(), 1);
    bv::platform::forget_cached_stores();
  }
  // Runs bvstore with this test's folders; output and error together.
  std::string bvstore(const std::string& arguments, int* status = nullptr) {
    return run_command("BV_PLATFORM_LOCAL_APPDATA=" + (home_ / "user") + " BV_PLATFORM_COMMON_APPDATA=" +
                           (home_ / "machine") + " " + BV_TOOLS_DIR "/bvstore " + arguments + " 2>&1",
                       status);
  }
  std::string store(const std::string& location, const std::string& name) {
    return home_ / (location + "/Brelvantec/Certificates/" + name);
  }
  const SigningWorld& w = SigningWorld::get();
  TempDir home_;
};

// A hash in lower case, as stored files are named.
std::string lower(const std::string& hex) { return hex_of(bytes_of_hex(hex)); }

// Whether the key of the only certificate in the user's store `name` opens
// with `pin`.
bool opens_with(const std::string& name, const std::string& pin) {
  const std::u16string wide = bv::platform::utf16_of(name);
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x14004, wide.c_str());
  PCCERT_CONTEXT context = CertEnumCertificatesInStore(store, nullptr);
  CertCloseStore(store, 0);
  if (context == nullptr) return false;
  give_pin(context, pin.c_str());
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  const bool opened = CryptAcquireCertificatePrivateKey(context, 0x45, nullptr, &provider, &key_spec, nullptr) &&
                      key_opened(provider);
  CertFreeCertificateContext(context);
  return opened;
}

TEST_F(BvstoreTest, ImportsCertificatesWithAndWithoutKeys) {
  // A PEM certificate with its key, encrypted under another password: the
  // key is stored under the new PIN.
  const std::string source_key = home_ / "source.key";
  run_checked("openssl pkcs8 -engine gost -topk8 -v2 aes-256-cbc -passin pass:1111 -passout pass:transport -in " +
              w.my("01-alice.key") + " -out " + source_key + " 2>&1");
  std::string out = bvstore("import Signing " + w.alice.cert_pem + " --key " + source_key +
                            " --password transport --pin 'new pin'");
  EXPECT_EQ(out, w.alice.sha1_hex + "  with key\n");
  EXPECT_TRUE(opens_with("Signing", "new pin"));
  EXPECT_FALSE(opens_with("Signing", "transport"));
  EXPECT_FALSE(opens_with("Signing", "1111"));

  // PKCS #12 with an empty new PIN gives a plain key file.
  const std::string p12 = home_ / "bundle.p12";
  run_checked("openssl pkcs12 -export -engine gost -passin pass:2222 -inkey " + w.my("02-bob.key") + " -in " +
              w.bob.cert_pem + " -passout pass:bundle -out " + p12 + " 2>&1");
  int status = 0;
  out = bvstore("import Bundle " + p12 + " --password bundle", &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_TRUE(opens_with("Bundle", "anything"));
  EXPECT_FALSE(contains(read_file(store("user", "Bundle/" + lower(w.bob.sha1_hex) + ".key")), "ENCRYPTED"));

  // A DER certificate alone, into the machine's store.
  out = bvstore("import -m Partners " + w.my("03-carol.cer"), &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_EQ(read_file(store("machine", "Partners/" + lower(w.carol.sha1_hex) + ".cer")), read_file(w.my("03-carol.cer")));
  EXPECT_FALSE(std::filesystem::exists(store("machine", "Partners/" + lower(w.carol.sha1_hex) + ".key")));

  EXPECT_EQ(bvstore("list"), "Bundle\nSigning\n");
  out = bvstore("list -m Partners");
  EXPECT_EQ(out.rfind(w.carol.sha1_hex + "  O=Other Bank, CN=Carol, C=RU", 0), 0u) << out;
  EXPECT_FALSE(contains(out, "[key]"));
}

TEST_F(BvstoreTest, RefusesBadInputAndWritesNothing) {
  write_file(home_ / "garbage.cer", "no certificate here");
  const std::string p12 = home_ / "bundle.p12";
  run_checked("openssl pkcs12 -export -engine gost -inkey " + w.my("03-carol.key") + " -in " + w.carol.cert_pem +
              " -passout pass:right -out " + p12 + " 2>&1");
  const struct {
    std::string arguments;
    const char* says;
  } cases[] = {
      {"import Bad " + (home_ / "garbage.cer"), "no certificate and no PKCS #12"},
      {"import Bad " + p12 + " --password wrong", "wrong --password"},
      {"import Bad " + w.alice.cert_pem + " --key " + w.my("02-bob.key") + " --password 2222", "not the certificate's"},
      {"import Bad " + w.alice.cert_pem + " --key " + w.my("01-alice.key"), "give --password"},
      {"import ../Bad " + w.alice.cert_pem, "bad store name"},
      {"delete Bad 0011", "40 hexadecimal digits"},
      {"list Nothing", "no store Nothing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    int status = 0;
    const std::string out = bvstore(c.arguments, &status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(contains(out, c.says)) << out;
  }
  EXPECT_FALSE(std::filesystem::exists(store("user", "Bad")) && !std::filesystem::is_empty(store("user", "Bad")));
}

TEST_F(BvstoreTest, HashAndDelete) {
  const std::string fingerprint =
      run_checked("openssl x509 -noout -fingerprint -sha1 -in " + w.carol.cert_pem + " | cut -d= -f2 | tr -d ':'");
  EXPECT_EQ(bvstore("hash " + w.my("03-carol.cer")), fingerprint);
  EXPECT_EQ(bvstore("hash " + w.carol.cert_pem), fingerprint);

  // Named in upper case, as an older bvstore named them: still found with
  // its key, adding it again makes no twin, and it is deleted by its hash.
  ASSERT_EQ(bvstore("create Work"), store("user", "Work") + "\n");
  const std::string stem = store("user", "Work/" + w.carol.sha1_hex);
  std::filesystem::copy_file(w.my("03-carol.cer"), stem + ".cer");
  std::filesystem::copy_file(w.my("03-carol.key"), stem + ".key");
  EXPECT_TRUE(opens_with("Work", ""));
  HCERTSTORE work = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x10000, u"Work");
  const std::string der = read_file(stem + ".cer");
  EXPECT_TRUE(CertAddEncodedCertificateToStore(work, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                               static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                               nullptr));
  CertCloseStore(work, 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store("user", "Work")), {}), 2);
  int status = 0;
  EXPECT_EQ(bvstore("delete Work " + lower(w.carol.sha1_hex)), "deleted " + stem + ".cer\n");
  EXPECT_TRUE(std::filesystem::is_empty(store("user", "Work")));
  bvstore("delete Work " + w.carol.sha1_hex, &status);
  EXPECT_EQ(status, 1);
}

TEST(BvstoreDemo, OpensslAcceptsTheChainsAndTheCrl) {
  TempDir dir;
  run_checked(BV_TOOLS_DIR "/bvstore demo " + dir.path() + " 2>&1");
  const std::string common = dir / "common/Brelvantec/Certificates/", my = dir / "local/Brelvantec/Certificates/My/";
  const auto pem = [&](const std::string& der, const char* kind = "x509") {
    run_checked(std::string("openssl ") + kind + " -inform DER -in " + der + " -out " + der + ".pem");
    return der + ".pem";
  };
  const std::string chain = " -CAfile " + pem(common + "Root/demo-root.cer") + " -untrusted " +
                            pem(common + "CA/demo-ca.cer") + " -CRLfile " + pem(common + "CA/demo-ca.crl", "crl") +
                            " -CRLfile " + pem(common + "Root/demo-root.crl", "crl") + " ";
  for (const auto& [file, verdict] :
       {std::pair{"10-signer-2001", "OK"}, {"20-signer-2012-256", "OK"}, {"30-signer-2012-512", "OK"},
        {"90-recipient-2012-512", "OK"}, {"50-signer-revoked", "certificate revoked"},
        {"60-signer-expired", "certificate has expired"}}) {
    SCOPED_TRACE(file);
    const std::string out =
        run_command("openssl verify -engine gost -crl_check_all" + chain + pem(my + file + ".cer") + " 2>&1");
    EXPECT_TRUE(contains(out, verdict)) << out;
  }
  // The manifest names each certificate with its hash and PIN.
  const std::string hash = run_command(BV_TOOLS_DIR "/bvstore hash " + my + "20-signer-2012-256.cer");
  EXPECT_TRUE(contains(read_file(dir / "demo.txt"), "\t" + hash.substr(0, 40) + "\t22222222\tgost2012_256\n"));
}

}  // namespace
}  // namespace bv::test
