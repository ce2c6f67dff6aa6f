// Finding a signer's certificate and key through SsfSign, against real
// stores: profiles, identities, the chain policy, PINs and key links.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
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
      {"hash", {w.bob.sha1_hex, "", "2222"}, {}, 0},
      {"hash, spaced and lower case", {"  " + spaced_lower + "\t", "", "2222"}, {}, 0},
      {"order of items doesn't matter", {"O=Test Bank, CN=Bob", "", "2222"}, {}, 0},
      {"blanks around keys and values", {"CN = Bob , C=RU", "", "2222"}, {}, 0},
      {"lower-case key meets no OID", {"cn=Bob", "", "2222"}, {}, 22},
      {"an item the subject lacks", {"CN=Bob, L=Moscow", "", "2222"}, {}, 22},
      {"blanks only", {"   ", "", "2222"}, {}, 22},
      {"value missing: identity refused", {"CN=Bob, O=", "", "2222"}, {}, 22},
      {"no \"=\": identity refused", {"Bob", "", "2222"}, {}, 22},
      {"odd digit: no hash, identity refused", {w.bob.sha1_hex + "0", "", "2222"}, {}, 22},
      {"wrong PIN", {"CN=Alice", "", "0000"}, {}, 25},
      {"no PIN for a key that needs one", {"CN=Alice", "", ""}, {}, 25},
      {"a key without PIN", {"CN=Carol", "", ""}, {}, 0},
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
  const auto request = [](std::string format, std::vector<SignerSpec> signers, std::string data = "data") {
    return SignRequest{.format = format, .signers = signers, .data = data};
  };
  const auto leak_checked = [](SignRequest r) {
    r.check_leaks = true;
    return r;
  };
  SignerSpec negative_pin = alice;
  negative_pin.negative_pin_length = true;
  const std::vector<Case> cases = {
      {"every signer is tried, none is left out", request("PKCS7", {alice, {"CN=Nobody", "", "1"}, bob}),
       SSF_ERR_SIGNER, {0, 22, 0}},
      {"raw with two signers: before any store", request("RAW_GOST", {alice, bob}), SSF_ERR_INTERNAL,
       {kUntouched, kUntouched}},
      // A PIN no text can have ends the call as an unexpected failure.
      {"negative PIN length, nothing held left behind", leak_checked(request("PKCS7", {negative_pin})),
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

  struct Case {
    const char* what;
    std::string id;
    std::string chooser;
    std::map<std::string, std::string> settings;
    int32_t result;
    bool chooser_runs;
  };
  const std::string marker = "$SELECT_CERTIFICATE$";
  const std::vector<Case> cases = {
      {"chosen", marker, choose_bob, {}, 0, true},
      {"text behind the marker is lost", marker + "CN=Alice", choose_bob, {}, 0, true},
      {"policy still filters with the check off", marker, choose_bob, {{"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "0"}}, 0,
       true},
      {"cancelled: the marker stays and is refused", marker, cancel, {}, 22, true},
      {"19 bytes are no marker", marker.substr(0, 19), choose_bob, {}, 22, false},
  };
  for (const Case& c : cases) {
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

// The trace of one call tells each signer's story in order, and no PIN
// appears in it.
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
  for (const char* pin : {"4444", "5555", "9731"}) EXPECT_EQ(log.find(pin), std::string::npos) << pin << "\n" << log;
}

}  // namespace
}  // namespace bv::test
