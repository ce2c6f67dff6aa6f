#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host.h"

using bv::test::SsfApi;

TEST(Version, GivesTheTextWithItsTerminator) {
  const SsfApi& api = SsfApi::get();
  char* version = nullptr;
  uint32_t length = 99;
  ASSERT_EQ(api.SsfVersion(&version, &length), SSF_OK);
  EXPECT_EQ(length, 43u);
  EXPECT_EQ(std::string(version, length + 1), std::string("Brelvantec SSF library for SAP Version 1.01", 44));
  api.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&version), &length);
  EXPECT_EQ(version, nullptr);
  EXPECT_EQ(length, 0u);
}

TEST(Exports, ExactlyTheEighteenNames) {
  int status = 0;
  const std::string names = bv::test::run_command(
      "nm -D --defined-only '" BV_LIBRARY_PATH "' | awk '{print $3}' | grep -v '^$' | sort", &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(names,
            "DllMain\nSsfAddSign\nSsfDELSigRcpSsfInfo\nSsfDELSigRcpSsfInfoList\nSsfDELSsfOctetstring\n"
            "SsfDecode\nSsfDevelope\nSsfDigest\nSsfEncode\nSsfEnvelope\nSsfINSSigRcpSsfInfo\n"
            "SsfNEWSigRcpSsfInfo\nSsfPRISigRcpSsfInfo\nSsfPRISigRcpSsfInfoList\nSsfQueryProperties\n"
            "SsfSign\nSsfVerify\nSsfVersion\n");
}
