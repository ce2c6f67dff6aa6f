// SsfVerify as a host calls it, on messages from SsfSign and from openssl
// cms, good and damaged: the code, the content and every signer's record.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "certs.h"
#include "crypt32/msg.h"
#include "signing.h"

namespace bv::test {
namespace {

// The stores of the test world copied into `folder`, to be changed there.
std::map<std::string, std::string> copied_stores(const std::string& folder) {
  const SigningWorld& w = SigningWorld::get();
  std::filesystem::copy(w.local(), folder, std::filesystem::copy_options::recursive);
  return w.env({{"BV_PLATFORM_LOCAL_APPDATA", folder}});
}

std::string flip_byte(std::string message, const std::string& inside) {
  message[message.find(inside) + inside.size() / 2] ^= 0x01;
  return message;
}

// Messages of ours and of openssl cms, good and damaged, under stores that
// trust, revoke or know nothing.  A chain the policy refuses gets the CAdES
// verifier's second try, whose pass counts only when no signer follows.
TEST(Verify, MessagesAndTheirRecords) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir, nowhere;
  TimeStampServer tsa(dir.path(), w.tsa.cert_pem, w.dir / "pki/tsa.key");
  const std::string data = "data to be signed";  // what signed_by_library signs
  const SignerSpec alice{"CN=Alice", "", "1111"}, bob{"CN=Bob", "", "2222"}, carol{"CN=Carol", "", ""};
  const std::string pkcs7 = signed_by_library("PKCS7", false, true, {alice, bob});
  const std::string detached = signed_by_library("PKCS7", true, true, {carol});
  const std::string bare = signed_by_library("PKCS7", false, false, {alice});
  const std::string cades = signed_by_library("CADES", false, false, {bob}, tsa.url());
  const std::string cades_one = signed_by_library("CADES", false, true, {alice}, tsa.url());
  const std::string cades_two = signed_by_library("CADES", false, true, {alice, bob}, tsa.url());
  const auto carol_signs = std::vector<std::pair<std::string, EVP_PKEY*>>{{w.carol.cert_pem, w.carol.key.get()}};
  const std::string by_openssl = signed_by_openssl(carol_signs, data, "-noattr -nodetach");
  const std::string by_openssl_cades = signed_by_openssl(carol_signs, data, "-cades -nodetach");
  const std::string by_openssl_two =
      signed_by_openssl({{w.bob.cert_pem, w.bob.key.get()}, {w.alice.cert_pem, w.alice.key.get()}}, data, "-nodetach");
  const std::string by_openssl_detached = signed_by_openssl({{w.bob.cert_pem, w.bob.key.get()}}, data, "");
  const std::string by_openssl_nocerts = signed_by_openssl(carol_signs, data, "-nodetach -nocerts");
  // Alice's key under a certificate that expired yesterday.
  const UniquePtr<X509> expired = issue_certificate(
      {.subject = {{"CN", "Expired"}}, .serial = 77, .not_before = -10 * kDay, .not_after = -kDay}, w.alice.key.get(),
      w.root.cert.get(), w.root.key.get());
  write_file(dir / "expired.pem", pem_of(expired.get()));
  const std::string by_expired = signed_by_openssl({{dir / "expired.pem", w.alice.key.get()}}, data, "-nodetach");
  // Alice's key under a certificate whose OCSP responder says revoked; the
  // stores hold no CRL, which would be asked first.
  // The same key under a twin that the responder calls good shows it is the
  // answer that decides, not a missing one.
  const auto ocsp_issued = [&](const char* name, long serial, const std::string& url) {
    return issue_certificate({.subject = {{"CN", name}}, .serial = serial, .ocsp_url = url}, w.alice.key.get(),
                             w.root.cert.get(), w.root.key.get());
  };
  OcspResponder responder(dir / "ocsp", w.root.cert.get(), w.root.key.get(),
                          {{ocsp_issued("Revoked by OCSP", 78, "").get(), true}, {ocsp_issued("Good by OCSP", 79, "").get(), false}});
  std::string by_ocsp[2];
  UniquePtr<X509> ocsp_signer[2];
  for (const auto& [i, name, serial] : {std::tuple{0, "Revoked by OCSP", 78L}, std::tuple{1, "Good by OCSP", 79L}}) {
    ocsp_signer[i] = ocsp_issued(name, serial, responder.url());
    write_file(dir / "ocsp.pem", pem_of(ocsp_signer[i].get()));
    by_ocsp[i] = signed_by_openssl({{dir / "ocsp.pem", w.alice.key.get()}}, data, "-nodetach");
  }
  // Without the root's CRL the chain policy can't learn the signers' status
  // and refuses them; the CAdES verifier judges them by the CRL the message carries.
  const auto without_store_crl = copied_stores(dir / "no-crl");
  std::filesystem::remove(dir / "no-crl/Brelvantec/Certificates/Root/root.crl");
  const std::map<std::string, std::string> untrusting = {{"BV_PLATFORM_LOCAL_APPDATA", nowhere / "local"},
                                                         {"BV_PLATFORM_COMMON_APPDATA", nowhere / "common"}};
  // A signed attribute changed: a digit of the signing time.
  const std::string signing_time_oid("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x09\x05", 11);
  std::string changed_attribute = by_openssl_cades;
  changed_attribute[changed_attribute.find(signing_time_oid) + 11 + 4 + 2] ^= 0x01;
  // The content-type attribute's value, pkcs7-data, turned into another type.
  std::string wrong_type = cades_one;
  const std::string data_oid("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01", 11);
  wrong_type[wrong_type.find(data_oid, wrong_type.find(data_oid) + 1) + 10] = 0x02;
  // No signer, content included (CMS_final refuses it: the content is set by hand).
  UniquePtr<CMS_ContentInfo> unsigned_cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_BINARY | CMS_PARTIAL));
  CMS_set_detached(unsigned_cms.get(), 0);
  ASN1_OCTET_STRING_set(*CMS_get0_content(unsigned_cms.get()), reinterpret_cast<const unsigned char*>(data.data()),
                        static_cast<int>(data.size()));
  const std::string without_signers = der_of(unsigned_cms.get());

  const auto plain_env = w.env();
  const auto by_hash = w.env({{"BV_SSF_USERID", "CERT_HASH"}});
  const std::string alice_hash = hex_of(bytes_of_hex(w.alice.sha1_hex), ' ');  // lower-case pairs, one blank between
  const auto with_addressbook = copied_stores(dir / "book");
  write_file(dir / "book/Brelvantec/Certificates/Addressbook/carol.cer", der_of(w.carol.cert.get()));
  const auto alice_revoked = copied_stores(dir / "revoked");
  write_file(dir / "revoked/Brelvantec/Certificates/Root/root.crl",
             der_of(issue_crl(w.root.cert.get(), w.root.key.get(),
                              {ASN1_INTEGER_get(X509_get0_serialNumber(w.alice.cert.get()))})
                        .get()));

  struct Case {
    const char* name;
    std::string format, message;
    const std::string* input;
    std::string pab;
    uint32_t rc;
    std::vector<int32_t> results;
    const char* id_part;  // in the first record's identifier
    X509* signer;  // the certificate in the first record
    const std::map<std::string, std::string>* env = nullptr;  // the test world's when null
    std::vector<std::string> traced = {};  // in this order in the trace, when not empty
  };
  const std::string other = "other data";
  const std::string changed_content = flip_byte(pkcs7, data);
  const Case cases[] = {
      {"two signers", "PKCS7", pkcs7, nullptr, "", SSF_OK, {0, 0}, "CN=Alice", w.alice.cert.get()},
      {"detached with its content", "PKCS7", detached, &data, "", SSF_OK, {0}, "CN=Carol", w.carol.cert.get()},
      {"detached without content", "PKCS7", detached, nullptr, "", SSF_ERR_INPUT, {}, "", nullptr},
      {"no certificate anywhere", "PKCS7", bare, nullptr, "", SSF_ERR_SIGNER, {26}, "Noserialnumber", nullptr, nullptr,
       {"#trace#: Check signer # 0", "Certificate not found", "#error#: 80092004",
        "#error#: Failed to verify signature # 0 with CertID=issuer-name/Noserialnumber", "#error#!!!"}},
      {"certificate in the named store", "PKCS7", bare, nullptr, "My", SSF_OK, {0}, "CN=Alice", w.alice.cert.get()},
      {"content changed", "PKCS7", changed_content, nullptr, "", SSF_ERR_SIGNER, {27, 27}, "CN=Alice", w.alice.cert.get()},
      {"given input differs", "PKCS7", pkcs7, &other, "", SSF_ERR_INPUT, {0, 0}, "CN=Alice", w.alice.cert.get()},
      {"not a message", "PKCS7", data, nullptr, "", SSF_ERR_DECODE, {}, "", nullptr},
      {"CAdES", "CADES", cades, nullptr, "", SSF_OK, {0}, "CN=Bob", w.bob.cert.get()},
      {"CAdES found by PKCS7_ANY", "PKCS7_ANY", cades, nullptr, "", SSF_OK, {0}, "CN=Bob", w.bob.cert.get(), nullptr,
       {"#info#: accept isCades='0'", "#info#: Pab undefined!!!", "#info#: Checking for PKCS7_ANY format. isCades = 1",
        "#trace#: Check signer # 0", "#info#: signer's signature # 0 - OK with CertID=", "#success#"}},
      {"CAdES, given input differs", "CADES", cades_one, &other, "", SSF_ERR_INPUT, {0}, "CN=Alice", w.alice.cert.get(),
       nullptr, {"#info#: signer's signature # 0 - OK", "#error#: Input data is different from content data", "#error#!!!"}},
      {"CAdES, content type disagrees", "CADES", wrong_type, nullptr, "", SSF_ERR_SIGNER, {28}, "CN=Alice", w.alice.cert.get()},
      {"openssl, no attributes", "PKCS7", by_openssl, nullptr, "", SSF_OK, {0}, "CN=Carol", w.carol.cert.get()},
      {"openssl, CAdES-BES", "PKCS7", by_openssl_cades, nullptr, "", SSF_OK, {0}, "CN=Carol", w.carol.cert.get()},
      {"openssl, two signers", "PKCS7", by_openssl_two, nullptr, "", SSF_OK, {0, 0}, "CN=Alice", w.alice.cert.get()},
      {"openssl, detached", "PKCS7_ANY", by_openssl_detached, &data, "", SSF_OK, {0}, "CN=Bob", w.bob.cert.get()},
      {"openssl, certificate in Addressbook", "PKCS7", by_openssl_nocerts, nullptr, "", SSF_OK, {0}, "CN=Carol", w.carol.cert.get(),
       &with_addressbook},
      {"openssl, signed attribute changed", "PKCS7", changed_attribute, nullptr, "", SSF_ERR_SIGNER, {27}, "CN=Carol", w.carol.cert.get()},
      {"openssl, signer expired", "PKCS7", by_expired, nullptr, "", SSF_ERR_SIGNER, {22}, "CN=Expired", expired.get()},
      {"identifier as the certificate's hash", "PKCS7", bare, nullptr, "My", SSF_OK, {0}, alice_hash.c_str(), w.alice.cert.get(), &by_hash},
      {"signer revoked by CRL", "PKCS7", pkcs7, nullptr, "", SSF_ERR_SIGNER, {22, 0}, "CN=Alice", w.alice.cert.get(), &alice_revoked},
      {"signer revoked by OCSP", "PKCS7", by_ocsp[0], nullptr, "", SSF_ERR_SIGNER, {22}, "CN=Revoked", ocsp_signer[0].get(), &without_store_crl},
      {"signer good by OCSP", "PKCS7", by_ocsp[1], nullptr, "", SSF_OK, {0}, "CN=Good", ocsp_signer[1].get(), &without_store_crl},
      {"second try passes, last signer", "PKCS7", cades_one, nullptr, "", SSF_OK, {0}, "CN=Alice", w.alice.cert.get(),
       &without_store_crl},
      {"second try passes, a signer behind it", "PKCS7", cades_two, nullptr, "", SSF_ERR_SIGNER, {0, 0}, "CN=Alice",
       w.alice.cert.get(), &without_store_crl},
      {"untrusted root, second try fails", "PKCS7", pkcs7, nullptr, "", SSF_ERR_SIGNER, {22, 22}, "CN=Alice", w.alice.cert.get(),
       &untrusting},
      {"no signer", "PKCS7", without_signers, nullptr, "", SSF_ERR_SIGNER, {}, "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir traced;
    const auto env = c.traced.empty() ? (c.env != nullptr ? *c.env : plain_env) : w.traced_env(traced);
    const Verified v = verify_through_export(env, c.format, c.message, c.input, c.pab);
    EXPECT_EQ(v.rc, c.rc);
    std::vector<int32_t> results;
    for (const SignerRecord& r : v.records) results.push_back(r.result);
    EXPECT_EQ(results, c.results);
    if (!v.records.empty()) {
      EXPECT_NE(v.records[0].id.find(c.id_part), std::string::npos) << v.records[0].id;
      EXPECT_EQ(v.records[0].certificate, c.signer != nullptr ? der_of(c.signer) : "");
    }
    // The content comes back whenever the message was read, damaged or not.
    if (c.rc == SSF_OK || c.rc == SSF_ERR_SIGNER) {
      EXPECT_EQ(v.content, c.message == changed_content ? flip_byte(data, data) : data);
    }
    // A CAdES record carries both times: the signing time, then behind a
    // zero byte the time stamp's.
    if (c.format == "CADES" && c.rc == SSF_OK) {
      const std::string& times = v.records.at(0).times;
      EXPECT_EQ(times.rfind("SigningTime= ", 0), 0u) << times;
      EXPECT_NE(times.find("Z)|SigningTime= "), std::string::npos) << times;
      EXPECT_NE(times.find(" extracted from timestamp"), std::string::npos) << times;
    }
    const std::string log = trace_log(traced);
    size_t at = 0;
    for (const std::string& line : c.traced) {
      if ((at = log.find(line, at)) == std::string::npos) {
        ADD_FAILURE() << "missing or out of order: " << line << "\n" << log;
        break;
      }
    }
  }

  // A host process that has done nothing else before (certificates in the
  // message are parsed before anything else loads the GOST engine).
  write_file(dir / "m.cades", cades_one);
  std::string command;
  for (const auto& [name, value] : w.env()) command += name + "='" + value + "' ";
  const std::string said = run_command(command + BV_TOOLS_DIR "/bvssf verify CADES '" + (dir / "m.cades") + "' 2>&1");
  EXPECT_NE(said.find("signer 1: OK (0)"), std::string::npos) << said;
}

}  // namespace
}  // namespace bv::test
