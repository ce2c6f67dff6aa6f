// What a host's worst inputs meet: broken hash identities behind good
// ones, null pointers at every export, and a host whose locale must stay
// its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "signing.h"

namespace bv::test {
namespace {

// A hash text cut to an odd number of digits, after a signer whose hash
// was read: refused as no hash (22, "Invalid user's ID"), whatever the
// earlier one left behind.
TEST(HashIdentity, OddDigitsAfterAGoodHashAreRefused) {
  const SigningWorld& w = SigningWorld::get();
  TempDir traced;
  auto env = trace_env(traced, 2);
  std::filesystem::copy(w.common() + "/Brelvantec/Certificates", traced / "common/Brelvantec/Certificates",
                        std::filesystem::copy_options::recursive);
  env["BV_PLATFORM_LOCAL_APPDATA"] = w.local();
  const std::string digits = "ABCDEFABCDEFABCDEFAB1ABCDEFABCDEFABCDEFAB";
  struct Case {
    std::string first;
    int32_t first_result;
  };
  for (const Case& c : {Case{"AB", 22}, Case{w.alice.sha1_hex, 0}}) {
    for (size_t length = 1; length <= digits.size(); length += 2) {
      const std::string second = digits.substr(0, length);
      SCOPED_TRACE(c.first + " then " + second);
      SignRequest request;
      request.signers = {{c.first, "", "1111"}, {second, "", ""}};
      const SignOutcome outcome = sign_through_export(env, request);
      EXPECT_EQ(outcome.rc, SSF_ERR_SIGNER);
      EXPECT_EQ(outcome.results, (std::vector<int32_t>{c.first_result, 22}));
      EXPECT_TRUE(contains(trace_log(traced), "#error#: Invalid user's ID (" + second + ")\r\n"));
    }
  }
}

}  // namespace
}  // namespace bv::test
