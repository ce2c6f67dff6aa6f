// SsfAddSign on messages from SsfSign and from openssl cms: the new signature
// checked by openssl and SsfVerify, the old signers kept byte for byte, the
// time stamp services of the CAdES path, and the refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "cadesmsg/cadesmsg.h"
#include "certs.h"
#include "crypt32/der.h"
#include "crypt32/msg.h"
#include "signing.h"

namespace bv::test {
namespace {

namespace der = bv::platform::der;

const std::string kData = "data to be signed";  // what signed_by_library signs

// The SignerInfos of a message, each as its DER.
std::vector<std::string> signer_infos(const std::string& message) {
  std::vector<der::Element> content_info, fields, signers;
  std::vector<std::string> out;
  if (!der::signed_data_fields(message, &content_info, &fields) || !der::children(message, fields.back(), &signers))
    return out;
  for (const der::Element& e : signers) out.emplace_back(e.in(message));
  return out;
}

UniquePtr<CMS_ContentInfo> parsed(const std::string& message) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(message.data());
  return UniquePtr<CMS_ContentInfo>(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(message.size())));
}

int certificate_count(const std::string& message) {
  UniquePtr<CMS_ContentInfo> cms = parsed(message);
  UniquePtr<STACK_OF(X509)> certs(cms ? CMS_get1_certs(cms.get()) : nullptr);
  return certs ? sk_X509_num(certs.get()) : 0;
}

bool is_x_long_type_1(const std::string& message, DWORD signer) {
  bv::platform::MessageHandle decoded(CryptMsgOpenToDecode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, 0, nullptr, nullptr));
  BOOL is_type = FALSE;
  return CryptMsgUpdate(decoded.get(), reinterpret_cast<const BYTE*>(message.data()), static_cast<DWORD>(message.size()),
                        TRUE) &&
         CadesMsgIsType(decoded.get(), signer, CADES_X_LONG_TYPE_1, &is_type) && is_type;
}

// What every successful addition must show: the old signers untouched and
// first, one more signer, accepted by openssl and by SsfVerify.
void expect_added(const std::string& before, const AddSigned& added, const std::string* content) {
  ASSERT_EQ(added.rc, SSF_OK);
  EXPECT_EQ(added.result, SSF_RES_OK);
  const std::vector<std::string> old_signers = signer_infos(before), new_signers = signer_infos(added.message);
  ASSERT_EQ(new_signers.size(), old_signers.size() + 1);
  for (size_t i = 0; i < old_signers.size(); ++i) EXPECT_EQ(new_signers[i], old_signers[i]) << "signer " << i;
  const SigningWorld& w = SigningWorld::get();
  std::string diagnostics;
  EXPECT_EQ(openssl_cms_verify(added.message, w.root.cert_pem, w.signers_pem, content, nullptr, &diagnostics), 0)
      << diagnostics;
  // The signers' certificates are also in My: a signer added without its
  // certificate is found there.
  const Verified v = verify_through_export(w.env(), "PKCS7_ANY", added.message, content, "My");
  EXPECT_EQ(v.rc, SSF_OK);
  EXPECT_EQ(v.records.size(), new_signers.size());
  for (const SignerRecord& r : v.records) EXPECT_EQ(r.result, SSF_RES_OK) << r.id;
}

// The CAdES path: the new signer raised to X Long Type 1 by the default
// service, else by the first additional one only.
TEST(AddSign, CadesSignerAndItsTimeStampServices) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  std::filesystem::create_directories(dir / "a");
  std::filesystem::create_directories(dir / "b");
  TimeStampServer a(dir / "a", w.tsa.cert_pem, w.dir / "pki/tsa.key");
  TimeStampServer b(dir / "b", w.tsa.cert_pem, w.dir / "pki/tsa.key");
  HttpServer down;
  down.stop();
  const std::string off = down.url("/tsa");
  const std::string cades = signed_by_library("CADES", false, true, {{"CN=Alice", "", "1111"}}, a.url());

  struct Case {
    const char* name;
    std::string default_tsp;
    std::vector<std::string> additional;
    uint32_t rc;
    std::vector<std::string> traced;
  };
  const Case cases[] = {
      {"default up", a.url(), {b.url()}, SSF_OK, {"with default TSP...", "Enhanced signature is added"}},
      {"default down, first additional up", off, {a.url(), b.url()}, SSF_OK, {"additional TSP = " + a.url()}},
      {"default down, none additional", off, {}, SSF_ERR_ENCODE,
       {"#error#: Failed to add enhanced signature to cades message.", "!!!!!!!!!!!!!!!!#error#"}},
      {"default and first additional down", off, {off, b.url()}, SSF_ERR_ENCODE,
       {"additional TSP = " + off, "Failed to add enhanced signature to cades message. res1 = 0x0"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir traced;
    auto env = w.traced_env(traced);
    env["BV_CADES_DEFAULT_TSP"] = c.default_tsp;
    env["BV_PLATFORM_URL_TIMEOUT_MS"] = "1000";
    std::string additional;
    for (const std::string& address : c.additional) additional += (additional.empty() ? "" : ";") + address;
    env["BV_SSF_ADD_TSP"] = additional;
    const int b_before = b.requests();
    const AddSigned added = add_sign_through_export(env, "CADES", cades, nullptr, {"CN=Bob", "", "2222"}, false);
    EXPECT_EQ(added.rc, c.rc);
    EXPECT_EQ(added.result, SSF_RES_OK);  // the signer was found, whatever became of the message
    EXPECT_EQ(b.requests(), b_before);    // the second additional service is never asked
    const std::string log = trace_log(traced);
    for (const std::string& line : c.traced) EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    if (c.rc != SSF_OK) {
      EXPECT_TRUE(added.message.empty());
      continue;
    }
    expect_added(cades, added, nullptr);
    EXPECT_TRUE(is_x_long_type_1(added.message, 0));
    EXPECT_TRUE(is_x_long_type_1(added.message, 1));
    EXPECT_EQ(certificate_count(added.message), certificate_count(cades));  // no certificate on this path
  }
}

// A plain signer on messages of ours and of openssl cms, the refusals and
// the record; the signer's search has trace texts of its own, the two key
// lines at level 2, and no PIN reaches the trace.
TEST(AddSign, PlainSignerRefusalsAndTheRecord) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  TimeStampServer tsa(dir.path(), w.tsa.cert_pem, w.dir / "pki/tsa.key");
  const SignerSpec alice{"CN=Alice", "", "1111"}, bob{"CN=Bob", "", "2222"}, carol{"CN=Carol", "", ""};
  const auto by = [](const TestCert& c) { return std::vector<std::pair<std::string, EVP_PKEY*>>{{c.cert_pem, c.key.get()}}; };
  const std::string attached = signed_by_library("PKCS7", false, true, {alice});
  const std::string detached = signed_by_library("PKCS7", true, true, {alice});
  const std::string cades = signed_by_library("CADES", false, true, {alice}, tsa.url());
  const std::string other = "other data";
  struct Case {
    const char* name;
    std::string format, message;
    const std::string* input;
    SignerSpec signer;
    bool include_certs;
    uint32_t rc;
    int32_t result;  // 99: untouched
    int level = 0;  // of the trace, whose lines stand in this order
    std::vector<std::string> traced = {};
  };
  const Case cases[] = {
      {"ours, detached", "PKCS7", signed_by_library("PKCS7", true, true, {carol}), &kData, bob, true, SSF_OK, 0},
      {"ours, two signers", "PKCS7", signed_by_library("PKCS7", false, true, {bob, alice}), nullptr, carol, true, SSF_OK, 0},
      {"openssl, no attributes", "PKCS7", signed_by_openssl(by(w.carol), kData, "-noattr -nodetach"), nullptr, bob, true,
       SSF_OK, 0},
      {"openssl, attributes, detached", "PKCS7", signed_by_openssl(by(w.bob), kData, ""), &kData, carol, true, SSF_OK, 0},
      {"openssl, CAdES-BES", "PKCS7", signed_by_openssl(by(w.alice), kData, "-cades -nodetach"), nullptr, carol, true,
       SSF_OK, 0},
      {"PKCS7_ANY on a CAdES message: a plain signer", "PKCS7_ANY", cades, nullptr, bob, true, SSF_OK, 0},
      {"no certificate asked for", "PKCS7", attached, nullptr, bob, false, SSF_OK, 0},
      {"the signer's certificate already there", "PKCS7", attached, nullptr, alice, true, SSF_OK, 0},
      {"input given and equal", "PKCS7", attached, &kData, bob, true, SSF_OK, 0},
      {"an untrusted twin passed over", "PKCS7", attached, nullptr, {"CN=Dup", "", "4444"}, true, SSF_OK, 0, 4,
       {"#info#: accept isCades='0'", "#trace# Search Signer's certificate.",
        "#trace# One of Signer's certificate found, but it isn't valid. Skipping... Check result = 0x",
        "#trace# Private Key successfully acquired.", "#trace#: trying to add signature to message.",
        "#info#: Signature is added to message.", "#success#"}},
      {"input differs", "PKCS7", attached, &other, bob, true, SSF_ERR_INPUT, 99},
      {"detached without input", "PKCS7", detached, nullptr, bob, true, SSF_ERR_INPUT, 99},
      {"not a message", "PKCS7", kData, nullptr, bob, true, SSF_ERR_DECODE, 99},
      {"unknown format", "XML", attached, nullptr, bob, true, SSF_ERR_FORMAT, 99},
      {"blank identity", "PKCS7", attached, nullptr, {"   ", "", ""}, true, SSF_ERR_SIGNER, 22},
      {"nobody of that name", "PKCS7", attached, nullptr, {"CN=Nobody", "", ""}, true, SSF_ERR_SIGNER, 22},
      {"wrong PIN, at level 2", "PKCS7", attached, nullptr, {"CN=Alice", "", "9731"}, true, SSF_ERR_SIGNER, 25, 2,
       {"#info#: Searched userID (CN=Alice)",
        "#info# Can not Acquire Private Key with supplied pin code. Trying to search another certificate.",
        "#error#: Signer's certificate with supplied pin code not found", "!!!!!!!!!!!!!!!!#error#"}},
      {"no such store", "PKCS7", attached, nullptr, {"CN=Bob", "NoSuchStore", "2222"}, true, SSF_ERR_SIGNER, 24, 4,
       {"#trace# Signer's Store = NoSuchStore.", "#error#: Invalid Store in user's profile"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir traced;
    auto env = c.traced.empty() ? w.env() : w.traced_env(traced, c.level);
    env["BV_CADES_DEFAULT_TSP"] = tsa.url();
    const AddSigned added = add_sign_through_export(env, c.format, c.message, c.input, c.signer, c.include_certs);
    EXPECT_EQ(added.rc, c.rc);
    EXPECT_EQ(added.result, c.result);
    EXPECT_EQ(added.message.empty(), c.rc != SSF_OK);
    const std::string log = trace_log(traced);
    size_t position = 0;
    for (const std::string& line : c.traced) {
      if ((position = log.find(line, position)) == std::string::npos) {
        ADD_FAILURE() << "missing or out of order: " << line << "\n" << log;
        break;
      }
    }
    if (!c.traced.empty()) {
      EXPECT_EQ(log.find(c.signer.pin), std::string::npos) << log;
    }
    if (c.rc != SSF_OK) continue;
    expect_added(c.message, added, c.input);
    // Only Alice has signed before; her certificate is there already.
    const bool certificate_added = c.include_certs && c.signer.id != alice.id;
    EXPECT_EQ(certificate_count(added.message), certificate_count(c.message) + (certificate_added ? 1 : 0));
    // The new signer has no signed attributes: it signs the content itself.
    UniquePtr<CMS_ContentInfo> cms = parsed(added.message);
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms.get());
    const int last = sk_CMS_SignerInfo_num(signers) - 1;
    EXPECT_LT(CMS_signed_get_attr_count(sk_CMS_SignerInfo_value(signers, last)), 0);
    EXPECT_FALSE(is_x_long_type_1(added.message, static_cast<DWORD>(last)));
  }
}

}  // namespace
}  // namespace bv::test
