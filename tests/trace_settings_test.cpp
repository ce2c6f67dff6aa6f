#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "host.h"

using bv::test::run_isolated;
using bv::test::SsfApi;
using bv::test::TempDir;

namespace {

// One traced call: the start and success banners at level 2.
void query_formats() {
  const SsfApi& api = SsfApi::get();
  char* value = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(api.SsfQueryProperties("FORMATS", 7, nullptr, 0, &value, &length), SSF_OK);
  api.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&value), &length);
}

}  // namespace

TEST(TraceLog, LevelFourWithBothLinePartsWritesEveryLineStamped) {
  TempDir dir;
  const auto child = run_isolated(bv::test::trace_env(dir, 4, 3), query_formats);
  ASSERT_EQ(child.exit_code, 0) << child.stderr_text;
  EXPECT_EQ(child.stderr_text, "");
  const std::string log = bv::test::trace_log(dir);
  const std::regex start_line(
      R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d : libbvsapssf\.so: \{\d+\} /SsfQueryProperties/ ssfxxmain\(\d+\) : )"
      R"(BVTraceGeneral: \*+#start#\*+\r\n)");
  EXPECT_TRUE(std::regex_search(log, start_line)) << log;
  EXPECT_NE(log.find("bvsapssf parameters: VerifyCertFlags = 40000000\r\n"), std::string::npos) << log;
}
