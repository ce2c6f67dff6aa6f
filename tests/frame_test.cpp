// The call frame and the first answers: version, properties, release of a
// block, the exception clauses and the licence gate.
#include "frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>

#include "bvsapssf.h"
#include "host.h"
#include "licence.h"

namespace bv::test {

namespace {

// The version with its terminator, no banner on any path; a released block
// leaves null and 0, and a null pointer or a second release does nothing.
TEST(Version, GivesTheTextWithItsTerminatorAndIsReleasedOnce) {
  std::string log;
  run_traced(
      [] {
        const SsfApi& api = SsfApi::get();
        char* version = nullptr;
        uint32_t length = 99;
        ASSERT_EQ(api.SsfVersion(&version, &length), SSF_OK);
        EXPECT_EQ(length, 43u);
        EXPECT_EQ(std::string(version, length + 1), std::string("Brelvantec SSF library for SAP Version 1.01", 44));
        auto* data = reinterpret_cast<unsigned char*>(version);
        EXPECT_EQ(api.SsfDELSsfOctetstring(&data, &length), SSF_OK);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(length, 0u);
        length = 9;
        EXPECT_EQ(api.SsfDELSsfOctetstring(&data, &length), SSF_OK);
        EXPECT_EQ(length, 9u);
        EXPECT_EQ(api.SsfDELSsfOctetstring(nullptr, &length), SSF_OK);
        EXPECT_EQ(length, 9u);
      },
      &log);
  EXPECT_FALSE(contains(log, "#start#")) << log;
}

TEST(Exports, ExactlyTheEighteenNames) {
  int status = 0;
  const std::string names = run_command(
      "nm -D --defined-only '" BV_LIBRARY_PATH "' | awk '{print $3}' | grep -v '^$' | sort", &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(names,
            "DllMain\nSsfAddSign\nSsfDELSigRcpSsfInfo\nSsfDELSigRcpSsfInfoList\nSsfDELSsfOctetstring\n"
            "SsfDecode\nSsfDevelope\nSsfDigest\nSsfEncode\nSsfEnvelope\nSsfINSSigRcpSsfInfo\n"
            "SsfNEWSigRcpSsfInfo\nSsfPRISigRcpSsfInfo\nSsfPRISigRcpSsfInfoList\nSsfQueryProperties\n"
            "SsfSign\nSsfVerify\nSsfVersion\n");
}

constexpr const char* kAllProperties = "FORMATS;HASHALGS;ENCRALGS;SSF_POPUPS";
constexpr const char* kHashAlgs =
    "SHA1;GOST3411;GOST-R-34.11-94;GOST-R-34.11-2012-256;GOST-R-34.11-2012-512;GOST2012-256;GOST2012-512;MD2;MD5";

struct PropertyCase {
  const char* name;
  int32_t length;
  SSF_RC rc;
  const char* value;  // null: outputs untouched
};

TEST(QueryProperties, SelectsByPrefixOfTheCallersLength) {
  const PropertyCase cases[] = {
      {"PROPERTIES", 10, SSF_OK, kAllProperties},
      {"P", 1, SSF_OK, kAllProperties},
      {"anything", 0, SSF_OK, kAllProperties},
      {"FORMATS", 7, SSF_OK, "PKCS7;CADES;PKCS7_CADES;PKCS7_ANY"},
      {"FORMATSX", 8, SSF_ERR_INPUT, nullptr},
      {"HASHALGS", 8, SSF_OK, kHashAlgs},
      {"ENCRALGS", 8, SSF_OK, "GOST28147;GOST-28147-89"},
      {"SSF_POPUPS", 10, SSF_OK, "1"},
      {"properties", 10, SSF_ERR_INPUT, nullptr},
      {"PROPERTIES", -1, SSF_ERR_INPUT, nullptr},  // a length that counts no bytes
      {nullptr, 5, SSF_ERR_INPUT, nullptr},
      {nullptr, 0, SSF_OK, kAllProperties},
  };
  run_traced([&] {
    const SsfApi& api = SsfApi::get();
    for (const PropertyCase& c : cases) {
      SCOPED_TRACE(std::string(c.name ? c.name : "(null)") + "/" + std::to_string(c.length));
      char sentinel = 0;
      char* value = &sentinel;
      uint32_t length = 7777;
      EXPECT_EQ(api.SsfQueryProperties(c.name, c.length, nullptr, 0, &value, &length), c.rc);
      if (c.value == nullptr) {
        EXPECT_EQ(value, &sentinel);
        EXPECT_EQ(length, 7777u);
        continue;
      }
      // The value has no terminator: its length is the only measure.
      ASSERT_EQ(length, std::strlen(c.value));
      EXPECT_EQ(std::string(value, length), c.value);
      api.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&value), &length);
    }
  });
}

// The exception clauses, with the lines each one leaves.
struct ClauseCase {
  const char* name;
  void (*raise)();
  const char* exception_line;
  SSF_RC rc;
  std::vector<std::string> lines;
};

TEST(Guarded, EachClauseEndsWithItsCodeAndLines) {
  const std::string failure = "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n";
  const std::string unexpected = "#error#: 8000ffff\n", catastrophic = "Catastrophic failure\r\n";
  const ClauseCase cases[] = {
      {"CAtlException keeps its status as the last error", [] { throw CAtlException(E_OUTOFMEMORY); }, nullptr,
       SSF_ERR_INTERNAL,
       {"#error#: 8007000e\n", "Not enough memory resources are available to complete this operation.\r\n", failure}},
      {"std::runtime_error reports the last error as it stands", [] { SetLastError(5), throw std::runtime_error("boom"); },
       nullptr, SSF_ERR_NOMEMORY, {"#error#: 00000005\n", "Access is denied.\r\n", failure}},
      {"anything else is E_UNEXPECTED", [] { throw 42; }, nullptr, SSF_ERR_INTERNAL, {unexpected, catastrophic, failure}},
      {"the shared tail opens with the operation's line", [] { throw std::logic_error("x"); }, "#exception#:\n",
       SSF_ERR_INTERNAL, {"#exception#:\n", unexpected, catastrophic, failure}},
      {"runtime_error has no exception line", [] { SetLastError(0), throw std::runtime_error("x"); }, "#exception#\n",
       SSF_ERR_NOMEMORY, {"#error#: 00000000\n", failure}},
  };
  CoreTrace trace;
  for (const ClauseCase& c : cases) {
    SCOPED_TRACE(c.name);
    trace.clear();
    const SSF_RC rc = bv::frame::guarded("SsfVerify", c.exception_line, [&]() -> SSF_RC {
      c.raise();
      return SSF_OK;
    });
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(trace.messages(), c.lines) << trace.dump();
  }
}

TEST(Licence, TheShippedGateGrantsAndARefusalEndsIn13) {
  CoreTrace trace;
  EXPECT_EQ(bv::frame::guarded("SsfSign", nullptr, [] { return static_cast<SSF_RC>(SSFAPICheckLicense()); }), SSF_OK);
  bv::set_licence_check_for_tests([] { throw std::logic_error("no licence"); });
  const SSF_RC refused = bv::frame::guarded("SsfSign", nullptr, [] {
    SSFAPICheckLicense();
    ADD_FAILURE() << "the gate let the call through";
    return SSF_OK;
  });
  bv::set_licence_check_for_tests(nullptr);
  EXPECT_EQ(refused, SSF_ERR_INTERNAL);
  const auto lines = trace.messages();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "#error#: 8000ffff\n") << trace.dump();
  EXPECT_EQ(lines.back(), "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n");
}

}  // namespace

}  // namespace bv::test
