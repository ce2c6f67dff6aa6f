// Finding a signer's certificate and key through SsfSign, against real
// stores: profiles, identities, the chain policy, PINs and key links; and the
// signed messages and bare signatures made, each checked by OpenSSL's own
// command line against the test root.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "signing.h"

namespace bv::test {
namespace {

constexpr int32_t kUntouched = 99;  // what the test's records start with

SignOutcome sign_one(const SignerSpec& signer, const std::map<std::string, std::string>& extra = {}) {
  const SigningWorld& world = SigningWorld::get();
  SignRequest request;
  request.signers = {signer};
  return sign_through_export(world.env(extra), request);
}

// One signer a call: the store its profile names, the identity forms, PINs
// and key links, and the chain policy of the settings.
TEST(Lookup, OneSignerAgainstTheStores) {
  const SigningWorld& w = SigningWorld::get();
  const std::string spaced_lower = hex_of(bytes_of_hex(w.bob.sha1_hex), ' ');
  // The provider's way of asking when there is no terminal: a helper that
  // answers with Alice's PIN.
  TempDir helper_dir;
  const std::string askpass = helper_dir / "askpass";
  write_file(askpass, "#!/bin/sh\necho 1111\n");
  run_checked("chmod +x '" + askpass + "'");
  const std::map<std::string, std::string> ask{{"BV_PLATFORM_ASKPASS", askpass}};
  const struct {
    const char* what;
    SignerSpec signer;  // id, profile, PIN
    std::map<std::string, std::string> settings;
    int32_t result;
  } cases[] = {
      {"default store: My of the current user", {"CN=Alice", "", "1111"}, {}, 0},
      {"My", {"CN=Alice", "My", "1111"}, {}, 0},
      {"uMy", {"CN=Alice", "uMy", "1111"}, {}, 0},
      {"local machine", {"CN=Dave", "mMy", "6666"}, {}, 0},
      {"not in the machine's My", {"CN=Alice", "mMy", "1111"}, {}, 22},
      {"\"m\" taken as the location: machine store \"y\"", {"CN=Erin", "my", "7777"}, {}, 0},
      {"a tag before the store", {"CN=Bob", "<TIME>Other", "2222"}, {}, 0},
      {"14 digits skipped", {"CN=Bob", "12345678901234Other", "2222"}, {}, 0},
      {"exactly 14 digits: the whole name", {"CN=Carol", "12345678901234", ""}, {}, 0},
      {"no such store", {"CN=Alice", "NoSuchStore", "1111"}, {}, 24},
      {"hash, spaced and lower case", {"  " + spaced_lower + "\t", "", "2222"}, {}, 0},
      {"order of items doesn't matter", {"O=Test Bank, CN=Bob", "", "2222"}, {}, 0},
      {"an item the subject lacks", {"CN=Bob, L=Moscow", "", "2222"}, {}, 22},
      {"blanks only", {"   ", "", "2222"}, {}, 22},
      {"value missing: identity refused", {"CN=Bob, O=", "", "2222"}, {}, 22},
      {"odd digit: no hash, identity refused", {w.bob.sha1_hex + "0", "", "2222"}, {}, 22},
      {"wrong PIN", {"CN=Alice", "", "0000"}, {}, 25},
      {"no PIN for a key that needs one", {"CN=Alice", "", ""}, {}, 25},
      {"a key without PIN, PIN given anyway", {"CN=Carol", "", "whatever"}, {}, 0},
      {"no key link", {"CN=NoKey", "", ""}, {}, 22},
      // "!" to "!!!" leave the asking to the provider; four are a PIN.
      {"marker, nobody to ask", {"CN=Alice", "", "!"}, {}, 24},
      {"marker, asked", {"CN=Alice", "", "!!!"}, ask, 0},
      {"four marks are a PIN", {"CN=Alice", "", "!!!!"}, ask, 25},
      {"empty, asking allowed", {"CN=Alice", "", ""}, {{"BV_PLATFORM_ASKPASS", askpass}, {"BV_SSF_ASK_PIN_WHEN_EMPTY", "yes"}}, 0},
      {"untrusted one skipped for a later good one", {"CN=Dup", "", "4444"}, {}, 0},
      {"untrusted only", {"CN=Lonely", "", "5555"}, {}, 22},
      {"no chain built when off", {"CN=Lonely", "", "5555"}, {{"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "no"}}, 0},
      {"any other word keeps it on", {"CN=Lonely", "", "5555"}, {{"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "off"}}, 22},
      // One bit in common with the status is enough, whatever else is set.
      {"untrusted root accepted", {"CN=Lonely", "", "5555"}, {{"BV_SSF_VERIFYCERTACCEPTABLESTATUS", "20"}}, 0},
      {"unrelated bit", {"CN=Lonely", "", "5555"}, {{"BV_SSF_VERIFYCERTACCEPTABLESTATUS", "1"}}, 22},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const SignOutcome outcome = sign_one(c.signer, c.settings);
    ASSERT_EQ(outcome.results.size(), 1u);
    EXPECT_EQ(outcome.results[0], c.result);
    EXPECT_EQ(outcome.rc, c.result == 0 ? SSF_OK : SSF_ERR_SIGNER);
  }
}

TEST(Lookup, ListAndArgumentFailures) {
  const SigningWorld& w = SigningWorld::get();
  struct Case {
    const char* what;
    SignRequest request;
    uint32_t rc;
    std::vector<int32_t> results;
  };
  const SignerSpec alice{"CN=Alice", "", "1111"}, bob{"CN=Bob", "", "2222"};
  const auto request = [](std::string format, std::vector<SignerSpec> signers, std::string data = "data",
                          bool check_leaks = false) {
    return SignRequest{.format = format, .signers = signers, .data = data, .check_leaks = check_leaks};
  };
  SignerSpec negative_pin = alice;
  negative_pin.negative_pin_length = true;
  const std::vector<Case> cases = {
      {"every signer is tried, none is left out", request("PKCS7", {alice, {"CN=Nobody", "", "1"}, bob}),
       SSF_ERR_SIGNER, {0, 22, 0}},
      // The call's hash buffer, filled by the first, must not spill over.
      {"a hash of odd length after a good one", request("PKCS7", {{w.alice.sha1_hex, "", "1111"}, {"ABCDEFABC", "", ""}}),
       SSF_ERR_SIGNER, {0, 22}},
      {"raw with two signers: before any store", request("RAW_GOST", {alice, bob}), SSF_ERR_INTERNAL,
       {kUntouched, kUntouched}},
      // A PIN no text can have ends the call as an unexpected failure.
      {"negative PIN length, nothing held left behind", request("PKCS7", {negative_pin}, "data", true),
       SSF_ERR_INTERNAL, {22}},
      {"node without record ends the call", request("PKCS7", {alice, {"", "", "", true}, bob}), SSF_ERR_INTERNAL,
       {0, -1, kUntouched}},
      {"empty input", request("RAW_GOST", {alice}, ""), SSF_ERR_INPUT, {kUntouched}},
      {"null list comes first", request("PKCS7", {}, ""), SSF_ERR_SIGNER, {}},
      {"format", request("pkcs7", {alice}), SSF_ERR_FORMAT, {kUntouched}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const SignOutcome outcome = sign_through_export(w.env(), c.request);
    EXPECT_EQ(outcome.rc, c.rc);
    EXPECT_EQ(outcome.results, c.results);
    EXPECT_TRUE(outcome.output_pointer_null);
    EXPECT_TRUE(outcome.signed_data.empty());
  }
}

std::string upper_hex(const std::string& text) {
  std::string out;
  for (const char c : text)
    if (c != ' ') out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// "$SELECT_CERTIFICATE$": the chooser gets the store's usable certificates,
// and the record's identity becomes the chosen one's hash text.
TEST(Lookup, SelectionThroughTheChooserProgram) {
  const SigningWorld& w = SigningWorld::get();
  TempDir helper_dir;
  const std::string offered = helper_dir / "offered";
  const std::string choose_bob = helper_dir / "choose-bob";
  const std::string cancel = helper_dir / "cancel";
  // The list arrives on standard input, one certificate a line, number first.
  write_file(choose_bob, "#!/bin/sh\ntee '" + offered + "' | grep 'CN=Bob' | cut -f1\n");
  write_file(cancel, "#!/bin/sh\ncat > '" + offered + "'\necho\n");
  run_checked("chmod +x '" + choose_bob + "' '" + cancel + "'");

  const std::string marker = "$SELECT_CERTIFICATE$";
  const struct {
    const char* what;
    std::string id, chooser;
    std::map<std::string, std::string> settings;
    int32_t result;
    bool chooser_runs;
  } cases[] = {
      {"chosen", marker, choose_bob, {}, 0, true},
      {"text behind the marker is lost", marker + "CN=Alice", choose_bob, {}, 0, true},
      {"policy still filters with the check off", marker, choose_bob, {{"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "0"}}, 0,
       true},
      {"cancelled: the marker stays and is refused", marker, cancel, {}, 22, true},
      {"19 bytes are no marker", marker.substr(0, 19), choose_bob, {}, 22, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::remove(offered);
    auto settings = c.settings;
    settings["BV_PLATFORM_SELECT"] = c.chooser;
    const SignOutcome outcome = sign_one({c.id, "", "2222"}, settings);
    ASSERT_EQ(outcome.results.size(), 1u);
    EXPECT_EQ(outcome.results[0], c.result);
    ASSERT_EQ(std::filesystem::exists(offered), c.chooser_runs);
    if (!c.chooser_runs) continue;
    // Only certificates with a key link and an acceptable chain are offered.
    const std::string list = upper_hex(read_file(offered));
    for (const TestCert* good : {&w.alice, &w.bob, &w.carol, &w.dup_good})
      EXPECT_NE(list.find(good->sha1_hex), std::string::npos);
    for (const TestCert* bad : {&w.dup_untrusted, &w.lonely, &w.nokey})
      EXPECT_EQ(list.find(bad->sha1_hex), std::string::npos);
    if (c.result == 0) {
      EXPECT_EQ(outcome.ids[0].size(), 59u);
      EXPECT_EQ(upper_hex(outcome.ids[0]), w.bob.sha1_hex);
    } else {
      EXPECT_EQ(outcome.ids[0], c.id);
    }
  }
}

// The trace of one call tells each signer's story in order (no PIN in it:
// run_isolated reads every log for them).
TEST(Lookup, TraceOfASignerList) {
  const SigningWorld& w = SigningWorld::get();
  TempDir traced;
  SignRequest request;
  request.signers = {{"CN=Dup", "", "4444"}, {"CN=Nobody", "uMy", "5555"}, {"CN=Alice", "", "9731"}};
  const SignOutcome outcome = sign_through_export(w.traced_env(traced), request);
  EXPECT_EQ(outcome.results, (std::vector<int32_t>{0, 22, 25}));
  EXPECT_EQ(outcome.rc, SSF_ERR_SIGNER);

  const std::string log = trace_log(traced);
  const std::vector<std::string> in_order = {
      "#info# SSFformat name ('PKCS7').",
      "#info#: accept isCades='0'",
      "#trace# Count of signers=3.",
      "#trace# Check Signer # = 0.",
      "#info#: Searched userID (CN=Dup)",
      "#trace# Search Signer's certificate.",
      "#trace# Signer's certificate Not verified. Check result = 0x",  // the untrusted one
      "#trace# One of Signer's certificate found. Trying to acquire private key.",
      "#trace# Explicit pin code? IsPinExplicit = 1.",
      "#trace# Private Key successfully acquired.",
      "#trace# Using hash alg = 1.2.643.7.1.1.2.2.",
      "#trace# Check Signer # = 1.",
      "#trace# Signer 1 Store = uMy.",
      "#info#: Searched userID (CN=Nobody)",
      "#error# Signer's (1) Certificate with supplied pin code NOT FOUND.",
      "#trace# Check Signer # = 2.",
      "#trace# Can not Acquire Private Key with supplied pin code. Trying to search another certificate.",
      "#error# Signer's (2) Certificate with supplied pin code NOT FOUND.",
      "#error#: 2 certificates not found",
      "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!",
  };
  size_t position = 0;
  for (const std::string& line : in_order) {
    const size_t found = log.find(line, position);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << "\n" << log;
    position = found + line.size();
  }
}

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
  const SigningWorld& w = SigningWorld::get();
  std::string content, diagnostics;
  EXPECT_EQ(openssl_cms_verify(message, w.root.cert_pem, with_certs ? "" : w.signers_pem,
                               detached ? &data : nullptr, &content, &diagnostics),
            0)
      << diagnostics;
  EXPECT_EQ(content, data);
  // What OpenSSL reads in the message: its signers' digests, attributes and
  // certificates.
  TempDir dir;
  write_file(dir / "m.der", message);
  const std::string printed =
      run_checked("openssl cms -engine gost -cmsout -print -inform DER -in '" + (dir / "m.der") + "' 2>/dev/null");
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
    // Certificates and detached change nothing in a bare value.
    for (const bool certs_and_detached : {false, true}) {
      const auto signed_as = [&](const char* format) {
        const SignOutcome o = sign_through_export(w.env(), {.format = format, .signers = {c.signer},
                                                            .include_certs = certs_and_detached,
                                                            .detached = certs_and_detached, .data = data});
        EXPECT_EQ(o.rc, SSF_OK) << o.child_stderr;
        EXPECT_EQ(o.signed_data.size(), c.length);
        return o.signed_data;
      };
      const std::string raw = signed_as("RAW_GOST");
      EXPECT_TRUE(verifies(std::string(raw.rbegin(), raw.rend())));
      EXPECT_TRUE(verifies(signed_as("RAW_GOST_INVERTED")));
      EXPECT_FALSE(verifies(raw));
    }
  }
}

}  // namespace
}  // namespace bv::test
