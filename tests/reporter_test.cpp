// The reporter and its catalogue: which row a code prints, what it returns,
// and the texts of the last error.
#include "reporter.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <string>

#include "host.h"
#include "kernel32/kernel32.h"
#include "kernel32/message_texts.h"
#include "trace/table.h"
#include "trace/trace.h"

namespace {
using bv::test::CoreTrace;

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

struct CodeCase {
  int32_t code;
  const char* printed;  // UTF-8; null: no line at all
  int32_t returned;
};

TEST(ReportError, CatalogueCodesPrintTheirRow) {
  const CodeCase cases[] = {
      {0, nullptr, 0},
      {99, "Субъект:", 0x20000070},
      {900, "Субъект:", 0x20000070},
      {0x20000064, "Мало памяти.\n", 0x20000064},
      {502, "Неизвестный алгоритм подписи.\n", 502},
      {141, " Подпись проверена.\n", 141},
      {149, "Неизвестная ошибка.\n", 149},
      {700, "", 700},
      {708, "Сообщение содержит неверную подпись.\n", 708},
      {501, "Это не подписанное сообщение.\n", 501},
      {101, "Не удалось открыть файл ''.", 101},  // "%s" prints as empty
  };
  CoreTrace trace;
  for (const CodeCase& c : cases) {
    SCOPED_TRACE(c.code);
    trace.clear();
    EXPECT_EQ(ReportError("reporter_test", __LINE__, c.code), c.returned);
    if (c.printed == nullptr) {
      EXPECT_TRUE(trace.messages().empty()) << trace.dump();
      continue;
    }
    const auto lines = trace.messages();
    ASSERT_EQ(lines.size(), 1u) << trace.dump();
    EXPECT_EQ(lines[0], cp1251(c.printed));
  }
}

TEST(ReportError, PrintsUnderPrintStringAtLevel2) {
  {
    CoreTrace trace(TRACE_NORMAL);
    bv::trace::ProcessSettings process = bv::trace::read_process();
    process.file_name_and_line_no = true;
    bv::trace::write_process(process);
    ReportError("x", 1, 502);
    process.file_name_and_line_no = false;
    bv::trace::write_process(process);
    const auto lines = trace.messages();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("/PrintString/ bvsapssf("), std::string::npos) << lines[0];
  }
  {
    CoreTrace trace(TRACE_ALWAYS);
    ReportError("x", 1, 502);
    EXPECT_TRUE(trace.messages().empty()) << trace.dump();
  }
}

struct LastErrorCase {
  DWORD error;
  const char* printed;  // null: no line
};

TEST(ReportError, LastErrorPrintsThePlatformText) {
  const LastErrorCase cases[] = {
      {0, nullptr},
      {5, "Access is denied.\r\n"},
      {0x80092004, "Cannot find object or property.\r\n"},
      {0x8009200E, "The signed cryptographic message does not have a signer for the specified signer index.\r\n"},
      {12002, "The operation timed out\r\n"},
      {12157, "An error occurred in the secure channel support\r\n"},
      {12175, "Неизвестная ошибка.\n"},  // past the HTTP module's range, and no system text
      {0x12345678, "Неизвестная ошибка.\n"},
  };
  CoreTrace trace;
  for (const LastErrorCase& c : cases) {
    SCOPED_TRACE(c.error);
    trace.clear();
    SetLastError(c.error);
    EXPECT_EQ(ReportError("reporter_test", __LINE__, -1), static_cast<int32_t>(c.error));
    const auto lines = trace.messages();
    if (c.printed == nullptr) {
      EXPECT_TRUE(lines.empty()) << trace.dump();
      continue;
    }
    ASSERT_EQ(lines.size(), 1u) << trace.dump();
    EXPECT_EQ(lines[0], cp1251(c.printed));
  }
}

TEST(Catalogue, EveryTextFitsTheReporterBuffers) {
  for (int row = 0; row < bv::catalogue::kRows; ++row) {
    SCOPED_TRACE(row);
    EXPECT_LE(std::strlen(bv::catalogue::kRowsTable[row].russian), 127u);
    EXPECT_LE(std::strlen(bv::catalogue::kRowsTable[row].english), 127u);
  }
}

TEST(PlatformTexts, NoneHoldsAFormatDirective) {
  // The reporter passes these texts to the trace as the format.
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
  EXPECT_EQ(bv::platform::wininet_message_text(12175), nullptr);
  EXPECT_EQ(bv::platform::system_message_text(12175), nullptr);
}

}  // namespace
