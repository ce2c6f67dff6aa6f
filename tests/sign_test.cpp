// Signed messages and bare signatures, each checked by OpenSSL's own
// command line against the test root.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "signing.h"

namespace bv::test {
namespace {

const std::string kGost94 = "1.2.643.2.2.9";
const std::string kGost12_256 = "1.2.643.7.1.1.2.2";
const std::string kGost12_512 = "1.2.643.7.1.1.2.3";

int count_of(const std::string& text, const std::string& what) {
  int count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// Whether what follows each `label` in OpenSSL's print is "<ABSENT>".
std::vector<bool> absent_after(const std::string& printed, const std::string& label) {
  std::vector<bool> absent;
  for (size_t at = printed.find(label); at != std::string::npos; at = printed.find(label, at + 1)) {
    const size_t value = printed.find_first_not_of(" \n", at + label.size());
    absent.push_back(printed.compare(value, 8, "<ABSENT>") == 0);
  }
  return absent;
}

void expect_message(const std::string& message, const std::string& data, bool detached, bool with_certs,
                    const std::vector<std::string>& hash_oids) {
  // `openssl cms -verify` against the test root, then what OpenSSL reads in
  // the message: its signers' digests, attributes and certificates.
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  const std::string in = " -inform DER -in '" + (dir / "m.der") + "'";
  write_file(dir / "m.der", message);
  write_file(dir / "content.in", data);
  run_checked("openssl cms -verify -engine gost -binary" + in + " -CAfile '" + w.root.cert_pem + "' -purpose any" +
              (with_certs ? "" : " -certfile '" + w.signers_pem + "'") +
              (detached ? " -content '" + (dir / "content.in") + "'" : "") + " -out '" + (dir / "out") + "' 2>&1");
  EXPECT_EQ(read_file(dir / "out"), data);
  const std::string printed = run_checked("openssl cms -engine gost -cmsout -print" + in + " 2>/dev/null");
  const size_t signers = hash_oids.size();
  EXPECT_EQ(count_of(printed, "signatureAlgorithm:"), static_cast<int>(signers)) << printed;
  // Each signer's hash appears among the digest algorithms and in its
  // SignerInfo.
  for (const std::string& oid : hash_oids) EXPECT_GE(count_of(printed, "(" + oid + ")"), 2) << oid;
  // SignerInfos come in the order of the signer list, not sorted as DER
  // would have a SET OF.
  std::vector<std::string> order;
  const size_t signer_infos = printed.find("signerInfos:");
  for (size_t at = printed.find("digestAlgorithm:", signer_infos); at != std::string::npos;
       at = printed.find("digestAlgorithm:", at + 1)) {
    const size_t open = printed.find('(', at), close = printed.find(')', open);
    order.push_back(printed.substr(open + 1, close - open - 1));
  }
  EXPECT_EQ(order, hash_oids) << printed;
  EXPECT_EQ(absent_after(printed, " signedAttrs:"), std::vector<bool>(signers, true)) << printed;
  EXPECT_EQ(absent_after(printed, "eContent:"), std::vector<bool>{detached});
  EXPECT_EQ(absent_after(printed, "certificates:"), std::vector<bool>{!with_certs});
  if (with_certs) {
    // One certificate per distinct signer: a certificate given twice goes in once.
    const int distinct = static_cast<int>(std::set<std::string>(hash_oids.begin(), hash_oids.end()).size());
    EXPECT_EQ(count_of(printed, "cert_info:"), distinct) << printed;
  }
}

TEST(SignMessages, AcceptedByOpenssl) {
  const SigningWorld& w = SigningWorld::get();
  const SignerSpec alice{"CN=Alice", "", "1111"}, bob{"CN=Bob", "", "2222"}, carol{"CN=Carol", "", ""};
  const struct {
    std::string format;
    std::vector<SignerSpec> signers;
    bool certs, detached;
    std::vector<std::string> digests;
  } cases[] = {
      {"PKCS7", {alice}, true, false, {kGost12_256}},
      {"PKCS7", {alice}, false, false, {kGost12_256}},
      {"PKCS7", {alice}, true, true, {kGost12_256}},
      {"PKCS7", {bob}, false, true, {kGost12_512}},
      {"PKCS7_ANY", {carol}, true, false, {kGost94}},
      {"PKCS7", {carol, alice, bob}, true, false, {kGost94, kGost12_256, kGost12_512}},
      {"PKCS7", {bob, carol}, false, true, {kGost12_512, kGost94}},
      {"PKCS7", {bob, alice, carol}, true, true, {kGost12_512, kGost12_256, kGost94}},
      {"PKCS7", {alice, alice}, true, false, {kGost12_256, kGost12_256}},
      // Of two with one name, the one whose chain holds signs.
      {"PKCS7", {{"CN=Dup", "", "4444"}}, true, false, {kGost12_256}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format + " signers " + std::to_string(c.signers.size()) + (c.certs ? " certs" : "") +
                 (c.detached ? " detached" : ""));
    const SignRequest request{.format = c.format, .signers = c.signers, .include_certs = c.certs,
                              .detached = c.detached, .data = "Payment order No. 17\n\x01\x02\xFF binary tail"};
    const SignOutcome outcome = sign_through_export(w.env(), request);
    ASSERT_EQ(outcome.rc, SSF_OK) << outcome.child_stderr;
    EXPECT_EQ(outcome.results, std::vector<int32_t>(c.signers.size(), 0));
    expect_message(outcome.signed_data, request.data, c.detached, c.certs, c.digests);
  }
}

// The bare value comes in the provider's order, the reverse of the order in
// CMS; reversed, OpenSSL accepts it over the same data.
TEST(SignRaw, ReversedValueVerifies) {
  const SigningWorld& w = SigningWorld::get();
  const struct {
    SignerSpec signer;
    const TestCert* cert;
    const char* digest;
    size_t length;
  } cases[] = {
      {{"CN=Alice", "", "1111"}, &w.alice, "md_gost12_256", 64},
      {{"CN=Bob", "", "2222"}, &w.bob, "md_gost12_512", 128},
      {{"CN=Carol", "", ""}, &w.carol, "md_gost94", 64},
  };
  TempDir dir;
  const std::string data = "bare signature data";
  write_file(dir / "data", data);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.signer.id);
    const std::string public_key = dir / "public.pem";
    run_checked("openssl x509 -engine gost -pubkey -noout -in '" + c.cert->cert_pem + "' > '" + public_key +
                "' 2>/dev/null");
    const auto verifies = [&](const std::string& signature) {
      write_file(dir / "signature", signature);
      int status = -1;
      run_command("openssl dgst -engine gost -" + std::string(c.digest) + " -verify '" + public_key +
                      "' -signature '" + (dir / "signature") + "' '" + (dir / "data") + "' 2>&1",
                  &status);
      return status == 0;
    };
    for (const bool certs_and_detached : {false, true}) {
      SignRequest request;
      request.signers = {c.signer};
      request.data = data;
      request.include_certs = request.detached = certs_and_detached;
      request.format = "RAW_GOST";
      const SignOutcome raw = sign_through_export(w.env(), request);
      request.format = "RAW_GOST_INVERTED";
      const SignOutcome inverted = sign_through_export(w.env(), request);
      ASSERT_EQ(raw.rc, SSF_OK) << raw.child_stderr;
      ASSERT_EQ(inverted.rc, SSF_OK) << inverted.child_stderr;
      EXPECT_EQ(raw.signed_data.size(), c.length);
      EXPECT_EQ(inverted.signed_data.size(), c.length);
      std::string reversed(raw.signed_data.rbegin(), raw.signed_data.rend());
      EXPECT_TRUE(verifies(reversed));
      EXPECT_TRUE(verifies(inverted.signed_data));
      EXPECT_FALSE(verifies(raw.signed_data));
    }
  }
}

}  // namespace
}  // namespace bv::test
