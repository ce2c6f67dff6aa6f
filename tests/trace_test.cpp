// The trace call of the core: filter, line composition, output, and what a
// trace call must leave alone (the last error).
#include "trace/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "atl.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "trace/output.h"
#include "trace/table.h"

namespace bv::test {

namespace {
using namespace bv::trace;

constexpr const char* trace_function = "TraceTest";
constexpr const char* trace_file = "trace_test";

struct FilterCase {
  const char* name;
  bool process_enabled;
  uint32_t process_level;
  uint32_t module_status;
  uint32_t module_level;
  uint32_t category_status;
  uint32_t category_level;
  uint32_t line_level;
  bool passes;
};

TEST(TraceFilter, DecidesByProcessModuleAndCategory) {
  const FilterCase cases[] = {
      {"nothing set: level 0 everywhere", true, 0, kStatusInherit, 0, kStatusInherit, 0, 1, false},
      {"process level reaches the line", true, 3, kStatusInherit, 0, kStatusInherit, 0, 3, true},
      {"process level below the line", true, 3, kStatusInherit, 0, kStatusInherit, 0, 4, false},
      {"process threshold off", false, 4, kStatusInherit, 0, kStatusInherit, 0, 1, false},
      {"module enabled at 3, line 3", true, 0, kStatusEnabled, 3, kStatusInherit, 0, 3, true},
      {"module enabled at 3, line 4", true, 0, kStatusEnabled, 3, kStatusInherit, 0, 4, false},
      {"module enabled at 0 drops everything", true, 4, kStatusEnabled, 0, kStatusInherit, 0, 1, false},
      {"module disabled beats the process", true, 4, kStatusDisabled, 4, kStatusInherit, 0, 1, false},
      {"category enabled beats a disabled module", true, 0, kStatusDisabled, 0, kStatusEnabled, 2, 2, true},
      {"category enabled, line above it", true, 0, kStatusDisabled, 0, kStatusEnabled, 2, 3, false},
      {"category disabled silences an enabled module", true, 4, kStatusEnabled, 4, kStatusDisabled, 4, 1, false},
      {"category enabled does not need the process", false, 0, kStatusInherit, 0, kStatusEnabled, 4, 4, true},
      {"enabled module ignores the process threshold", false, 0, kStatusEnabled, 2, kStatusInherit, 0, 2, true},
  };
  CoreTrace trace;
  const ProcessSettings saved = read_process();
  for (const FilterCase& c : cases) {
    SCOPED_TRACE(c.name);
    ProcessSettings process = saved;
    process.enabled = c.process_enabled;
    process.level = c.process_level;
    write_process(process);
    set_module(module_id(), c.module_level, c.module_status);
    set_category(static_cast<int>(BVTraceGeneral), c.category_level, c.category_status);
    trace.clear();
    BV_TRACE(c.line_level, "filtered line\n");
    EXPECT_EQ(trace.messages().size(), c.passes ? 1u : 0u) << trace.dump();
  }
  write_process(saved);
  set_category(static_cast<int>(BVTraceGeneral), 0, kStatusInherit);
}

TEST(TraceFilter, UnknownCategoryDropsTheLine) {
  CoreTrace trace;
  const TraceSite site("f", "file", 1);
  TracePrint(site, 4000, TRACE_ALWAYS, "never\n");
  EXPECT_TRUE(trace.messages().empty()) << trace.dump();
}

// Lines as the log file holds them: cut at 1023 characters with or without
// the site, "\n" as "\r\n", a time stamp in front; the last error kept.
TEST(TraceOutput, LinesInTheLogFile) {
  CoreTrace trace;
  const ProcessSettings saved = read_process();
  for (const bool file_and_line : {false, true}) {
    SCOPED_TRACE(file_and_line ? "with site" : "message only");
    ProcessSettings process = saved;
    process.file_name_and_line_no = file_and_line;
    process.func_and_category_names = true;
    write_process(process);
    trace.clear();
    BV_TRACE(TRACE_NORMAL, "%s", std::string(3000, 'x').c_str());
    const std::string raw = trace.raw();
    ASSERT_GT(raw.size(), 22u);
    EXPECT_EQ(raw.substr(22).size(), 1023u);
    EXPECT_EQ(raw.back(), 'x');
  }
  write_process(saved);

  trace.clear();
  for (const uint32_t level : {static_cast<uint32_t>(TRACE_NORMAL), 99u}) {  // written, and dropped by the filter
    SetLastError(0x80092004);
    BV_TRACE(level, "one\ntwo %08x\n", GetLastError());
    EXPECT_EQ(GetLastError(), 0x80092004u);
  }
  const std::string raw = trace.raw();
  EXPECT_EQ(raw.size(), 22 + std::string("bvsapssf_core: one\r\ntwo 80092004\r\n").size()) << raw;
  EXPECT_TRUE(contains(raw, ": one\r\ntwo 80092004\r\n")) << raw;
  // "YYYY/MM/DD hh:mm:ss : " in front.
  for (const size_t digit : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18}) EXPECT_TRUE(isdigit(raw[digit])) << raw;
  EXPECT_EQ(raw.substr(4, 1) + raw.substr(7, 1) + raw.substr(13, 1) + raw.substr(16, 1) + raw.substr(19, 3), "//:: : ");
}

TEST(TraceErrno, FailedFormattingRaisesAndKeepsTheLastError) {
  CoreTrace trace;
  SetLastError(1234);
  // A wide character the C locale cannot convert: formatting fails with
  // EILSEQ, which is none of the known reactions.
  try {
    BV_TRACE(TRACE_NORMAL, "%lc\n", static_cast<wint_t>(0x10FFFF + 5));
    ADD_FAILURE() << "no exception";
  } catch (const CAtlException& e) {
    EXPECT_EQ(e.m_hr, E_FAIL);
  }
  EXPECT_EQ(GetLastError(), 1234u);
}

}  // namespace

}  // namespace bv::test
