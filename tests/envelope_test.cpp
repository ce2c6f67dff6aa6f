// SsfEnvelope and SsfDevelope as a host calls them, cross-checked with
// openssl cms both ways for the three GOST key kinds; and the enveloped
// kind of the message service where only it can be reached.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "advapi32/provider.h"
#include "certs.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "crypt32/store.h"
#include "signing.h"

namespace bv::test {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct EnvelopeRequest {
  std::string format = "PKCS7", algorithm = "GOST28147";
  std::string data = "Payment order 42, 1000.00 RUB";
  std::vector<std::string> ids;  // recipients, in order
  std::string pab = "My";        // "" leaves the default store
  bool no_list = false;
};

struct Enveloped {
  uint32_t rc = 99;
  std::vector<int32_t> results;
  std::string message;
};

// SsfEnvelope in a child with `env`; what came back through files.
Enveloped envelope_through_export(const std::map<std::string, std::string>& env, const EnvelopeRequest& request) {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    const SsfApi& api = SsfApi::get();
    SsfInfoNode* list = nullptr;
    std::vector<SsfInfo*> records;
    for (const std::string& id : request.ids) {
      SsfInfo* info = nullptr;
      ASSERT_EQ(api.SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, nullptr, 0, nullptr,
                                        0, 99, &info),
                SSF_OK);
      ASSERT_EQ(api.SsfINSSigRcpSsfInfo(info, &list), SSF_OK);
      records.push_back(info);
    }
    unsigned char* out = nullptr;
    uint32_t out_length = 7;
    const SSF_RC rc = api.SsfEnvelope(
        request.format.data(), static_cast<int32_t>(request.format.size()), request.algorithm.data(),
        static_cast<int32_t>(request.algorithm.size()), reinterpret_cast<const unsigned char*>(request.data.data()),
        static_cast<int32_t>(request.data.size()), request.pab.empty() ? nullptr : request.pab.data(),
        static_cast<int32_t>(request.pab.size()), nullptr, 0, request.no_list ? nullptr : list, &out, &out_length);
    std::string outcome = std::to_string(rc) + "\n";
    for (SsfInfo* info : records) outcome += std::to_string(info->Result) + "\n";
    write_file(exchange / "outcome", outcome);
    write_file(exchange / "message", out == nullptr ? std::string() : std::string(reinterpret_cast<char*>(out), out_length));
    EXPECT_TRUE(out != nullptr || out_length == 0);
    api.SsfDELSsfOctetstring(&out, &out_length);
    if (list != nullptr) api.SsfDELSigRcpSsfInfoList(&list);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  Enveloped enveloped;
  std::istringstream lines(read_file(exchange / "outcome"));
  lines >> enveloped.rc;
  for (int32_t result = 0; lines >> result;) enveloped.results.push_back(result);
  enveloped.message = read_file(exchange / "message");
  return enveloped;
}

struct Opened {
  uint32_t rc = 99;
  int32_t result = -1;
  std::string content;
};

// SsfDevelope in a child with `env`, for `recipient` (none when null).
Opened develope_through_export(const std::map<std::string, std::string>& env, const std::string& message,
                               const SignerSpec* recipient, const std::string& format = "PKCS7") {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    const SsfApi& api = SsfApi::get();
    SsfInfo* info = nullptr;
    // A record without identity can only be made by hand: it is made with
    // one, then its length is cleared.
    const std::string id = recipient == nullptr || recipient->id.empty() ? "x" : recipient->id;
    if (recipient != nullptr) {
      ASSERT_EQ(api.SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0,
                                        recipient->profile.data(), static_cast<int32_t>(recipient->profile.size()),
                                        recipient->pin.data(), static_cast<int32_t>(recipient->pin.size()), 99, &info),
                SSF_OK);
      if (recipient->id.empty()) info->strSigRcpIdL = 0;
    }
    unsigned char* out = reinterpret_cast<unsigned char*>(1);
    uint32_t out_length = 7;
    const SSF_RC rc =
        api.SsfDevelope(format.data(), static_cast<int32_t>(format.size()),
                        reinterpret_cast<const unsigned char*>(message.data()), static_cast<int32_t>(message.size()),
                        info, &out, &out_length);
    EXPECT_TRUE(rc == SSF_OK || (out == nullptr && out_length == 0));  // no content on any failure
    write_file(exchange / "outcome", std::to_string(rc) + " " + std::to_string(info != nullptr ? info->Result : -1));
    write_file(exchange / "content", out == nullptr ? std::string() : std::string(reinterpret_cast<char*>(out), out_length));
    api.SsfDELSsfOctetstring(&out, &out_length);
    if (info != nullptr) {
      info->strSigRcpIdL = static_cast<int32_t>(id.size());
      api.SsfDELSigRcpSsfInfo(&info);
    }
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  Opened opened;
  std::istringstream(read_file(exchange / "outcome")) >> opened.rc >> opened.result;
  opened.content = read_file(exchange / "content");
  return opened;
}

std::string openssl_with_engine(const TempDir& dir, const std::string& arguments, int* status) {
  write_file(dir / "engine.cnf", kGostEngineConfig);
  return run_command("OPENSSL_CONF=" + quoted(dir / "engine.cnf") + " openssl " + arguments + " 2>&1", status);
}

// What openssl cms -encrypt -gost89 makes of `data` for `recipients`.
std::string openssl_envelope(const std::string& data, const std::vector<const TestCert*>& recipients) {
  TempDir dir;
  write_file(dir / "data", data);
  std::string command = "cms -encrypt -binary -gost89 -outform DER -in " + quoted(dir / "data") + " -out " +
                        quoted(dir / "m.der");
  for (const TestCert* c : recipients) command += " " + quoted(c->cert_pem);
  int status = -1;
  const std::string said = openssl_with_engine(dir, command, &status);
  EXPECT_EQ(status, 0) << said;
  return read_file(dir / "m.der");
}

// Both ways, each of the three key kinds, sizes from one byte to a MiB:
// openssl opens what SsfEnvelope writes, SsfDevelope opens what openssl writes.
TEST(Envelope, OpensslAndWeOpenEachOthersMessages) {
  const SigningWorld& w = SigningWorld::get();
  const struct {
    const TestCert* cert;
    SignerSpec as_recipient;
  } recipients[] = {{&w.alice, {"CN=Alice", "", "1111"}}, {&w.bob, {"CN=Bob, O=Test Bank", "", "2222"}},
                    {&w.carol, {w.carol.sha1_hex, "", ""}}};
  for (const size_t size : {size_t{1}, size_t{1024}, size_t{1} << 20}) {
    SCOPED_TRACE(size);
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 131 + 7);

    EnvelopeRequest request{.data = data, .ids = {"CN=Alice", "CN=Bob", w.carol.sha1_hex}};
    const Enveloped ours = envelope_through_export(w.env(), request);
    ASSERT_EQ(ours.rc, SSF_OK);
    EXPECT_EQ(ours.results, (std::vector<int32_t>{0, 0, 0}));
    TempDir dir;
    write_file(dir / "m.der", ours.message);
    for (const auto& r : recipients) {
      write_file(dir / "key.pem", pem_of(r.cert->key.get()));
      int status = -1;
      const std::string said = openssl_with_engine(
          dir,
          "cms -decrypt -binary -inform DER -in " + quoted(dir / "m.der") + " -recip " + quoted(r.cert->cert_pem) +
              " -inkey " + quoted(dir / "key.pem") + " -out " + quoted(dir / "opened"),
          &status);
      EXPECT_EQ(status, 0) << said;
      EXPECT_TRUE(read_file(dir / "opened") == data) << r.as_recipient.id;
    }
    if (size == 1) {
      int status = -1;
      const std::string printed = openssl_with_engine(dir, "cms -cmsout -print -inform DER -in " + quoted(dir / "m.der"), &status);
      EXPECT_TRUE(contains(printed, "algorithm: GOST 28147-89 (1.2.643.2.2.21)")) << printed;
    }

    const std::string theirs = openssl_envelope(data, {&w.alice, &w.bob, &w.carol});
    for (const auto& r : recipients) {
      const Opened opened = develope_through_export(w.env(), theirs, &r.as_recipient);
      EXPECT_EQ(opened.rc, SSF_OK) << r.as_recipient.id;
      EXPECT_EQ(opened.result, 0);
      EXPECT_TRUE(opened.content == data) << r.as_recipient.id;
    }
  }
}

TEST(Envelope, RefusalsAndRecordResults) {
  const SigningWorld& w = SigningWorld::get();
  const struct Case {
    const char* name;
    EnvelopeRequest request;
    uint32_t rc;
    std::vector<int32_t> results;
  } cases[] = {
      {"unknown format before empty data and no list", {.format = "XML", .data = "", .no_list = true}, SSF_ERR_FORMAT, {}},
      {"a bare signature format", {.format = "RAW_GOST", .ids = {"CN=Alice"}}, SSF_ERR_FORMAT, {99}},
      {"empty data before no list", {.data = "", .no_list = true}, SSF_ERR_INPUT, {}},
      {"no list before an unknown algorithm", {.algorithm = "AES", .no_list = true}, SSF_ERR_RECIPIENT, {}},
      {"an algorithm name's prefix", {.algorithm = "GOST", .ids = {"CN=Alice"}}, SSF_OK, {0}},
      {"the long algorithm name", {.algorithm = "GOST-28147-89", .ids = {"CN=Alice"}}, SSF_OK, {0}},
      {"a longer algorithm name", {.algorithm = std::string("GOST28147X"), .ids = {"CN=Alice"}}, SSF_ERR_ENCRALG, {99}},
      {"the second of three unknown", {.ids = {"CN=Alice", "CN=Nobody", "CN=Bob"}}, SSF_ERR_RECIPIENT, {0, 26, 0}},
      {"blank and malformed identities", {.ids = {"   ", "CN=Alice", "=x", "ABC"}}, SSF_ERR_RECIPIENT, {22, 0, 22, 22}},
      {"the same recipient twice", {.ids = {"CN=Alice", "CN=Alice"}}, SSF_OK, {0, 0}},
      {"the default store, missing here", {.ids = {"CN=Alice"}, .pab = ""}, SSF_ERR_PAB, {99}},
      {"the machine's My by its prefix", {.ids = {"CN=Dave"}, .pab = "mMy"}, SSF_OK, {0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Enveloped got = envelope_through_export(w.env(), c.request);
    EXPECT_EQ(got.rc, c.rc);
    EXPECT_EQ(got.results, c.results);
    EXPECT_EQ(got.message.empty(), c.rc != SSF_OK);
  }
}

TEST(Develope, OutcomesOfTheTable) {
  const SigningWorld& w = SigningWorld::get();
  const std::string for_alice = openssl_envelope("for Alice", {&w.alice});
  std::string truncated = for_alice.substr(0, for_alice.size() - 40);
  std::string flipped = for_alice;
  flipped[flipped.size() - 5] ^= 0x10;  // in the encrypted content
  SignRequest sign;
  sign.signers = {{"CN=Alice", "", "1111"}};
  const std::string signed_message = sign_through_export(w.env(), sign).signed_data;

  const SignerSpec alice{"CN=Alice", "", "1111"};
  const struct Case {
    const char* name;
    std::string message;
    SignerSpec recipient;
    uint32_t rc;
    int32_t result;
    std::string content;
  } cases[] = {
      {"the recipient", for_alice, alice, SSF_OK, 0, "for Alice"},
      {"by hash, in My of the profile", for_alice, {w.alice.sha1_hex, "uMy", "1111"}, SSF_OK, 0, "for Alice"},
      {"a wrong PIN", for_alice, {"CN=Alice", "", "1112"}, SSF_ERR_RECIPIENT, 25, ""},
      {"a key that works, for another's message", for_alice, {"CN=Bob", "", "2222"}, SSF_ERR_RECIPIENT, 27, ""},
      {"no such certificate", for_alice, {"CN=Nobody", "", ""}, SSF_ERR_RECIPIENT, 22, ""},
      {"blanks as identity: an empty hash", for_alice, {"   ", "", ""}, SSF_ERR_RECIPIENT, 22, ""},
      {"no identity", for_alice, {"", "", ""}, SSF_ERR_RECIPIENT, 23, ""},
      {"a store that does not exist, no identity", for_alice, {"", "NoSuchStore", ""}, SSF_ERR_RECIPIENT, 24, ""},
      {"a certificate without key here", for_alice, {"CN=NoKey", "", ""}, SSF_ERR_RECIPIENT, 22, ""},
      {"the machine's My by its prefix", openssl_envelope("for Dave", {&w.dave}), {"CN=Dave", "mMy", "6666"}, SSF_OK, 0,
       "for Dave"},
      {"a signed message", signed_message, alice, SSF_ERR_FORMAT, 28, ""},
      {"truncated", truncated, alice, SSF_ERR_INPUT, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Opened got = develope_through_export(w.env(), c.message, &c.recipient);
    EXPECT_EQ(got.rc, c.rc);
    EXPECT_EQ(got.result, c.result);
    EXPECT_EQ(got.content, c.content);
  }
  // CFB carries no integrity: changed content opens to changed bytes, as
  // with openssl; only a signature inside tells.
  const Opened changed = develope_through_export(w.env(), flipped, &alice);
  EXPECT_EQ(changed.rc, SSF_OK);
  EXPECT_EQ(changed.content.substr(0, 8), "for Qlic");
  // Checked in this order: format, recipient, message.
  EXPECT_EQ(develope_through_export(w.env(), "", nullptr, "XML").rc, SSF_ERR_FORMAT);
  EXPECT_EQ(develope_through_export(w.env(), "", nullptr).rc, SSF_ERR_RECIPIENT);
  EXPECT_EQ(develope_through_export(w.env(), "", &alice).rc, SSF_ERR_INPUT);
}

// Two certificates answer the identity; the first has no key on this
// machine and is passed over with its line.  At the most detailed level no
// PIN and no content reaches the trace.
TEST(Develope, PassesOverACertificateWithoutKeyAndTracesNoSecret) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  auto env = w.traced_env(dir);
  std::filesystem::copy(w.local(), dir / "local", std::filesystem::copy_options::recursive);
  env["BV_PLATFORM_LOCAL_APPDATA"] = dir / "local";
  const std::string twin = dir / "local/Brelvantec/Certificates/Twin/";
  write_file(twin + "1-dup.cer", der_of(w.dup_untrusted.cert.get()));
  write_file(twin + "2-dup.cer", der_of(w.dup_good.cert.get()));
  write_file(twin + "2-dup.key", pem_of(w.dup_good.key.get(), "4444"));
  const std::string secret = "Secret salary list";
  const std::string message = openssl_envelope(secret, {&w.dup_good});
  const SignerSpec recipient{"CN=Dup", "Twin", "4444"};
  const Opened got = develope_through_export(env, message, &recipient);
  EXPECT_EQ(got.rc, SSF_OK);
  EXPECT_EQ(got.content, secret);

  EnvelopeRequest request{.data = secret, .ids = {"CN=Alice", "CN=Nobody"}};
  EXPECT_EQ(envelope_through_export(env, request).rc, SSF_ERR_RECIPIENT);
  request.ids = {"CN=Alice"};
  EXPECT_EQ(envelope_through_export(env, request).rc, SSF_OK);

  const std::string log = trace_log(dir);
  const std::vector<std::string> lines = log_messages(log);
  for (const char* line : {"#trace# Can not CertGetCertificateContextProperty. Trying to search another certificate.\n",
                           "Certificate not found\n", "#error#: Some certificates not found\n",
                           // The fixed success text, in code page 1251.
                           "\xC7\xE0\xF8\xE8\xF4\xF0\xEE\xE2\xE0\xED\xED\xEE\xE5 \xF1\xEE\xEE\xE1\xF9\xE5\xED\xE8\xE5 "
                           "\xF3\xF1\xEF\xE5\xF8\xED\xEE \xF1\xEE\xE7\xE4\xE0\xED\xEE.\n"})
    EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end()) << line << log;
  EXPECT_FALSE(contains(log, "4444"));
  EXPECT_FALSE(contains(log, "Secret"));
}

// openssl's envelope opened by the message service with Carol's key: her
// entry opens it, another's fails as CryptoAPI fails and yields no content.
TEST(EnvelopedMessage, WrongRecipientEntryFailsWithoutContent) {
  const SigningWorld& w = SigningWorld::get();
  const std::string enveloped = openssl_envelope("Payment order 43", {&w.alice, &w.carol});
  w.apply_environment();
  bv::platform::CertStore store(
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_OPEN_EXISTING_FLAG, u"My"));
  ASSERT_TRUE(store);
  std::string hash = bytes_of_hex(w.carol.sha1_hex);
  CRYPT_HASH_BLOB blob{static_cast<DWORD>(hash.size()), reinterpret_cast<BYTE*>(hash.data())};
  bv::platform::CertContext carol(CertFindCertificateInStore(store.get(), kEncoding, 0, CERT_FIND_SHA1_HASH, &blob, nullptr));
  ASSERT_TRUE(carol);
  HCRYPTPROV provider = 0;
  DWORD key_spec = 0;
  ASSERT_TRUE(CryptAcquireCertificatePrivateKey(carol.get(), CRYPT_ACQUIRE_SILENT_FLAG, nullptr, &provider, &key_spec,
                                                nullptr));

  bv::platform::MessageHandle message(CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr));
  ASSERT_TRUE(CryptMsgUpdate(message.get(), reinterpret_cast<const BYTE*>(enveloped.data()),
                             static_cast<DWORD>(enveloped.size()), TRUE));
  DWORD carol_index = 2;
  for (DWORD i = 0; i < 2; ++i) {
    DWORD length = 0;
    ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_RECIPIENT_INFO_PARAM, i, nullptr, &length));
    std::vector<BYTE> buffer(length);
    ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_RECIPIENT_INFO_PARAM, i, buffer.data(), &length));
    if (CertCompareIntegerBlob(&carol.get()->pCertInfo->SerialNumber,
                               &reinterpret_cast<CERT_INFO*>(buffer.data())->SerialNumber))
      carol_index = i;
  }
  ASSERT_LT(carol_index, 2u);
  DWORD size = 0;
  CMSG_CTRL_DECRYPT_PARA decrypt{sizeof decrypt, provider, key_spec, 1 - carol_index};
  EXPECT_FALSE(CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &decrypt));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_DATA));
  EXPECT_FALSE(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &size));
  decrypt.dwRecipientIndex = carol_index;
  ASSERT_TRUE(CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &decrypt));
  ASSERT_TRUE(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &size));
  EXPECT_EQ(size, 16u);
  CryptReleaseContext(provider, 0);
}

}  // namespace
}  // namespace bv::test
