// Certificate contexts, names as text, integer and name comparison, signing
// time decoding and the OID table, against real GOST certificates and names
// built with OpenSSL.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "crypt32/cert.h"
#include "crypt32/oidinfo.h"
#include "crypt32/store.h"
#include "host.h"
#include "signing.h"

namespace bv::test {

namespace {

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
      {"Cyrillic to 1251", {{"2.5.4.3", utf8, "Иванов Ёж №1"}}, CERT_X500_NAME_STR,
       "CN=\xC8\xE2\xE0\xED\xEE\xE2 \xA8\xE6 \xB9" "1"},
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
      {"Russian numbers in OID form",
       {{"1.2.643.100.1", V_ASN1_NUMERICSTRING, "1027700132195"}, {"1.2.643.100.3", V_ASN1_NUMERICSTRING, "12345678901"},
        {"1.2.643.3.131.1.1", V_ASN1_NUMERICSTRING, "007712345678"}, {"1.2.643.100.5", V_ASN1_NUMERICSTRING, "304500116000157"}},
       CERT_X500_NAME_STR,
       "OID.1.2.643.100.1=1027700132195, OID.1.2.643.100.3=12345678901, OID.1.2.643.3.131.1.1=007712345678, "
       "OID.1.2.643.100.5=304500116000157"},
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

TEST(CertNameToStrA, SizeQueryAndShortBuffer) {
  std::vector<BYTE> der = encode_name({{"2.5.4.3", MBSTRING_UTF8, "Ivan"}});
  CERT_NAME_BLOB blob{static_cast<DWORD>(der.size()), der.data()};
  EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, nullptr, 0), 8u);
  char shorter[5];
  EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, shorter, sizeof shorter), 5u);
  EXPECT_STREQ(shorter, "CN=I");
  // A value that is no text shows as its encoding in hexadecimal.
  std::vector<BYTE> octets = {0x30, 0x0E, 0x31, 0x0C, 0x30, 0x0A, 0x06, 0x03, 0x2A, 0x03,
                              0x04, 0x04, 0x03, 0x01, 0x02, 0x03};
  EXPECT_EQ(render(octets, CERT_X500_NAME_STR), "OID.1.2.3.4=#0403010203");
  // Not a name, or a name cut short: an empty text.
  std::vector<BYTE> cut(der.begin(), der.end() - 1);
  BYTE garbage[] = {0x04, 0x01, 0x00};
  for (CERT_NAME_BLOB bad : {CERT_NAME_BLOB{sizeof garbage, garbage}, CERT_NAME_BLOB{static_cast<DWORD>(cut.size()), cut.data()}}) {
    char empty[4] = "xyz";
    EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &bad, CERT_X500_NAME_STR, empty, sizeof empty), 1u);
    EXPECT_STREQ(empty, "");
  }
}

TEST(CertNameToStrA, DamagedNamesNeverReadPastTheBlob) {
  // Every byte of a real name changed in turn, and every length cut: each
  // gives some text or the empty one, never a read outside the blob (the
  // sanitizer build watches that).
  const std::vector<BYTE> name = encode_name({{"2.5.4.3", MBSTRING_UTF8, "Иванов"},
                                              {"1.2.643.100.1", V_ASN1_NUMERICSTRING, "1027700132195"},
                                              {"2.5.4.10", V_ASN1_BMPSTRING, std::string("\x04\x10", 2)}});
  for (size_t i = 0; i < name.size(); ++i) {
    for (BYTE change : {0x00, 0x80, 0xFF, 0x7F}) {
      std::vector<BYTE> damaged(name);
      damaged[i] = change;
      CERT_NAME_BLOB blob{static_cast<DWORD>(damaged.size()), damaged.data()};
      const DWORD size = CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, nullptr, 0);
      std::string text(size, '\0');
      EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, text.data(), size), size);
    }
    std::vector<BYTE> cut(name.begin(), name.begin() + static_cast<long>(i));
    CERT_NAME_BLOB blob{static_cast<DWORD>(cut.size()), cut.empty() ? nullptr : cut.data()};
    EXPECT_EQ(CertNameToStrA(X509_ASN_ENCODING, &blob, CERT_OID_NAME_STR, nullptr, 0), 1u) << i;
  }
}

TEST(CertCompareIntegerBlob, ReducesAsTheTableSays) {
  struct Case {
    std::vector<BYTE> a, b;  // little-endian
    bool equal;
  };
  const std::vector<Case> cases = {
      {{0x88, 0xFF, 0xFF, 0xFF}, {0x88, 0xFF}, true},  // 0xFFFFFF88 reduces to 0xFF88
      {{0x88, 0xFF}, {0x88}, false},                   // ... not further
      {{0x7F, 0x00}, {0x7F}, true},                    // 0x007F reduces to 0x7F
      {{0x80, 0x00, 0x00, 0x00}, {0x80}, true},        // 0x00000080 reduces to 0x80
      {{0x01, 0x02}, {0x01, 0x02, 0x00, 0x00}, true},
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

std::string render_blob(const CERT_NAME_BLOB& blob) {
  std::vector<BYTE> der(blob.pbData, blob.pbData + blob.cbData);
  return render(der, CERT_X500_NAME_STR);
}

TEST(CertificateContext, FieldsOfACertificate) {
  const std::string file = SigningWorld::get().my("01-alice.cer");
  const std::string der = read_file(file);
  PCCERT_CONTEXT context =
      CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                   static_cast<DWORD>(der.size()));
  ASSERT_NE(context, nullptr) << std::hex << GetLastError();
  const CERT_INFO* info = context->pCertInfo;
  EXPECT_EQ(context->cbCertEncoded, der.size());
  EXPECT_EQ(info->dwVersion, 2u);
  EXPECT_STREQ(info->SignatureAlgorithm.pszObjId, "1.2.643.7.1.1.3.2");
  EXPECT_STREQ(info->SubjectPublicKeyInfo.Algorithm.pszObjId, "1.2.643.7.1.1.1.1");
  EXPECT_NE(context->hCertStore, nullptr);
  ASSERT_EQ(info->SerialNumber.cbData, 1u);
  EXPECT_EQ(info->SerialNumber.pbData[0], 2);
  EXPECT_EQ(render_blob(info->Issuer), "O=Test PKI, CN=Test Root, C=RU");

  // Validity as openssl prints it.
  SYSTEMTIME until{};
  ASSERT_TRUE(FileTimeToSystemTime(&info->NotAfter, &until));
  const std::string end = run_command("openssl x509 -inform DER -noout -enddate -in " + file);
  static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char expected[48];
  std::snprintf(expected, sizeof expected, "notAfter=%s %2u %02u:%02u:%02u %04u GMT", months[until.wMonth - 1],
                until.wDay, until.wHour, until.wMinute, until.wSecond, until.wYear);
  EXPECT_EQ(end, std::string(expected) + "\n");
  EXPECT_TRUE(CertFreeCertificateContext(context));
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

// The OID table holds together: lookups by OID, ALG_ID and signature pair
// are exercised by every signature and digest the other tests check.
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
    if (std::strncmp(key->pszOID, "1.2.643.", 8) == 0) { EXPECT_EQ(key->Algid & 0xE000, ALG_CLASS_SIGNATURE); }
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

}  // namespace bv::test
