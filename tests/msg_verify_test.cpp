// Signed messages made by openssl cms, decoded and proved through the
// message service: the signer's record, its signing time, and the error each
// kind of damage gives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "certs.h"
#include "crypt32/msg.h"
#include "signing.h"

namespace bv::test {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
const std::string kData = "the content that was signed";

const BYTE* bytes(const std::string& s) { return reinterpret_cast<const BYTE*>(s.data()); }
std::string text(const BYTE* data, DWORD size) { return std::string(reinterpret_cast<const char*>(data), size); }

// The DER message and openssl's own print of it.
std::pair<std::string, std::string> signed_by_openssl(const TestCert& signer, const std::string& options) {
  TempDir dir;
  write_file(dir / "data", kData);
  write_file(dir / "key.pem", pem_of(signer.key.get()));
  write_file(dir / "engine.cnf", kGostEngineConfig);
  const std::string cms = "cd '" + dir.path() + "' && OPENSSL_CONF=engine.cnf openssl cms ";
  run_checked(cms + "-sign -binary -outform DER -in data -inkey key.pem -out m.der " + options + " -signer '" +
              signer.cert_pem + "'");
  return {read_file(dir / "m.der"), run_checked(cms + "-cmsout -print -inform DER -in m.der")};
}

bv::platform::MessageHandle decoded(const std::string& message, const std::string* detached_content) {
  bv::platform::MessageHandle handle(
      CryptMsgOpenToDecode(kEncoding, detached_content ? CMSG_DETACHED_FLAG : 0, 0, 0, nullptr, nullptr));
  EXPECT_TRUE(CryptMsgUpdate(handle.get(), bytes(message), static_cast<DWORD>(message.size()), TRUE));
  if (detached_content != nullptr) {
    EXPECT_TRUE(CryptMsgUpdate(handle.get(), bytes(*detached_content), static_cast<DWORD>(detached_content->size()), TRUE));
  }
  return handle;
}

std::vector<BYTE> param(HCRYPTMSG message, DWORD type) {
  DWORD size = 0;
  EXPECT_TRUE(CryptMsgGetParam(message, type, 0, nullptr, &size)) << type;
  std::vector<BYTE> out(size);
  EXPECT_TRUE(CryptMsgGetParam(message, type, 0, out.data(), &size)) << type;
  return out;
}

// 0 for a proven signature, otherwise the error.
DWORD proof(const std::string& message, const std::string* detached_content, PCCERT_CONTEXT cert) {
  bv::platform::MessageHandle handle = decoded(message, detached_content);
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
  const struct {
    const char* name;
    const TestCert& signer;
    const char* options;
    bool detached, attributes;
    const char* hash_oid;
    std::string serial;  // little-endian; empty: as the certificate's context has it
  } cases[] = {
      {"2012-256, attributes", w.alice, "-nodetach", false, true, "1.2.643.7.1.1.2.2", ""},
      {"2012-512, attributes, detached", w.bob, "", true, true, "1.2.643.7.1.1.2.3", ""},
      {"2001, no attributes", w.carol, "-nodetach -noattr", false, false, "1.2.643.2.2.9", ""},
      {"2012-256, no attributes, detached", wide, "-noattr", true, false, "1.2.643.7.1.1.2.2",
       std::string("\x98\xBA\xDC\xFE\x80\x00", 6)},
  };
  bv::platform::CertContext other(CertCreateCertificateContext(kEncoding, bytes(der_of(w.dave.cert.get())),
                                                               static_cast<DWORD>(der_of(w.dave.cert.get()).size())));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto [message, printed] = signed_by_openssl(c.signer, c.options);
    const std::string certificate = der_of(c.signer.cert.get());
    bv::platform::CertContext signer(CertCreateCertificateContext(kEncoding, bytes(certificate), static_cast<DWORD>(certificate.size())));
    const CERT_INFO& wanted = *signer.get()->pCertInfo;
    const std::string* content = c.detached ? &kData : nullptr;
    bv::platform::MessageHandle handle = decoded(message, content);
    EXPECT_EQ(*reinterpret_cast<DWORD*>(param(handle.get(), CMSG_SIGNER_COUNT_PARAM).data()), 1u);
    EXPECT_EQ(*reinterpret_cast<DWORD*>(param(handle.get(), CMSG_CERT_COUNT_PARAM).data()), 1u);
    const std::vector<BYTE> cert_param = param(handle.get(), CMSG_CERT_PARAM), content_param = param(handle.get(), CMSG_CONTENT_PARAM);
    EXPECT_EQ(text(cert_param.data(), static_cast<DWORD>(cert_param.size())), certificate);
    EXPECT_EQ(text(content_param.data(), static_cast<DWORD>(content_param.size())), kData);

    // The signer's record, all in one buffer; a short buffer gets its size.
    std::vector<BYTE> record = param(handle.get(), CMSG_SIGNER_INFO_PARAM);
    DWORD short_size = static_cast<DWORD>(record.size()) - 1;
    EXPECT_FALSE(CryptMsgGetParam(handle.get(), CMSG_SIGNER_INFO_PARAM, 0, record.data(), &short_size));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(short_size, record.size());
    const auto& info = *reinterpret_cast<const CMSG_SIGNER_INFO*>(record.data());
    const auto inside = [&](const void* p) { return p >= record.data() + sizeof info && p < record.data() + record.size(); };
    EXPECT_EQ(info.dwVersion, 1u);
    EXPECT_TRUE(inside(info.Issuer.pbData) && inside(info.SerialNumber.pbData) && inside(info.EncryptedHash.pbData));
    EXPECT_EQ(text(info.Issuer.pbData, info.Issuer.cbData), text(wanted.Issuer.pbData, wanted.Issuer.cbData));
    EXPECT_EQ(text(info.SerialNumber.pbData, info.SerialNumber.cbData),
              c.serial.empty() ? text(wanted.SerialNumber.pbData, wanted.SerialNumber.cbData) : c.serial);
    EXPECT_STREQ(info.HashAlgorithm.pszObjId, c.hash_oid);
    EXPECT_STREQ(info.HashEncryptionAlgorithm.pszObjId, wanted.SubjectPublicKeyInfo.Algorithm.pszObjId);
    EXPECT_EQ(info.UnauthAttrs.cAttr, 0u);
    ASSERT_EQ(info.AuthAttrs.cAttr != 0, c.attributes);
    if (c.attributes) {
      EXPECT_TRUE(inside(info.AuthAttrs.rgAttr));
      EXPECT_NE(CertFindAttribute("1.2.840.113549.1.9.4", info.AuthAttrs.cAttr, info.AuthAttrs.rgAttr), nullptr);
      const CRYPT_ATTRIBUTE* time_attribute =
          CertFindAttribute(szOID_RSA_signingTime, info.AuthAttrs.cAttr, info.AuthAttrs.rgAttr);
      ASSERT_NE(time_attribute, nullptr);
      FILETIME time{};
      DWORD size = sizeof time;
      SYSTEMTIME utc{};
      ASSERT_TRUE(CryptDecodeObject(kEncoding, szOID_RSA_signingTime, time_attribute->rgValue[0].pbData,
                                    time_attribute->rgValue[0].cbData, 0, &time, &size));
      ASSERT_TRUE(FileTimeToSystemTime(&time, &utc));
      static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
      char expected[64];
      std::snprintf(expected, sizeof expected, "TIME:%s %2u %02u:%02u:%02u %04u GMT", months[utc.wMonth - 1], utc.wDay,
                    utc.wHour, utc.wMinute, utc.wSecond, utc.wYear);
      EXPECT_NE(printed.find(expected), std::string::npos) << expected;
    }

    // The signer named in the message is found by issuer and serial number.
    const std::vector<BYTE> id = param(handle.get(), CMSG_SIGNER_CERT_INFO_PARAM);
    bv::platform::CertStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    ASSERT_TRUE(CertAddCertificateContextToStore(store.get(), other.get(), CERT_STORE_ADD_ALWAYS, nullptr));
    ASSERT_TRUE(CertAddCertificateContextToStore(store.get(), signer.get(), CERT_STORE_ADD_ALWAYS, nullptr));
    bv::platform::CertContext found(
        CertGetSubjectCertificateFromStore(store.get(), kEncoding, reinterpret_cast<CERT_INFO*>(const_cast<BYTE*>(id.data()))));
    ASSERT_NE(found.get(), nullptr);
    EXPECT_EQ(text(found.get()->pbCertEncoded, found.get()->cbCertEncoded), certificate);

    const std::string signature = text(info.EncryptedHash.pbData, info.EncryptedHash.cbData);
    const std::string changed_data = flipped(kData, kData);
    const DWORD content_fault = c.attributes ? CRYPT_E_HASH_VALUE : NTE_BAD_SIGNATURE;
    EXPECT_EQ(proof(message, content, signer.get()), 0u);
    EXPECT_EQ(proof(flipped(message, signature), content, signer.get()), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    EXPECT_EQ(proof(c.detached ? message : flipped(message, kData), c.detached ? &changed_data : nullptr, signer.get()),
              content_fault);
    EXPECT_EQ(proof(message, content, other.get()), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    if (c.detached) {  // without its content: none to read, nothing to prove
      EXPECT_TRUE(param(decoded(message, nullptr).get(), CMSG_CONTENT_PARAM).empty());
      EXPECT_EQ(proof(message, nullptr, signer.get()), static_cast<DWORD>(CRYPT_E_STREAM_MSG_NOT_READY));
    }
  }
}

// Counts from 2^63 on are no time; local time is the zone's offset at that
// instant, whatever it is now.
TEST(MsgVerify, FileTimeConversions) {
  const uint64_t july_2024 = (1720000000ULL + 11644473600ULL) * 10000000ULL, january_2024 = july_2024 - 172ULL * 86400 * 10000000;
  const struct {
    const char* zone;
    uint64_t utc;
    int64_t local_shift_hours;  // 99: refused
    WORD year, month, day;
  } cases[] = {
      {"XYZ-3", july_2024, 3, 2024, 7, 3},
      {"CET-1CEST,M3.5.0,M10.5.0/3", july_2024, 2, 2024, 7, 3},
      {"CET-1CEST,M3.5.0,M10.5.0/3", january_2024, 1, 2024, 1, 13},
      {"XYZ+5", 0, 99, 1601, 1, 1},
      {"XYZ-5", 0x7FFFFFFFFFFFFFFFULL, 99, 30828, 9, 14},
      {"UTC0", 0x8000000000000000ULL, 99, 0, 0, 0},
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
    EXPECT_EQ(FileTimeToSystemTime(&utc, &parts) != FALSE, c.year != 0);
    EXPECT_EQ(parts.wYear * 10000 + parts.wMonth * 100 + parts.wDay, c.year * 10000 + c.month * 100 + c.day);
    ASSERT_EQ(FileTimeToLocalFileTime(&utc, &local) != FALSE, c.local_shift_hours != 99);
    if (c.local_shift_hours != 99) {
      EXPECT_EQ(((uint64_t{local.dwHighDateTime} << 32) | local.dwLowDateTime) - c.utc, c.local_shift_hours * 36000000000ULL);
    }
  }
  saved ? setenv("TZ", saved_zone.c_str(), 1) : unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace bv::test
