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

namespace bv::test {
namespace {

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
      {149, 0, "Неизвестная ошибка.\n", 149},
      {700, 0, "", 700},
      {708, 0, "Сообщение содержит неверную подпись.\n", 708},
      {501, 0, "Это не подписанное сообщение.\n", 501},
      {101, 0, "Не удалось открыть файл ''.", 101},  // "%s" prints as empty
      {-1, 0, nullptr, 0},
      {-1, 5, "Access is denied.\r\n", 5},
      {-1, 0x80092004, "Cannot find object or property.\r\n", static_cast<int32_t>(0x80092004)},
      {-1, 0x8009200E, "The signed cryptographic message does not have a signer for the specified signer index.\r\n",
       static_cast<int32_t>(0x8009200E)},
      {-1, 12002, "The operation timed out\r\n", 12002},
      {-1, 12157, "An error occurred in the secure channel support\r\n", 12157},
      {-1, 12175, "Неизвестная ошибка.\n", 12175},  // past the HTTP module's range, and no system text
      {-1, 0x12345678, "Неизвестная ошибка.\n", 0x12345678},
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

}  // namespace bv::test
