// bvstore round trips: what it imports the platform reads back, keys open
// under the new PIN only, and the demo PKI passes openssl's own checks.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "advapi32/keys.h"
#include "crypt32/keys.h"
#include "crypt32/store.h"
#include "signing.h"

namespace bv::test {
namespace {

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

std::string lower(std::string hex) {
  for (char& c : hex) c = static_cast<char>(std::tolower(c));
  return hex;
}

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
