// Signed messages made by openssl cms, decoded and proved through the
// message service: the signer's record, its signing time, each damage's error.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "certs.h"
#include "crypt32/msg.h"
#include "signing.h"

namespace bv::test {
namespace {

using bv::platform::CertContext;
using bv::platform::MessageHandle;
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
const std::string kData = "the content that was signed";

const BYTE* bytes(const std::string& s) { return reinterpret_cast<const BYTE*>(s.data()); }
std::string text(const CRYPT_INTEGER_BLOB& blob) { return std::string(reinterpret_cast<char*>(blob.pbData), blob.cbData); }
CertContext context(X509* cert) {
  const std::string der = der_of(cert);
  return CertContext(CertCreateCertificateContext(kEncoding, bytes(der), static_cast<DWORD>(der.size())));
}

MessageHandle decoded(const std::string& message, const std::string* detached_content) {
  MessageHandle handle(CryptMsgOpenToDecode(kEncoding, detached_content ? CMSG_DETACHED_FLAG : 0, 0, 0, nullptr, nullptr));
  for (const std::string* part : {&message, detached_content}) {
    if (part != nullptr) { EXPECT_TRUE(CryptMsgUpdate(handle.get(), bytes(*part), static_cast<DWORD>(part->size()), TRUE)); }
  }
  return handle;
}

std::string param(HCRYPTMSG message, DWORD type) {
  DWORD size = 0;
  EXPECT_TRUE(CryptMsgGetParam(message, type, 0, nullptr, &size)) << type;
  std::string out(size, '\0');
  EXPECT_TRUE(CryptMsgGetParam(message, type, 0, out.data(), &size)) << type;
  return out;
}

// 0 for a proven signature, otherwise the error.
DWORD proof(const std::string& message, const std::string* detached_content, PCCERT_CONTEXT cert) {
  MessageHandle handle = decoded(message, detached_content);
  CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA para{sizeof para, 0, 0, CMSG_VERIFY_SIGNER_CERT, const_cast<CERT_CONTEXT*>(cert)};
  return CryptMsgControl(handle.get(), 0, CMSG_CTRL_VERIFY_SIGNATURE_EX, &para) ? 0 : GetLastError();
}

std::string flipped(std::string s, const std::string& inside) {
  s[s.find(inside) + inside.size() / 2] ^= 0x04;
  return s;
}

TEST(MsgVerify, RecordsAndProofsOfOpensslMessages) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  TestCert wide;  // a serial number of several bytes with a sign byte
  wide.key = generate_key("gost2012_256");
  wide.cert = issue_certificate({.subject = {{"CN", "Wide"}}, .serial = 0x80FEDCBA98}, wide.key.get(), w.root.cert.get(),
                                w.root.key.get());
  wide.cert_pem = dir / "wide.pem";
  write_file(wide.cert_pem, pem_of(wide.cert.get()));
  write_file(dir / "data", kData);
  write_file(dir / "engine.cnf", kGostEngineConfig);
  const struct {
    const TestCert& signer;
    const char* options;
    bool detached, attributes;
    const char* hash_oid;
    std::string serial;  // little-endian; empty: as the certificate's context has it
  } cases[] = {
      {w.alice, "-nodetach", false, true, "1.2.643.7.1.1.2.2", ""},
      {w.bob, "", true, true, "1.2.643.7.1.1.2.3", ""},
      {w.carol, "-nodetach -noattr", false, false, "1.2.643.2.2.9", ""},
      {wide, "-noattr", true, false, "1.2.643.7.1.1.2.2", std::string("\x98\xBA\xDC\xFE\x80\x00", 6)},
  };
  const CertContext other = context(w.dave.cert.get());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options + std::string(" ") + c.hash_oid);
    write_file(dir / "key.pem", pem_of(c.signer.key.get()));
    const std::string cms = "cd '" + dir.path() + "' && OPENSSL_CONF=engine.cnf openssl cms ";
    run_checked(cms + "-sign -binary -outform DER -in data -inkey key.pem -out m.der " + c.options + " -signer '" +
                c.signer.cert_pem + "'");
    const std::string message = read_file(dir / "m.der");
    const std::string printed = run_checked(cms + "-cmsout -print -inform DER -in m.der");
    const CertContext signer = context(c.signer.cert.get());
    const CERT_INFO& wanted = *signer.get()->pCertInfo;
    const std::string* content = c.detached ? &kData : nullptr;
    MessageHandle handle = decoded(message, content);
    EXPECT_EQ(param(handle.get(), CMSG_SIGNER_COUNT_PARAM), param(handle.get(), CMSG_CERT_COUNT_PARAM));
    EXPECT_EQ(param(handle.get(), CMSG_SIGNER_COUNT_PARAM), std::string("\1\0\0\0", 4));
    EXPECT_EQ(param(handle.get(), CMSG_CERT_PARAM), der_of(c.signer.cert.get()));
    EXPECT_EQ(param(handle.get(), CMSG_CONTENT_PARAM), kData);

    // The signer's record, all in one buffer; a short buffer gets its size.
    std::string record = param(handle.get(), CMSG_SIGNER_INFO_PARAM);
    DWORD short_size = static_cast<DWORD>(record.size()) - 1;
    EXPECT_FALSE(CryptMsgGetParam(handle.get(), CMSG_SIGNER_INFO_PARAM, 0, record.data(), &short_size));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(short_size, record.size());
    const auto& info = *reinterpret_cast<const CMSG_SIGNER_INFO*>(record.data());
    const auto inside = [&](const void* p) { return p >= &info + 1 && p < record.data() + record.size(); };
    EXPECT_TRUE(inside(info.Issuer.pbData) && inside(info.SerialNumber.pbData) && inside(info.EncryptedHash.pbData));
    EXPECT_EQ(info.dwVersion, 1u);
    EXPECT_EQ(text(info.Issuer), text(wanted.Issuer));
    EXPECT_EQ(text(info.SerialNumber), c.serial.empty() ? text(wanted.SerialNumber) : c.serial);
    EXPECT_STREQ(info.HashAlgorithm.pszObjId, c.hash_oid);
    EXPECT_STREQ(info.HashEncryptionAlgorithm.pszObjId, wanted.SubjectPublicKeyInfo.Algorithm.pszObjId);
    EXPECT_EQ(info.UnauthAttrs.cAttr, 0u);
    ASSERT_EQ(info.AuthAttrs.cAttr != 0, c.attributes);
    if (c.attributes) {  // the signing time is the instant openssl prints
      EXPECT_TRUE(inside(info.AuthAttrs.rgAttr));
      const CRYPT_ATTRIBUTE* time_attribute =
          CertFindAttribute(szOID_RSA_signingTime, info.AuthAttrs.cAttr, info.AuthAttrs.rgAttr);
      ASSERT_NE(time_attribute, nullptr);
      FILETIME time{};
      DWORD size = sizeof time;
      SYSTEMTIME utc{};
      ASSERT_TRUE(CryptDecodeObject(kEncoding, szOID_RSA_signingTime, time_attribute->rgValue[0].pbData,
                                    time_attribute->rgValue[0].cbData, 0, &time, &size));
      ASSERT_TRUE(FileTimeToSystemTime(&time, &utc));
      char expected[64];
      std::snprintf(expected, sizeof expected, "TIME:%.3s %2u %02u:%02u:%02u %04u GMT",
                    "JanFebMarAprMayJunJulAugSepOctNovDec" + 3 * (utc.wMonth - 1), utc.wDay, utc.wHour, utc.wMinute,
                    utc.wSecond, utc.wYear);
      EXPECT_NE(printed.find(expected), std::string::npos) << expected;
    }

    // The signer named in the message is found by issuer and serial number.
    std::string id = param(handle.get(), CMSG_SIGNER_CERT_INFO_PARAM);
    bv::platform::CertStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    for (PCCERT_CONTEXT held : {other.get(), signer.get()})
      ASSERT_TRUE(CertAddCertificateContextToStore(store.get(), held, CERT_STORE_ADD_ALWAYS, nullptr));
    const CertContext found(
        CertGetSubjectCertificateFromStore(store.get(), kEncoding, reinterpret_cast<CERT_INFO*>(id.data())));
    EXPECT_TRUE(found.get() != nullptr && CertCompareCertificate(kEncoding, found.get()->pCertInfo, signer.get()->pCertInfo));

    const std::string changed_data = flipped(kData, kData);
    EXPECT_EQ(proof(message, content, signer.get()), 0u);
    EXPECT_EQ(proof(flipped(message, text(info.EncryptedHash)), content, signer.get()),
              static_cast<DWORD>(NTE_BAD_SIGNATURE));
    EXPECT_EQ(proof(c.detached ? message : flipped(message, kData), c.detached ? &changed_data : nullptr, signer.get()),
              static_cast<DWORD>(c.attributes ? CRYPT_E_HASH_VALUE : NTE_BAD_SIGNATURE));
    EXPECT_EQ(proof(message, content, other.get()), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    if (c.detached) {  // without its content: none to read, nothing to prove
      EXPECT_TRUE(param(decoded(message, nullptr).get(), CMSG_CONTENT_PARAM).empty());
      EXPECT_EQ(proof(message, nullptr, signer.get()), static_cast<DWORD>(CRYPT_E_STREAM_MSG_NOT_READY));
    }
  }
}

// Counts from 2^63 on are no time; local time takes the zone's offset at
// that instant, whatever it is now, and fails where the shift leaves the range.
TEST(MsgVerify, FileTimeConversions) {
  const uint64_t july_2024 = (1720000000ULL + 11644473600ULL) * 10000000ULL, hour = 36000000000ULL;
  const struct {
    const char* zone;
    uint64_t utc;
    int shift_hours;  // 99: refused
    unsigned date;    // of FileTimeToSystemTime, 0: refused
  } cases[] = {
      {"XYZ-3", july_2024, 3, 20240703},
      {"CET-1CEST,M3.5.0,M10.5.0/3", july_2024, 2, 20240703},
      {"CET-1CEST,M3.5.0,M10.5.0/3", july_2024 - 172 * 24 * hour, 1, 20240113},
      {"XYZ+5", 0, 99, 16010101},
      {"XYZ-5", 0x7FFFFFFFFFFFFFFFULL, 99, 308280914},
      {"UTC0", 0x8000000000000000ULL, 99, 0},
  };
  const char* saved = std::getenv("TZ");
  const std::string saved_zone = saved ? saved : "";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    setenv("TZ", c.zone, 1);
    tzset();
    const FILETIME utc{static_cast<DWORD>(c.utc), static_cast<DWORD>(c.utc >> 32)};
    FILETIME local{};
    SYSTEMTIME parts{};
    EXPECT_EQ(FileTimeToSystemTime(&utc, &parts) != FALSE, c.date != 0);
    EXPECT_EQ(parts.wYear * 10000u + parts.wMonth * 100u + parts.wDay, c.date);
    ASSERT_EQ(FileTimeToLocalFileTime(&utc, &local) != FALSE, c.shift_hours != 99);
    const uint64_t local_ticks = (uint64_t{local.dwHighDateTime} << 32) | local.dwLowDateTime;
    if (c.shift_hours != 99) { EXPECT_EQ(local_ticks - c.utc, c.shift_hours * hour); }
  }
  saved ? setenv("TZ", saved_zone.c_str(), 1) : unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace bv::test
