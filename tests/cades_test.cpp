// CAdES-X Long Type 1 messages from SsfSign, taken apart and checked layer by
// layer by tools nobody here wrote: openssl cms and ts, asn1crypto.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "certs.h"
#include "signing.h"

namespace bv::test {
namespace {

// The unsigned attributes of X Long Type 1.
const std::vector<std::string> kXLongType1 = {
    "1.2.840.113549.1.9.16.2.14", "1.2.840.113549.1.9.16.2.21", "1.2.840.113549.1.9.16.2.22",
    "1.2.840.113549.1.9.16.2.23", "1.2.840.113549.1.9.16.2.24", "1.2.840.113549.1.9.16.2.25"};

struct CadesWorld {
  TempDir dir;
  TimeStampServer tsa;
  CadesWorld()
      : tsa(dir.path(), SigningWorld::get().tsa.cert_pem, SigningWorld::get().dir / "pki/tsa.key") {}
};

TEST(CadesSign, SmokeXLongType1) {
  const SigningWorld& w = SigningWorld::get();
  CadesWorld cades;
  SignRequest request;
  request.format = "CADES";
  request.include_certs = true;
  request.signers = {{"CN=Alice", "", "1111"}};
  const SignOutcome outcome = sign_through_export(w.env({{"BV_CADES_DEFAULT_TSP", cades.tsa.url()}}), request);
  ASSERT_EQ(outcome.rc, 0u) << outcome.child_stderr;
  std::string content, diagnostics;
  EXPECT_EQ(openssl_cms_verify(outcome.signed_data, w.root.cert_pem, "", nullptr, &content, &diagnostics), 0)
      << diagnostics;
  TempDir out;
  write_file(out / "m.der", outcome.signed_data);
  const std::string printed =
      run_checked("openssl cms -engine gost -cmsout -print -inform DER -in '" + (out / "m.der") + "' 2>/dev/null");
  for (const std::string& oid : kXLongType1) EXPECT_NE(printed.find(oid), std::string::npos) << oid << printed;
}

}  // namespace
}  // namespace bv::test
