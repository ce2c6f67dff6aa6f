// The call frame and the first answers: version, properties, release of a
// block, the exception clauses and the licence gate; the reporter and its
// catalogue: which row a code prints, what it returns, the last error's
// texts; signer and recipient records through the loaded library: creation,
// the blank wipe of the password, lists and their printed form.
#include "frame.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "bvsapssf.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "kernel32/message_texts.h"
#include "licence.h"
#include "reporter.h"
#include "trace/table.h"
#include "trace/trace.h"

namespace bv::test {

namespace {

// The version with its terminator, no banner on any path; a released block
// leaves null and 0, and a second release does nothing.
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
      },
      &log);
  EXPECT_FALSE(contains(log, "#start#")) << log;
}

// Exactly the eighteen names; libcurl comes with the first network request,
// not with the library.
TEST(Load, EighteenExportsAndNoNetworkLibraryUntilARequest) {
  int status = 0;
  const std::string names = run_command(
      "nm -D --defined-only '" BV_LIBRARY_PATH "' | awk '{print $3}' | grep -v '^$' | sort", &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(names,
            "DllMain\nSsfAddSign\nSsfDELSigRcpSsfInfo\nSsfDELSigRcpSsfInfoList\nSsfDELSsfOctetstring\n"
            "SsfDecode\nSsfDevelope\nSsfDigest\nSsfEncode\nSsfEnvelope\nSsfINSSigRcpSsfInfo\n"
            "SsfNEWSigRcpSsfInfo\nSsfPRISigRcpSsfInfo\nSsfPRISigRcpSsfInfoList\nSsfQueryProperties\n"
            "SsfSign\nSsfVerify\nSsfVersion\n");
  const std::string needed = run_command("objdump -p '" BV_LIBRARY_PATH "' | grep NEEDED", &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(needed.find("curl"), std::string::npos) << needed;
  const ChildResult child = run_isolated({}, [] {
    SsfApi::get();
    const std::string maps = read_file("/proc/self/maps");
    EXPECT_NE(maps.find("libbvsapssf"), std::string::npos);
    EXPECT_EQ(maps.find("libcurl"), std::string::npos);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

constexpr const char* kAllProperties = "FORMATS;HASHALGS;ENCRALGS;SSF_POPUPS";

TEST(QueryProperties, SelectsByPrefixOfTheCallersLength) {
  const struct {
    const char* name;
    int32_t length;
    SSF_RC rc;
    const char* value;  // null: outputs untouched
  } cases[] = {
      {"PROPERTIES", 10, SSF_OK, kAllProperties},
      {"P", 1, SSF_OK, kAllProperties},
      {"anything", 0, SSF_OK, kAllProperties},
      {"FORMATS", 7, SSF_OK, "PKCS7;CADES;PKCS7_CADES;PKCS7_ANY"},
      {"FORMATSX", 8, SSF_ERR_INPUT, nullptr},
      {"HASHALGS", 8, SSF_OK,
       "SHA1;GOST3411;GOST-R-34.11-94;GOST-R-34.11-2012-256;GOST-R-34.11-2012-512;GOST2012-256;GOST2012-512;MD2;MD5"},
      {"ENCRALGS", 8, SSF_OK, "GOST28147;GOST-28147-89"},
      {"SSF_POPUPS", 10, SSF_OK, "1"},
      {"properties", 10, SSF_ERR_INPUT, nullptr},
      {"PROPERTIES", -1, SSF_ERR_INPUT, nullptr},  // a length that counts no bytes
      {nullptr, 5, SSF_ERR_INPUT, nullptr},
      {nullptr, 0, SSF_OK, kAllProperties},
  };
  run_traced([&] {
    const SsfApi& api = SsfApi::get();
    for (const auto& c : cases) {
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
TEST(Guarded, EachClauseEndsWithItsCodeAndLines) {
  const std::string failure = "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n";
  const std::string unexpected = "#error#: 8000ffff\n", catastrophic = "Catastrophic failure\r\n";
  const struct {
    const char* name;
    void (*raise)();
    const char* exception_line;
    SSF_RC rc;
    std::vector<std::string> lines;
  } cases[] = {
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
  for (const auto& c : cases) {
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

using namespace bv::trace;

// The catalogue keeps code page 1251; expectations are written readably.
std::string cp1251(const std::string& utf8) {
  iconv_t cd = iconv_open("CP1251", "UTF-8");
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
  std::string out(utf8.size(), '\0');
  char* in = const_cast<char*>(utf8.data());
  size_t in_left = utf8.size();
  char* to = out.data();
  size_t out_left = out.size();
  EXPECT_NE(iconv(cd, &in, &in_left, &to, &out_left), static_cast<size_t>(-1));
  iconv_close(cd);
  out.resize(out.size() - out_left);
  return out;
}

// A catalogue code prints its row; -1 prints the text of the last error.
TEST(ReportError, CodesAndLastErrorsPrintTheirText) {
  const struct {
    int32_t code;
    DWORD last_error;
    const char* printed;  // UTF-8; null: no line at all
    int32_t returned;
  } cases[] = {
      {0, 0, nullptr, 0},
      {99, 0, "Субъект:", 0x20000070},
      {900, 0, "Субъект:", 0x20000070},
      {0x20000064, 0, "Мало памяти.\n", 0x20000064},
      {502, 0, "Неизвестный алгоритм подписи.\n", 502},
      {141, 0, " Подпись проверена.\n", 141},
      {700, 0, "", 700},
      {101, 0, "Не удалось открыть файл ''.", 101},  // "%s" prints as empty
      {-1, 0, nullptr, 0},
      {-1, 5, "Access is denied.\r\n", 5},
      {-1, 0x80092004, "Cannot find object or property.\r\n", static_cast<int32_t>(0x80092004)},
      {-1, 12157, "An error occurred in the secure channel support\r\n", 12157},
      {-1, 12175, "Неизвестная ошибка.\n", 12175},  // past the HTTP module's range, and no system text
  };
  CoreTrace trace;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.code) + " " + std::to_string(c.last_error));
    trace.clear();
    SetLastError(c.last_error);
    EXPECT_EQ(ReportError("reporter_test", __LINE__, c.code), c.returned);
    EXPECT_EQ(trace.messages(), c.printed ? std::vector<std::string>{cp1251(c.printed)} : std::vector<std::string>{})
        << trace.dump();
  }
  // Under the name PrintString, at level 2.
  ProcessSettings process = read_process();
  process.file_name_and_line_no = true;
  write_process(process);
  trace.clear();
  ReportError("x", 1, 502);
  process.file_name_and_line_no = false;
  write_process(process);
  ASSERT_EQ(trace.messages().size(), 1u);
  EXPECT_TRUE(contains(trace.messages()[0], "/PrintString/ bvsapssf(")) << trace.dump();
  CoreTrace quiet(TRACE_ALWAYS);
  ReportError("x", 1, 502);
  EXPECT_TRUE(quiet.messages().empty()) << quiet.dump();
}

// Every catalogue row fits the reporter's buffers; no platform text holds a
// format directive, as the reporter passes them to the trace as the format.
TEST(Texts, FitTheReporterAndHoldNoFormatDirective) {
  for (int row = 0; row < bv::catalogue::kRows; ++row) {
    SCOPED_TRACE(row);
    EXPECT_LE(std::strlen(bv::catalogue::kRowsTable[row].russian), 127u);
    EXPECT_LE(std::strlen(bv::catalogue::kRowsTable[row].english), 127u);
  }
  const std::pair<DWORD, DWORD> ranges[] = {{0, 20000}, {0x80004000, 0x80004010}, {0x80070000, 0x80070100},
                                            {0x80090000, 0x80093200}, {0x80096000, 0x80096010},
                                            {0x800B0100, 0x800B0120}, {0x80100060, 0x80100070}};
  int texts = 0;
  for (const auto& [first, last] : ranges)
    for (DWORD id = first; id < last; ++id)
      for (const char* text : {bv::platform::system_message_text(id), bv::platform::wininet_message_text(id)}) {
        if (text == nullptr) continue;
        ++texts;
        EXPECT_EQ(std::strchr(text, '%'), nullptr) << id;
        EXPECT_EQ(std::string(text).substr(std::strlen(text) - 2), "\r\n") << id;
      }
  EXPECT_GT(texts, 100);
}

}  // namespace

// Watches one block on its way back to the heap: the password of a record
// must be blanks by the time the library frees it.  Every free of this
// program, the library's included, passes through here.
namespace wipe_watch {
void* watched = nullptr;  // read and written with atomic builtins only
size_t watched_length = 0;
char seen[256];
bool seen_any = false;
}  // namespace wipe_watch

// Runs before the sanitizers' runtime is set up, so it is not instrumented
// and uses builtins only.
extern "C" __attribute__((no_sanitize("address", "undefined"))) void free(void* block) {
  using FreeFn = void (*)(void*);
  static FreeFn next = nullptr;
  static bool resolving = false;
  if (block != nullptr && block == __atomic_load_n(&wipe_watch::watched, __ATOMIC_SEQ_CST)) {
    __builtin_memcpy(wipe_watch::seen, block, wipe_watch::watched_length);
    __atomic_store_n(&wipe_watch::seen_any, true, __ATOMIC_SEQ_CST);
    __atomic_store_n(&wipe_watch::watched, nullptr, __ATOMIC_SEQ_CST);
  }
  FreeFn forward = __atomic_load_n(&next, __ATOMIC_ACQUIRE);
  if (forward == nullptr) {
    if (__atomic_exchange_n(&resolving, true, __ATOMIC_SEQ_CST)) return;  // a free inside the lookup itself
    forward = reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "free"));
    __atomic_store_n(&next, forward, __ATOMIC_RELEASE);
  }
  forward(block);
}

namespace {

const SsfApi& api() { return SsfApi::get(); }

SsfInfo* make(const std::string& id, const std::string& profile = "", const std::string& password = "",
              int32_t result = 0, const std::string& reserved = "") {
  SsfInfo* info = nullptr;
  EXPECT_EQ(api().SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), reserved.data(),
                                      static_cast<int32_t>(reserved.size()), profile.data(),
                                      static_cast<int32_t>(profile.size()), password.data(),
                                      static_cast<int32_t>(password.size()), result, &info),
            SSF_OK);
  return info;
}

std::string print(SsfInfo* info) {
  char* text = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(api().SsfPRISigRcpSsfInfo(info, &text, &length), SSF_OK);
  // The block is terminated behind its length.
  EXPECT_EQ(text[length], '\0');
  std::string printed(text, length);
  api().SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);
  return printed;
}

TEST(NewRecord, LengthsDecideBeforeAnythingElse) {
  const struct {
    const char *name, *id;
    int32_t idL;
    const char* reserved;
    int32_t reservedL;
    const char* profile;
    int32_t profileL;
    const char* password;
    int32_t passwordL;
    SSF_RC rc;
  } cases[] = {
      {"id only", "id", 2, nullptr, 0, nullptr, 0, nullptr, 0, SSF_OK},
      {"all four fields", "id", 2, "r", 1, "My", 2, "1234", 4, SSF_OK},
      {"lengths 0 with pointers leave the fields null", "id", 2, "r", 0, "p", 0, "pw", 0, SSF_OK},
      {"empty id", "id", 0, nullptr, 0, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative id length", "id", -2, nullptr, 0, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative reserved length with a good id", "id", 2, "r", -1, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative profile length", "id", 2, nullptr, 0, "p", -1, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative password length", "id", 2, nullptr, 0, nullptr, 0, "p", -1, SSF_REC_INVALID_LENGTH},
      {"bytes promised and no pointer", "id", 2, nullptr, 0, nullptr, 3, nullptr, 0, SSF_REC_INVALID_LENGTH},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SsfInfo* info = reinterpret_cast<SsfInfo*>(0x1);
    ASSERT_EQ(api().SsfNEWSigRcpSsfInfo(c.id, c.idL, c.reserved, c.reservedL, c.profile, c.profileL, c.password,
                                        c.passwordL, 27, &info),
              c.rc);
    if (c.rc != SSF_OK) {
      EXPECT_EQ(info, nullptr);
      continue;
    }
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->strSigRcpId, info->strSigRcpIdL), std::string(c.id, c.idL));
    EXPECT_NE(info->strSigRcpId, c.id);  // a copy, not the caller's bytes
    EXPECT_EQ(info->Reserved == nullptr, c.reservedL == 0);
    EXPECT_EQ(info->Profile == nullptr, c.profileL == 0);
    EXPECT_EQ(info->Password == nullptr, c.passwordL == 0);
    if (c.passwordL > 0) {
      EXPECT_EQ(std::string(info->Password, info->PasswordL), std::string(c.password, c.passwordL));
    }
    EXPECT_EQ(info->Result, 27);
    EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_OK);
  }
}

TEST(DeleteRecord, WipesThePasswordWithBlanksAndNullsThePointer) {
  const std::string pin = "s3cr3t-PIN-0042";
  for (const bool as_list : {false, true}) {
    SCOPED_TRACE(as_list ? "SsfDELSigRcpSsfInfoList" : "SsfDELSigRcpSsfInfo");
    SsfInfo* info = make("CN=Signer", "My", pin);
    wipe_watch::seen_any = false;
    wipe_watch::watched_length = pin.size();
    __atomic_store_n(&wipe_watch::watched, static_cast<void*>(info->Password), __ATOMIC_SEQ_CST);
    if (as_list) {
      SsfInfoNode* list = nullptr;
      ASSERT_EQ(api().SsfINSSigRcpSsfInfo(info, &list), SSF_OK);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_OK);
      EXPECT_EQ(list, nullptr);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_REC_NULL_LIST);
    } else {
      EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_OK);
      EXPECT_EQ(info, nullptr);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_REC_NULL_INFO);
    }
    ASSERT_TRUE(__atomic_load_n(&wipe_watch::seen_any, __ATOMIC_SEQ_CST));
    EXPECT_EQ(std::string(wipe_watch::seen, pin.size()), std::string(pin.size(), ' '));
  }
}

TEST(PrintRecord, ExactTextByteForByte) {
  const std::string head = "Signer/Recipient Security Information :\nId        : ";
  const struct {
    const char* what;
    SsfInfo* info;
    std::string printed;
  } cases[] = {
      {"every field", make("CN=Ivanov", "uMy", "1234", 26, "rsv"),
       head + "CN=Ivanov (9)\nReserved  : rsv (3)\nProfile   : uMy (3)\n\n\nSigner/Recipient Result : NOCERTIFICATE\n\n\n"},
      // Only an id: no Reserved and no Profile line; the password never shows.
      {"id only", make("abc", "", "pin-never-shown"), head + "abc (3)\n\n\nSigner/Recipient Result : OK\n\n\n"},
      // An embedded NUL ends the bytes printed; the number stays the length.
      {"embedded NUL", make(std::string("ab\0cd", 5)), head + "ab (5)\n\n\nSigner/Recipient Result : OK\n\n\n"},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(print(c.info), c.printed);
    api().SsfDELSigRcpSsfInfo(&c.info);
  }
  EXPECT_EQ(api().SsfPRISigRcpSsfInfo(nullptr, nullptr, nullptr), SSF_REC_NULL_INFO);
}

// In the order of insertion, numbered from one; a node without a record ends
// the print, outputs untouched, but not the delete.
TEST(PrintList, InOrderAndStoppedByANodeWithoutARecord) {
  SsfInfoNode* list = nullptr;
  for (const char* id : {"A", "B", "C"}) ASSERT_EQ(api().SsfINSSigRcpSsfInfo(make(id), &list), SSF_OK);
  char* text = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(api().SsfPRISigRcpSsfInfoList(list, &text, &length), SSF_OK);
  EXPECT_EQ(text[length], '\0');
  std::string expected = "SIGNER/RECIPIENT SECURITY INFORMATION LIST :\n\n";
  int count = 0;
  for (const char* id : {"A", "B", "C"})
    expected += "=============\nSigner/Recipient : " + std::to_string(++count) + "\n=============\n" +
                "Signer/Recipient Security Information :\nId        : " + id +
                " (1)\n\n\nSigner/Recipient Result : OK\n\n\n";
  EXPECT_EQ(std::string(text, length), expected);
  api().SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);

  SsfInfo* second = list->next->info;
  list->next->info = nullptr;
  char sentinel = 0;
  text = &sentinel;
  length = 5;
  EXPECT_EQ(api().SsfPRISigRcpSsfInfoList(list, &text, &length), SSF_REC_NULL_INFO);
  EXPECT_EQ(text, &sentinel);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_OK);
  EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&second), SSF_OK);

  EXPECT_EQ(api().SsfPRISigRcpSsfInfoList(nullptr, &text, &length), SSF_REC_NULL_LIST);
  EXPECT_EQ(api().SsfINSSigRcpSsfInfo(nullptr, &list), SSF_REC_NULL_INFO);
  EXPECT_EQ(list, nullptr);
}

TEST(HostTool, RecordsCommandPrintsTheList) {
  int status = -1;
  const std::string out =
      run_command("BVSSF_LIBRARY='" BV_LIBRARY_PATH "' '" BV_TOOLS_DIR "/bvssf' records A:uMy B", &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("Signer/Recipient : 2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Profile   : uMy (3)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("SSF_OK"), std::string::npos) << out;
}

}  // namespace

}  // namespace bv::test
