// System stores as folders, finding certificates, properties that stay in
// memory, and private keys where the signer search does not reach: a key
// file of another certificate, signing with a key that did not open.  The
// demo PKI passes openssl's own checks.  Names as text, integer comparison
// and signing time decoding, on names built with OpenSSL.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "crypt32/cert.h"
#include "crypt32/keys.h"
#include "crypt32/oidinfo.h"
#include "crypt32/store.h"
#include "host.h"
#include "kernel32/hex.h"
#include "signing.h"
#include "tsa_server.h"

namespace bv::test {
namespace {

// Hands `pin` to the certificate's key link as the signer search does: one
// PP_KEYEXCHANGE_PIN parameter, in a property that is not persisted.
void give_pin(PCCERT_CONTEXT context, const char* pin) {
  DWORD size = 0;
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> buffer(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size));
  std::string copy = pin;
  CRYPT_KEY_PROV_PARAM param{PP_KEYEXCHANGE_PIN, reinterpret_cast<BYTE*>(copy.data()), static_cast<DWORD>(copy.size() + 1), 0};
  auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buffer.data());
  info->cProvParam = 1;
  info->rgProvParam = &param;
  ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID,
                                                CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG, info));
}

// Whether the provider's key opened (parameter 109).
bool key_opened(HCRYPTPROV provider) {
  BYTE value[8];
  DWORD size = sizeof value;
  return CryptGetProvParam(provider, PP_KEY_OPENED, value, &size, 0) != 0;
}

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

TEST_F(StoreTest, FindByHash) {
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
  // Contexts outlive their store's handle; the first in the store is the first file.
  PCCERT_CONTEXT kept = CertEnumCertificatesInStore(store, nullptr);
  EXPECT_TRUE(CertCloseStore(store, CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG));
  EXPECT_EQ(hash_of(kept), w.alice.sha1_hex);
  EXPECT_TRUE(CertFreeCertificateContext(kept));
}

TEST_F(StoreTest, InhibitedPropertyStaysWithThisOpenStore) {
  const auto files = [&] { return std::distance(std::filesystem::directory_iterator(w.my("")), {}); };
  const auto files_before = files();
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
  EXPECT_EQ(files(), files_before);
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
  // The services chain for their own purposes only, and bvtsa starts on the
  // time stamp authority's files.
  const std::string services = dir / "services/";
  for (const auto& [file, verdict] : {std::pair{"tsa", ": OK"}, {"ocsp", "unsuitable certificate purpose"}}) {
    const std::string out = run_command("openssl verify -engine gost -purpose timestampsign -CAfile " + services +
                                        "root.pem -untrusted " + services + "chain.pem " + services + file + ".pem 2>&1");
    EXPECT_TRUE(contains(out, verdict)) << out;
  }
  TsaServer tsa("--cert " + services + "tsa.pem --key " + services + "tsa.key --pin 12121212 --chain " + services +
                    "chain.pem",
                dir / "tsa.log");
  EXPECT_EQ(tsa.stop(), 0);
  // The manifest names each certificate with its hash and PIN.
  const std::string hash = run_command(BV_TOOLS_DIR "/bvstore hash " + my + "20-signer-2012-256.cer");
  EXPECT_TRUE(contains(read_file(dir / "demo.txt"), "\t" + hash.substr(0, 40) + "\t22222222\tgost2012_256\n"));
}

// An encoded name from (OID, ASN.1 string type, bytes, RDN set) rows; a set
// of 0 starts a new RDN, -1 joins the one before.
struct Attribute {
  const char* oid;
  int type;
  std::string value;
  int set = 0;
};

std::vector<BYTE> encode_name(const std::vector<Attribute>& attributes) {
  bv::ossl::UniquePtr<X509_NAME> name(X509_NAME_new());
  for (const Attribute& a : attributes) {
    bv::ossl::UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(a.oid, 1));
    X509_NAME_add_entry_by_OBJ(name.get(), object.get(), a.type, reinterpret_cast<const unsigned char*>(a.value.data()),
                               static_cast<int>(a.value.size()), -1, a.set);
  }
  unsigned char* der = nullptr;
  const int length = i2d_X509_NAME(name.get(), &der);
  std::vector<BYTE> out(der, der + length);
  OPENSSL_free(der);
  return out;
}

std::string render(std::vector<BYTE>& der, DWORD type) {
  CERT_NAME_BLOB blob{static_cast<DWORD>(der.size()), der.data()};
  const DWORD size = CertNameToStrA(X509_ASN_ENCODING, &blob, type, nullptr, 0);
  std::string text(size, 'x');
  EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, type, text.data(), size), size);
  EXPECT_EQ(text.back(), '\0');
  text.pop_back();
  return text;
}

TEST(CertNameToStrA, RendersAsTheTable) {
  const int utf8 = MBSTRING_UTF8;
  const int printable = V_ASN1_PRINTABLESTRING;
  struct Case {
    const char* what;
    std::vector<Attribute> name;
    DWORD type;
    std::string expected;
  };
  const std::vector<Attribute> ivan = {{"2.5.4.3", utf8, "Ivan"}, {"2.5.4.10", utf8, "Org"}, {"2.5.4.6", printable, "RU"}};
  const std::vector<Case> cases = {
      {"plain X.500", ivan, CERT_X500_NAME_STR, "CN=Ivan, O=Org, C=RU"},
      {"OID form", ivan, CERT_OID_NAME_STR, "2.5.4.3=Ivan, 2.5.4.10=Org, 2.5.4.6=RU"},
      {"quotes doubled", {{"2.5.4.10", utf8, "OOO \"Romashka\""}}, CERT_X500_NAME_STR, "O=\"OOO \"\"Romashka\"\"\""},
      {"comma", {{"2.5.4.10", utf8, "Demo, Inc"}}, CERT_OID_NAME_STR, "2.5.4.10=\"Demo, Inc\""},
      {"equals, hash, semicolon, angle",
       {{"2.5.4.3", utf8, "a=b"}, {"2.5.4.3", utf8, "#1"}, {"2.5.4.3", utf8, "x;y"}, {"2.5.4.3", utf8, "<z>"}},
       CERT_X500_NAME_STR, "CN=\"a=b\", CN=\"#1\", CN=\"x;y\", CN=\"<z>\""},
      {"leading and trailing blanks", {{"2.5.4.3", utf8, " lead"}, {"2.5.4.3", utf8, "trail "}},
       CERT_X500_NAME_STR, "CN=\" lead\", CN=\"trail \""},
      {"empty value", {{"1.2.3.4", utf8, ""}}, CERT_X500_NAME_STR, "OID.1.2.3.4=\"\""},
      {"Cyrillic BMPString", {{"2.5.4.3", V_ASN1_BMPSTRING, std::string("\x04\x10\x04\x4F", 4)}}, CERT_X500_NAME_STR,
       "CN=\xC0\xFF"},
      {"outside 1251", {{"2.5.4.3", utf8, "\xE4\xB8\xAD"}}, CERT_X500_NAME_STR, "CN=?"},
      {"X.500 keys",
       {{"1.2.840.113549.1.9.1", V_ASN1_IA5STRING, "a@b.c"}, {"2.5.4.5", printable, "42"},
        {"0.9.2342.19200300.100.1.25", V_ASN1_IA5STRING, "example"}, {"2.5.4.8", utf8, "77"},
        {"2.5.4.9", utf8, "Main 1"}, {"2.5.4.7", utf8, "Moscow"}, {"2.5.4.11", utf8, "IT"}, {"2.5.4.12", utf8, "Dr"},
        {"2.5.4.42", utf8, "Ivan"}, {"2.5.4.43", utf8, "I"}, {"2.5.4.4", utf8, "Petrov"}},
       CERT_X500_NAME_STR,
       "E=a@b.c, SERIALNUMBER=42, DC=example, S=77, STREET=Main 1, L=Moscow, OU=IT, T=Dr, G=Ivan, I=I, SN=Petrov"},
      {"numeric string of an OID without a key", {{"1.2.643.3.131.1.1", V_ASN1_NUMERICSTRING, "007712345678"}},
       CERT_X500_NAME_STR, "OID.1.2.643.3.131.1.1=007712345678"},
      {"multi-valued RDN", {{"2.5.4.3", utf8, "a"}, {"2.5.4.10", utf8, "b", -1}, {"2.5.4.6", printable, "RU"}},
       CERT_X500_NAME_STR, "CN=a + O=b, C=RU"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<BYTE> der = encode_name(c.name);
    EXPECT_EQ(render(der, c.type), c.expected);
  }
}

TEST(CertNameToStrA, AnsiPageMatchesIconv) {
  // Every letter of the Russian alphabet and the 1251 punctuation, against
  // the system's converter.
  const std::string text = "АБВГДЕЁЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдеёжзийклмнопрстуфхцчшщъыьэюя№—«»€ЂЃЉЊЌЋЏђѓљњќћџЎўЈҐЄЇІіґµ";
  std::vector<BYTE> der = encode_name({{"1.2.3.4", MBSTRING_UTF8, text}});  // no length limit
  TempDir dir;
  write_file(dir / "in.txt", text);
  int status = 0;
  const std::string expected = run_command("iconv -f UTF-8 -t CP1251 " + (dir / "in.txt"), &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(render(der, CERT_SIMPLE_NAME_STR), expected);
}

TEST(CertNameToStrA, ShortBufferHexValueAndCutName) {
  std::vector<BYTE> der = encode_name({{"2.5.4.3", MBSTRING_UTF8, "Ivan"}});
  CERT_NAME_BLOB blob{static_cast<DWORD>(der.size()), der.data()};
  char shorter[5];
  EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, shorter, sizeof shorter), 5u);
  EXPECT_STREQ(shorter, "CN=I");
  // A value that is no text shows as its encoding in hexadecimal.
  std::vector<BYTE> octets = {0x30, 0x0E, 0x31, 0x0C, 0x30, 0x0A, 0x06, 0x03, 0x2A, 0x03,
                              0x04, 0x04, 0x03, 0x01, 0x02, 0x03};
  EXPECT_EQ(render(octets, CERT_X500_NAME_STR), "OID.1.2.3.4=#0403010203");
  // A name cut short: an empty text.
  CERT_NAME_BLOB cut{static_cast<DWORD>(der.size() - 1), der.data()};
  char empty[4] = "xyz";
  EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &cut, CERT_X500_NAME_STR, empty, sizeof empty), 1u);
  EXPECT_STREQ(empty, "");
}

TEST(CertCompareIntegerBlob, ReducesAsTheTableSays) {
  struct Case {
    std::vector<BYTE> a, b;  // little-endian
    bool equal;
  };
  const std::vector<Case> cases = {
      {{0x88, 0xFF, 0xFF, 0xFF}, {0x88, 0xFF}, true},  // 0xFFFFFF88 reduces to 0xFF88
      {{0x88, 0xFF}, {0x88}, false},                   // ... not further
      {{0x80, 0x00, 0x00, 0x00}, {0x80}, true},        // every high zero goes, whatever the bit below
      {{}, {}, true},
      {{0x00}, {}, false},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    auto a = cases[i].a, b = cases[i].b;
    CRYPT_INTEGER_BLOB x{static_cast<DWORD>(a.size()), a.data()}, y{static_cast<DWORD>(b.size()), b.data()};
    EXPECT_EQ(CertCompareIntegerBlob(&x, &y) != 0, cases[i].equal);
    EXPECT_EQ(CertCompareIntegerBlob(&y, &x) != 0, cases[i].equal);
  }
}

TEST(CryptDecodeObject, SigningTimeInBothTimeForms) {
  // Seconds since 1970 (date -u +%s -d ...), 11644473600 more since 1601, in 100 ns.
  auto ticks = [](uint64_t unix_seconds) { return (unix_seconds + 11644473600ULL) * 10000000ULL; };
  const struct {
    std::string der;
    uint64_t ticks;  // 0: refused
  } cases[] = {
      {std::string("\x17\x0D") + "240229123456Z", ticks(1709210096)},  // 2024-02-29 12:34:56
      {std::string("\x18\x0F") + "20240229123456Z", ticks(1709210096)},
      {std::string("\x18\x0F") + "20510101000000Z", ticks(2556144000)},
      {"\x04\x02xx", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.der.substr(2));
    FILETIME time{};
    DWORD size = sizeof time;
    ASSERT_EQ(CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, szOID_RSA_signingTime,
                                reinterpret_cast<const BYTE*>(c.der.data()), static_cast<DWORD>(c.der.size()), 0, &time,
                                &size) != 0,
              c.ticks != 0);
    if (c.ticks != 0) { EXPECT_EQ((static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime, c.ticks); }
  }
}

}  // namespace
}  // namespace bv::test
