// Enveloped messages of the platform's message service, cross-checked with
// openssl cms both ways for the three GOST key kinds.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "certs.h"
#include "advapi32/provider.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "crypt32/store.h"
#include "signing.h"

namespace bv::test {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

std::string quoted(const std::string& text) { return "'" + text + "'"; }

std::string content_of(HCRYPTMSG message) {
  DWORD size = 0;
  if (!CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &size)) return {};
  std::string out(size, '\0');
  if (!CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, out.data(), &size)) return {};
  out.resize(size);
  return out;
}

// Our encoder for `recipients`, read as openssl reads them back.
TEST(Envelope, OpensslOpensWhatWeWriteForEveryKeyKind) {
  const SigningWorld& w = SigningWorld::get();
  const std::string data = "Payment order 42, 1000.00 RUB";
  std::vector<bv::platform::CertContext> contexts;
  std::vector<CERT_INFO*> recipients;
  for (const TestCert* c : {&w.alice, &w.bob, &w.carol}) {
    const std::string der = der_of(c->cert.get());
    contexts.emplace_back(CertCreateCertificateContext(kEncoding, reinterpret_cast<const BYTE*>(der.data()),
                                                       static_cast<DWORD>(der.size())));
    recipients.push_back(contexts.back().get()->pCertInfo);
  }
  CMSG_ENVELOPED_ENCODE_INFO info{};
  info.cbSize = sizeof info;
  info.ContentEncryptionAlgorithm.pszObjId = const_cast<char*>("1.2.643.2.2.21");
  info.cRecipients = static_cast<DWORD>(recipients.size());
  info.rgpRecipients = recipients.data();
  bv::platform::MessageHandle message(CryptMsgOpenToEncode(kEncoding, 0, CMSG_ENVELOPED, &info, nullptr, nullptr));
  ASSERT_TRUE(message) << std::hex << GetLastError();
  ASSERT_TRUE(CryptMsgUpdate(message.get(), reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), TRUE))
      << std::hex << GetLastError();
  const std::string enveloped = content_of(message.get());
  ASSERT_FALSE(enveloped.empty());

  TempDir dir;
  write_file(dir / "m.der", enveloped);
  write_file(dir / "engine.cnf", kGostEngineConfig);
  for (const TestCert* c : {&w.alice, &w.bob, &w.carol}) {
    write_file(dir / "key.pem", pem_of(c->key.get()));
    int status = -1;
    const std::string opened = run_command("OPENSSL_CONF=" + quoted(dir / "engine.cnf") +
                                               " openssl cms -decrypt -binary -inform DER -in " + quoted(dir / "m.der") +
                                               " -recip " + quoted(c->cert_pem) + " -inkey " + quoted(dir / "key.pem") +
                                               " 2>&1",
                                           &status);
    EXPECT_EQ(status, 0) << opened;
    EXPECT_EQ(opened, data);
  }
  // The content encryption: GOST 28147-89.
  const std::string printed = run_command("OPENSSL_CONF=" + quoted(dir / "engine.cnf") +
                                          " openssl cms -cmsout -print -inform DER -in " + quoted(dir / "m.der"));
  EXPECT_NE(printed.find("contentEncryptionAlgorithm: \n        algorithm: GOST 28147-89 (1.2.643.2.2.21)"), std::string::npos)
      << printed;
}

// openssl's envelope for three recipients opened by our decoder with
// Carol's key (GOST R 34.10-2001, no PIN): her entry opens it, another's
// fails without content; a signed message has no recipients.
TEST(Envelope, WeOpenWhatOpensslWrites) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  const std::string data = "Payment order 43";
  write_file(dir / "data", data);
  write_file(dir / "engine.cnf", kGostEngineConfig);
  run_checked("OPENSSL_CONF=" + quoted(dir / "engine.cnf") + " openssl cms -encrypt -binary -gost89 -outform DER -in " +
              quoted(dir / "data") + " -out " + quoted(dir / "m.der") + " " + quoted(w.alice.cert_pem) + " " +
              quoted(w.bob.cert_pem) + " " + quoted(w.carol.cert_pem));
  const std::string enveloped = read_file(dir / "m.der");

  // Carol's certificate with its key file in a store of its own.
  const std::string my = dir / "local/Brelvantec/Certificates/My";
  std::filesystem::create_directories(my);
  std::filesystem::copy_file(w.my("03-carol.cer"), my + "/carol.cer");
  std::filesystem::copy_file(w.my("03-carol.key"), my + "/carol.key");
  setenv("BV_PLATFORM_LOCAL_APPDATA", (dir / "local").c_str(), 1);
  bv::platform::forget_cached_stores();
  bv::platform::CertStore store(
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_OPEN_EXISTING_FLAG, u"My"));
  ASSERT_TRUE(store);
  bv::platform::CertContext carol(CertEnumCertificatesInStore(store.get(), nullptr));
  ASSERT_TRUE(carol);
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(carol.get(), CRYPT_ACQUIRE_SILENT_FLAG, nullptr, &provider, &key_spec,
                                                nullptr));

  const auto open = [&](const std::string& bytes) {
    bv::platform::MessageHandle message(CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr));
    EXPECT_TRUE(CryptMsgUpdate(message.get(), reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()), TRUE));
    return message;
  };
  bv::platform::MessageHandle message = open(enveloped);
  DWORD count = 0, size = sizeof count;
  ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_RECIPIENT_COUNT_PARAM, 0, &count, &size));
  ASSERT_EQ(count, 3u);
  DWORD carol_index = count, other_index = count;
  for (DWORD i = 0; i < count; ++i) {
    DWORD length = 0;
    ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_RECIPIENT_INFO_PARAM, i, nullptr, &length));
    std::vector<BYTE> buffer(length);
    ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_RECIPIENT_INFO_PARAM, i, buffer.data(), &length));
    auto* recipient = reinterpret_cast<CERT_INFO*>(buffer.data());
    const bool is_carol = CertCompareCertificateName(kEncoding, &carol.get()->pCertInfo->Issuer, &recipient->Issuer) &&
                          CertCompareIntegerBlob(&carol.get()->pCertInfo->SerialNumber, &recipient->SerialNumber);
    (is_carol ? carol_index : other_index) = i;
  }
  ASSERT_LT(carol_index, count);
  ASSERT_LT(other_index, count);

  CMSG_CTRL_DECRYPT_PARA decrypt{sizeof decrypt, provider, key_spec, other_index};
  EXPECT_FALSE(CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &decrypt));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
  EXPECT_FALSE(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &size));
  decrypt.dwRecipientIndex = carol_index;
  ASSERT_TRUE(CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &decrypt));
  EXPECT_EQ(content_of(message.get()), data);
  CryptReleaseContext(provider, 0);

  // A signed message passes the update and has no recipient count.
  SignRequest request;
  request.signers = {{"CN=Carol", "", ""}};
  const std::string signed_message = sign_through_export(w.env(), request).signed_data;
  bv::platform::MessageHandle signed_handle = open(signed_message);
  EXPECT_FALSE(CryptMsgGetParam(signed_handle.get(), CMSG_RECIPIENT_COUNT_PARAM, 0, &count, &size));
  w.apply_environment();
}

}  // namespace
}  // namespace bv::test
