// bvstore round trips: what it imports the platform reads back, keys open
// under the new PIN only, and the demo PKI passes openssl's own checks.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "advapi32/keys.h"
#include "crypt32/cert.h"
#include "crypt32/keys.h"
#include "host.h"
#include "pki.h"

namespace {

using bv::test::DemoPki;

class BvstoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("BV_PLATFORM_LOCAL_APPDATA", (home_ / "user").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (home_ / "machine").c_str(), 1);
  }
  // Runs bvstore with this test's folders; output and error together.
  std::string bvstore(const std::string& arguments, int* status) {
    return bv::test::run_command("BV_PLATFORM_LOCAL_APPDATA=" + (home_ / "user") +
                                     " BV_PLATFORM_COMMON_APPDATA=" + (home_ / "machine") + " " + BV_TOOLS_DIR +
                                     "/bvstore " + arguments + " 2>&1",
                                 status);
  }
  std::string store(const std::string& location, const std::string& name) {
    return home_ / (location + "/Brelvantec/Certificates/" + name);
  }
  bv::test::TempDir home_;
};

// Whether the key of the only certificate in the user's store `name` opens
// with `pin`.
bool opens_with(const std::string& name, const std::string& pin) {
  const std::u16string wide = bv::platform::utf16_of(name);
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x14004, wide.c_str());
  PCCERT_CONTEXT context = CertEnumCertificatesInStore(store, nullptr);
  CertCloseStore(store, 0);
  if (context == nullptr) return false;
  bv::test::give_pin(context, pin.c_str());
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  const bool opened = CryptAcquireCertificatePrivateKey(context, 0x45, nullptr, &provider, &key_spec, nullptr) &&
                      bv::test::key_opened(provider);
  CertFreeCertificateContext(context);
  return opened;
}

TEST_F(BvstoreTest, ImportsCertificatesWithAndWithoutKeys) {
  const DemoPki& pki = DemoPki::get();
  int status = 0;
  // A PEM certificate with its key, encrypted under another password: the
  // key is stored under the new PIN.
  const std::string source_key = home_ / "source.key";
  bv::test::run_command("openssl pkcs8 -engine gost -topk8 -v2 aes-256-cbc -passin pass:" + pki.pin("signer-2012-256") +
                            " -passout pass:transport -in " + pki.key_file("signer-2012-256") + " -out " + source_key +
                            " 2>&1",
                        &status);
  ASSERT_EQ(status, 0);
  std::string out = bvstore("import Signing " + pki.pem_file("signer-2012-256") + " --key " + source_key +
                                " --password transport --pin 'new pin'",
                            &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_EQ(out, pki.hash("signer-2012-256") + "  with key\n");
  EXPECT_TRUE(opens_with("Signing", "new pin"));
  EXPECT_FALSE(opens_with("Signing", "transport"));
  EXPECT_FALSE(opens_with("Signing", pki.pin("signer-2012-256")));

  // PKCS #12 with an empty new PIN gives a plain key file.
  const std::string p12 = home_ / "bundle.p12";
  bv::test::run_command("openssl pkcs12 -export -engine gost -passin pass:" + pki.pin("signer-2012-512") +
                            " -inkey " + pki.key_file("signer-2012-512") + " -in " + pki.pem_file("signer-2012-512") +
                            " -passout pass:bundle -out " + p12 + " 2>&1",
                        &status);
  ASSERT_EQ(status, 0);
  out = bvstore("import Bundle " + p12 + " --password bundle", &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_TRUE(opens_with("Bundle", "anything"));
  EXPECT_EQ(bv::test::read_file(store("user", "Bundle/" + pki.hash("signer-2012-512") + ".key")).find("ENCRYPTED"),
            std::string::npos);

  // A DER certificate alone, into the machine's store.
  out = bvstore("import -m Partners " + pki.certificate_file("recipient-2001", "Addressbook"), &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_EQ(bv::test::read_file(store("machine", "Partners/" + pki.hash("recipient-2001") + ".cer")),
            bv::test::read_file(pki.certificate_file("recipient-2001")));
  EXPECT_FALSE(std::filesystem::exists(store("machine", "Partners/" + pki.hash("recipient-2001") + ".key")));

  out = bvstore("list", &status);
  EXPECT_EQ(out, "Bundle\nSigning\n");
  out = bvstore("list -m Partners", &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out.rfind(pki.hash("recipient-2001") + "  CN=Demo Recipient 2001, O=Demo Organisation", 0), 0u) << out;
  EXPECT_EQ(out.find("[key]"), std::string::npos);
}

TEST_F(BvstoreTest, RefusesBadInputAndWritesNothing) {
  const DemoPki& pki = DemoPki::get();
  bv::test::write_file(home_ / "garbage.cer", "no certificate here");
  const std::string p12 = home_ / "bundle.p12";
  int status = 0;
  bv::test::run_command("openssl pkcs12 -export -engine gost -inkey " + pki.key_file("signer-nopin") + " -in " +
                            pki.pem_file("signer-nopin") + " -passout pass:right -out " + p12 + " 2>&1",
                        &status);
  ASSERT_EQ(status, 0);
  struct Case {
    std::string arguments;
    const char* says;
  };
  const std::vector<Case> cases = {
      {"import Bad " + (home_ / "garbage.cer"), "no certificate and no PKCS #12"},
      {"import Bad " + p12 + " --password wrong", "wrong --password"},
      {"import Bad " + pki.pem_file("signer-2001") + " --key " + pki.key_file("signer-2012-256") + " --password " +
           pki.pin("signer-2012-256"),
       "not the certificate's"},
      {"import Bad " + pki.pem_file("signer-2001") + " --key " + pki.key_file("signer-2001"), "give --password"},
      {"import ../Bad " + pki.pem_file("signer-2001"), "bad store name"},
      {"delete Bad 0011", "40 hexadecimal digits"},
      {"list Nothing", "no store Nothing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    const std::string out = bvstore(c.arguments, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find(c.says), std::string::npos) << out;
  }
  EXPECT_FALSE(std::filesystem::exists(store("user", "Bad")) && !std::filesystem::is_empty(store("user", "Bad")));
}

TEST_F(BvstoreTest, HashAndDelete) {
  const DemoPki& pki = DemoPki::get();
  int status = 0;
  std::string fingerprint = bv::test::run_command(
      "openssl x509 -noout -fingerprint -sha1 -in " + pki.pem_file("signer-2001") + " | cut -d= -f2 | tr -d ':'",
      &status);
  EXPECT_EQ(bvstore("hash " + pki.certificate_file("signer-2001"), &status), fingerprint);
  EXPECT_EQ(bvstore("hash " + pki.pem_file("signer-2001"), &status), fingerprint);

  ASSERT_EQ(bvstore("create Work", &status), store("user", "Work") + "\n");
  bvstore("import Work " + pki.pem_file("signer-nopin") + " --key " + pki.key_file("signer-nopin"), &status);
  ASSERT_EQ(status, 0);
  std::string lower = pki.hash("signer-nopin");
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(bvstore("delete Work " + lower, &status), "deleted " + store("user", "Work/" + pki.hash("signer-nopin")) + ".cer\n");
  EXPECT_TRUE(std::filesystem::is_empty(store("user", "Work")));
  bvstore("delete Work " + lower, &status);
  EXPECT_EQ(status, 1);
}

TEST(BvstoreDemo, OpensslAcceptsTheChainsAndTheCrl) {
  const DemoPki& pki = DemoPki::get();
  bv::test::TempDir dir;
  int status = 0;
  const std::string crl = dir / "ca.crl.pem";
  const std::string root_crl = dir / "root.crl.pem";
  bv::test::run_command("openssl crl -inform DER -in " + pki.store_folder("common", "CA") + "/demo-ca.crl -out " + crl,
                        &status);
  ASSERT_EQ(status, 0);
  bv::test::run_command(
      "openssl crl -inform DER -in " + pki.store_folder("common", "Root") + "/demo-root.crl -out " + root_crl, &status);
  ASSERT_EQ(status, 0);
  struct Case {
    const char* name;
    const char* verdict;
  };
  for (const Case& c : {Case{"signer-2001", "OK"}, Case{"signer-2012-256", "OK"}, Case{"signer-2012-512", "OK"},
                        Case{"recipient-2012-512", "OK"}, Case{"signer-revoked", "certificate revoked"},
                        Case{"signer-expired", "certificate has expired"}}) {
    SCOPED_TRACE(c.name);
    const std::string out = bv::test::run_command(
        "openssl verify -engine gost -crl_check_all -CAfile " + pki.pem_file("root", "Root") + " -untrusted " +
            pki.pem_file("ca", "CA") + " -CRLfile " + crl + " -CRLfile " + root_crl + " " + pki.pem_file(c.name) + " 2>&1",
        &status);
    EXPECT_NE(out.find(c.verdict), std::string::npos) << out;
  }
}

}  // namespace
