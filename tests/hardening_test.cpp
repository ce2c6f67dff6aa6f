// What a host's worst inputs meet: broken hash identities behind good
// ones, null pointers at every export, and a host whose locale must stay
// its own.
#include <gtest/gtest.h>
#include <locale.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame.h"
#include "signing.h"


namespace bv::test {
namespace {

// Every export, given a null where it would write or read: a code, never a
// signal.  One child each, tracing at level 4 on the way.  A record built by
// hand with a null field behind a positive length has that field absent.
TEST(NullPointers, EveryExportAnswersWithACode) {
  using Call = std::function<SSF_RC(const SsfApi&)>;
  static const auto* data = reinterpret_cast<const unsigned char*>("data");
  static char* text;
  static unsigned char* out;
  static uint32_t length;
  static SsfInfo record{const_cast<char*>("CN=A"), 4, nullptr, 0, nullptr, 0, nullptr, 0, 0};
  static SsfInfoNode node{nullptr, &record};
  static SsfInfoNode* list = &node;
  // Carol's key has no PIN: absent, her PIN is right.
  static char* carol = const_cast<char*>(SigningWorld::get().carol.sha1_hex.c_str());
  const auto sign_hand_made = [](SsfInfo r, int32_t result) -> Call {
    return [=](const SsfApi& a) mutable {
      SsfInfoNode one{nullptr, &r};
      const SSF_RC rc = a.SsfSign("PKCS7", 5, nullptr, 0, 1, 0, data, 4, &one, &out, &length);
      EXPECT_EQ(r.Result, result);
      a.SsfDELSsfOctetstring(&out, &length);
      return rc;
    };
  };
  const auto print_hand_made = [](SsfInfo r) -> Call {
    return [=](const SsfApi& a) mutable {
      const SSF_RC rc = a.SsfPRISigRcpSsfInfo(&r, &text, &length);
      const std::string printed(text, length);
      EXPECT_EQ(printed.find("Id  "), std::string::npos);
      EXPECT_EQ(printed.find("Reserved"), std::string::npos);
      std::free(text);
      return rc;
    };
  };
  const struct {
    const char* what;
    Call call;
    SSF_RC rc;
  } cases[] = {
      {"version", [](const SsfApi& a) { return a.SsfVersion(nullptr, &length); }, SSF_ERR_INPUT},
      {"property value", [](const SsfApi& a) { return a.SsfQueryProperties("P", 1, nullptr, 0, nullptr, &length); },
       SSF_ERR_INPUT},
      {"unterminated property name, negative length",
       [](const SsfApi& a) {
         const std::unique_ptr<char[]> name(new char[7]);
         std::memcpy(name.get(), "FORMATS", 7);
         return a.SsfQueryProperties(name.get(), -1, nullptr, 0, &text, &length);
       },
       SSF_ERR_INPUT},
      {"encode input", [](const SsfApi& a) { return a.SsfEncode("PKCS7", 5, nullptr, 4, &out, &length); },
       SSF_ERR_INPUT},
      {"decode length", [](const SsfApi& a) { return a.SsfDecode("PKCS7", 5, data, 4, &out, nullptr); },
       SSF_ERR_INPUT},
      {"sign format",
       [](const SsfApi& a) { return a.SsfSign(nullptr, 5, nullptr, 0, 1, 0, data, 4, list, &out, &length); },
       SSF_ERR_FORMAT},
      {"sign output",
       [](const SsfApi& a) { return a.SsfSign("PKCS7", 5, nullptr, 0, 1, 0, data, 4, list, nullptr, &length); },
       SSF_ERR_INPUT},
      {"digest format",
       [](const SsfApi& a) { return a.SsfDigest(nullptr, 5, 0, data, 4, "SHA1", 4, &out, &length); },
       SSF_ERR_FORMAT},
      {"digest hash name",
       [](const SsfApi& a) { return a.SsfDigest("PKCS7", 5, 0, data, 4, nullptr, 4, &out, &length); },
       SSF_ERR_HASHALG},
      // The length is refused before the names are read, the data after.
      {"digest output",
       [](const SsfApi& a) { return a.SsfDigest("PKCS7", 5, 0, data, 4, "SHA1", 4, nullptr, &length); },
       SSF_ERR_INPUT},
      {"digest length", [](const SsfApi& a) { return a.SsfDigest("PKCS7", 5, 0, data, 4, "SHA1", 4, &out, nullptr); },
       SSF_ERR_INPUT},
      {"verify list",
       [](const SsfApi& a) {
         return a.SsfVerify("PKCS7", 5, 0, data, 4, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, &out, &length);
       },
       SSF_ERR_INPUT},
      {"envelope output",
       [](const SsfApi& a) {
         return a.SsfEnvelope("PKCS7", 5, "GOST28147", 9, data, 4, nullptr, 0, nullptr, 0, list, nullptr, &length);
       },
       SSF_ERR_INPUT},
      {"develope length",
       [](const SsfApi& a) { return a.SsfDevelope("PKCS7", 5, data, 4, &record, &out, nullptr); }, SSF_ERR_INPUT},
      {"add-sign output",
       [](const SsfApi& a) {
         return a.SsfAddSign("PKCS7", 5, nullptr, 0, 1, data, 4, data, 4, &record, nullptr, &length);
       },
       SSF_ERR_INPUT},
      {"release", [](const SsfApi& a) { return a.SsfDELSsfOctetstring(nullptr, nullptr); }, SSF_OK},
      {"new record's place",
       [](const SsfApi& a) { return a.SsfNEWSigRcpSsfInfo("CN=A", 4, nullptr, 0, nullptr, 0, nullptr, 0, 0, nullptr); },
       SSF_REC_INVALID_LENGTH},
      {"delete record", [](const SsfApi& a) { return a.SsfDELSigRcpSsfInfo(nullptr); }, SSF_REC_NULL_INFO},
      {"insert into no list", [](const SsfApi& a) { return a.SsfINSSigRcpSsfInfo(&record, nullptr); },
       SSF_REC_NULL_LIST},
      {"delete list", [](const SsfApi& a) { return a.SsfDELSigRcpSsfInfoList(nullptr); }, SSF_REC_NULL_LIST},
      {"print text", [](const SsfApi& a) { return a.SsfPRISigRcpSsfInfo(&record, nullptr, &length); },
       SSF_REC_NULL_INFO},
      {"print list text", [](const SsfApi& a) { return a.SsfPRISigRcpSsfInfoList(list, nullptr, &length); },
       SSF_REC_NULL_LIST},
      {"hand-made record, null PIN behind length 2", sign_hand_made({carol, 40, nullptr, 0, nullptr, 0, nullptr, 2, 99}, 0),
       SSF_OK},
      {"hand-made record, null profile behind length 5",
       sign_hand_made({carol, 40, nullptr, 0, nullptr, 5, nullptr, 0, 99}, 0), SSF_OK},
      {"hand-made record, null id behind length 40",
       sign_hand_made({nullptr, 40, nullptr, 0, nullptr, 0, nullptr, 0, 99}, SSF_RES_UNKNOWN), SSF_ERR_SIGNER},
      {"print hand-made record, null id and reserved",
       print_hand_made({nullptr, 40, nullptr, 8, nullptr, 0, nullptr, 0, 0}), SSF_OK},
      {"delete hand-made record, PIN with a negative length",
       [](const SsfApi& a) {
         auto* r = static_cast<SsfInfo*>(std::calloc(1, sizeof(SsfInfo)));
         r->Password = strdup("1111");
         r->PasswordL = -1;
         return a.SsfDELSigRcpSsfInfo(&r);
       },
       SSF_OK},
  };
  TempDir traced;
  const auto env = SigningWorld::get().traced_env(traced);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const ChildResult child = run_isolated(env, [&] { EXPECT_EQ(c.call(SsfApi::get()), c.rc); });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  }
}

// Every call with reason 1 prints the settings; other reasons print nothing.
TEST(DllMain, EachAttachPrintsTheSettings) {
  std::string log;
  run_traced(
      [] {
        const SsfApi& api = SsfApi::get();
        EXPECT_EQ(api.DllMain(nullptr, 1, nullptr), 1);
        EXPECT_EQ(api.DllMain(nullptr, 0, nullptr), 1);
      },
      &log);
  size_t prints = 0;
  for (const std::string& line : log_messages(log)) prints += line.find("UserIdAsCertHash = ") != std::string::npos;
  EXPECT_EQ(prints, 2u) << log;
}

// A failure to format a line before the guarded block (here a character no
// locale converts) ends the export with its silent answer.
TEST(WholeExport, ATraceThatFailsBeforeTheGuardDoesNotEscape) {
  CoreTrace trace;
  constexpr const char* trace_function = "SsfSign";
  constexpr const char* trace_file = "ssfxxmain";
  EXPECT_EQ(bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
              BV_TRACE(TRACE_NORMAL, "%lc\n", static_cast<wint_t>(0x10FFFF + 5));
              return SSF_OK;
            }),
            SSF_ERR_INTERNAL);
}

// One signing call by Alice's record with `id` in this process: its Result.
int32_t sign_once(const std::string& id) {
  const SsfApi& api = SsfApi::get();
  SsfInfo* info = nullptr;
  SsfInfoNode* list = nullptr;
  api.SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, nullptr, 0, "1111", 4, 99, &info);
  api.SsfINSSigRcpSsfInfo(info, &list);
  unsigned char* out = nullptr;
  uint32_t length = 0;
  api.SsfSign("PKCS7", 5, nullptr, 0, 0, 0, reinterpret_cast<const unsigned char*>("data"), 4, list, &out, &length);
  const int32_t result = info->Result;
  api.SsfDELSsfOctetstring(&out, &length);
  api.SsfDELSigRcpSsfInfoList(&list);
  return result;
}

// The host's locale stays the host's, and the library's identity rules
// still class 0xA0 as the code page 1251 locale does (Alice's hash with
// 0xA0 between its pairs is a hash only if that is a blank there).
TEST(HostLocale, LoadingLeavesItAsTheHostSetIt) {
  const SigningWorld& w = SigningWorld::get();
  locale_t code_page = newlocale(LC_ALL_MASK, "ru_RU.CP1251", nullptr);
  if (code_page == nullptr) code_page = newlocale(LC_ALL_MASK, "C", nullptr);
  const bool nbsp_is_blank = isspace_l(0xA0, code_page) != 0;
  freelocale(code_page);
  std::string id;
  for (size_t i = 0; i < w.alice.sha1_hex.size(); i += 2) id += w.alice.sha1_hex.substr(i, 2) + "\xA0";
  const ChildResult child = run_isolated(w.env(), [&] {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    SsfApi::get();
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
    char printed[16];
    std::snprintf(printed, sizeof printed, "%.2f", 3.99);
    EXPECT_STREQ(printed, "3.99");
    EXPECT_EQ(std::strtod("0.5", nullptr), 0.5);
    EXPECT_EQ(sign_once(id), nbsp_is_blank ? 0 : 22);
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

}  // namespace
}  // namespace bv::test
