// Settings at load: the trace's (where they come from, what they do to the
// lines, where the log file goes, the table the modules of a process share,
// bvtrace changing them in a running process) and the library's own
// (folders, ini files, the environment and their order of strength); the
// core's trace filter, line composition and output, and what a trace call
// must leave alone (the last error).
#include "trace/trace.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "advapi32/registry.h"
#include "atl.h"
#include "bvsapssf.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "kernel32/profile.h"
#include "shell32/shell32.h"
#include "trace/output.h"
#include "trace/table.h"

namespace bv::test {

namespace {
using namespace bv::trace;

constexpr const char* trace_function = "TraceTest";
constexpr const char* trace_file = "trace_test";

TEST(TraceFilter, DecidesByProcessModuleAndCategory) {
  const struct {
    const char* name;
    bool process_enabled;
    uint32_t process_level, module_status, module_level, category_status, category_level, line_level;
    bool passes;
  } cases[] = {
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
  for (const auto& c : cases) {
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
  // A category the table does not know drops the line.
  trace.clear();
  TracePrint(TraceSite("f", "file", 1), 4000, TRACE_ALWAYS, "never\n");
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
  const std::regex written(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d : bvsapssf_core: one\r\ntwo 80092004\r\n)");
  EXPECT_TRUE(std::regex_match(raw, written)) << raw;

  // A wide character the C locale cannot convert: formatting fails with
  // EILSEQ, none of the known reactions, and raises; the last error stays.
  SetLastError(1234);
  try {
    BV_TRACE(TRACE_NORMAL, "%lc\n", static_cast<wint_t>(0x10FFFF + 5));
    ADD_FAILURE() << "no exception";
  } catch (const CAtlException& e) {
    EXPECT_EQ(e.m_hr, E_FAIL);
  }
  EXPECT_EQ(GetLastError(), 1234u);
}

using Env = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

Env folders(const TempDir& dir) {
  return {{"BV_PLATFORM_COMMON_APPDATA", dir / "common"}, {"BV_PLATFORM_LOCAL_APPDATA", dir / "local"},
          {"BV_SSF_ADD_TSP", ""}};
}

void write_registry(const TempDir& dir, const Lines& lines) {
  write_file(dir / "common/Brelvantec/registry.reg", trace_registry_text(lines));
}

void write_trace_ini(const TempDir& dir, const char* folder, const std::string& body) {
  write_file(dir / (std::string(folder) + "/Brelvantec/Trace.ini"), "[Trace]\r\n" + body);
}

// An ssf.ini with the given lines.
std::string ini(const std::string& body) { return "[bvsapssf]\n" + body; }

// The text as UTF-16 behind its byte order mark.
std::string utf16(const std::string& text) {
  std::string bytes = "\xFF\xFE";
  for (const char c : text) bytes += {c, '\0'};
  return bytes;
}

}  // namespace

// Each source alone and in pairs, a settings file named by the registry, and
// the process flags; the log file shows what got through and in what shape.
TEST(TraceSettings, WhereTheSettingComesFromAndWhatItPasses) {
  const std::string log_key = "\"libbvsapssf.so.logfile\"=\"t.log\"", ini_log = "libbvsapssf.so.logfile=t.log\r\n";
  const auto level = [](const std::string& value) { return "\"libbvsapssf.so\"=" + value; };
  const auto flags = [&](const char* dword) {
    return Lines{level("\"2\""), log_key, std::string("\"ProcessFlags\"=dword:0000000") + dword};
  };
  // Settings files: the process line, and the one module "Ours" that is this library.
  const auto process = [](const std::string& info) {
    return "[Process]\r\nInfo=" + info + ", FuncAndCategoryNames:f, FileNameAndLineNo:f\r\n";
  };
  const auto ours = [](const std::string& settings) {
    return "Module1=Ours\r\n[Ours]\r\nName=libbvsapssf.so\r\nSettings=" + settings + "\r\n";
  };
  const std::string one = process("ModuleCount:1, Level:0, Enabled:t");
  const std::string stamp = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d : libbvsapssf\.so: )";
  const std::string site = R"(\{\d+\} /SsfQueryProperties/ ssfxxmain\(\d+\) : )";
  const std::string category = "BVTraceGeneral: ", start = R"(\*+#start#\*+\r\n)";
  const struct {
    const char* name;
    Lines registry;                          // empty: no registry file
    std::string common_ini, local_ini, trc;  // empty: no file; a settings file is named by the registry
    bool log_opened = true;                  // only a module that has a setting opens its log file
    int shown = 3;                           // 0: nothing; 2: the banners; 3: the parameters too
    std::string first_line;                  // a pattern the log starts with, if any
  } cases[] = {
      {.name = "no settings anywhere", .log_opened = false, .shown = 0},
      {.name = "registry 2 drops level 3", .registry = {level("\"2\""), log_key}, .shown = 2},
      {.name = "registry 0 drops everything", .registry = {level("\"0\""), log_key}, .shown = 0},
      {.name = "registry 5 names a settings file that is not there", .registry = {level("\"5\""), log_key},
       .shown = 0},
      {.name = "an empty registry value means level 3", .registry = {level("\"\""), log_key}},
      {.name = "a registry value of another type is no setting", .registry = {level("dword:00000004"), log_key},
       .log_opened = false, .shown = 0},
      {.name = "registry value names without case", .registry = {"\"LIBBVSAPSSF.SO\"=\"4\"", log_key}},
      {.name = "common Trace.ini", .common_ini = "libbvsapssf.so=3\r\n" + ini_log},
      {.name = "local Trace.ini", .common_ini = ini_log, .local_ini = "libbvsapssf.so=2\r\n", .shown = 2},
      {.name = "common Trace.ini before the local one", .common_ini = "libbvsapssf.so=2\r\n" + ini_log,
       .local_ini = "libbvsapssf.so=4\r\n", .shown = 2},
      {.name = "registry before Trace.ini", .registry = {level("\"2\""), log_key}, .common_ini = "libbvsapssf.so=4\r\n",
       .shown = 2},
      {.name = "log file name from Trace.ini when the registry has none", .registry = {level("\"4\"")},
       .common_ini = ini_log},
      {.name = "a log file name alone opens nothing", .registry = {log_key}, .log_opened = false, .shown = 0},
      {.name = "settings file: module level 3", .trc = one + ours("CategoryCount:0, Level:3, Status:1")},
      {.name = "settings file in UTF-16", .trc = utf16(one + ours("CategoryCount:0, Level:3, Status:1"))},
      {.name = "settings file: module name without case",
       .trc = one + "Module1=M\r\n[M]\r\nName=LIBBVSAPSSF.SO\r\nSettings=CategoryCount:0, Level:2, Status:1\r\n",
       .shown = 2},
      {.name = "settings file: a disabled category silences the module",
       .trc = one + ours("CategoryCount:1, Level:4, Status:1\r\nCategory1=Level:0, Status:2, Name:BVTraceGeneral"),
       .shown = 0},
      {.name = "settings file: an enabled category speaks for a disabled module",
       .trc = one + ours("CategoryCount:1, Level:0, Status:7\r\nCategory1=Level:3, Status:1, Name:BVTraceGeneral")},
      {.name = "settings file: the process level for an inheriting module",
       .trc = process("ModuleCount:0, Level:2, Enabled:t"), .shown = 2},
      {.name = "settings file: a process that is not enabled", .trc = process("ModuleCount:0, Level:4, Enabled:f"),
       .shown = 0},
      // Counts beyond what the table holds load at once, as far as the table goes.
      {.name = "settings file: a huge module count",
       .trc = process("ModuleCount:4294967295, Level:0, Enabled:t") + ours("CategoryCount:0, Level:3, Status:1")},
      {.name = "settings file: a huge category count",
       .trc = one + ours("CategoryCount:4294967295, Level:3, Status:1")},
      {.name = "settings file: an Info line that does not parse",
       .trc = "[Process]\r\nInfo=ModuleCount:x\r\n" + ours("CategoryCount:0, Level:4, Status:1"), .shown = 0},
      {.name = "process flags 1", .registry = flags("1"), .shown = 2, .first_line = stamp + category + start},
      {.name = "process flags 2", .registry = flags("2"), .shown = 2, .first_line = stamp + site + start},
      {.name = "process flags: a 0 from the registry stands", .registry = flags("0"),
       .common_ini = "ProcessFlags=3\r\n", .shown = 2, .first_line = stamp + start},
      {.name = "process flags from Trace.ini when the registry has no value",
       .registry = {level("\"2\""), log_key}, .common_ini = "ProcessFlags=3\r\n", .shown = 2,
       .first_line = stamp + site + category + start},
      {.name = "process flags from Trace.ini when the registry value is no DWORD",
       .registry = {level("\"2\""), log_key, "\"ProcessFlags\"=\"3\""}, .common_ini = "ProcessFlags=1\r\n",
       .shown = 2, .first_line = stamp + category + start},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    Lines registry = c.registry;
    if (!c.trc.empty()) {
      write_file(dir / "settings.trc", c.trc);
      registry = {level("\"" + (dir / "settings.trc") + "\""), log_key};
    }
    if (!registry.empty()) write_registry(dir, registry);
    if (!c.common_ini.empty()) write_trace_ini(dir, "common", c.common_ini);
    if (!c.local_ini.empty()) write_trace_ini(dir, "local", c.local_ini);
    // A load that does not end within seconds ends the child.
    const auto child = run_isolated(folders(dir), [] { alarm(10), query_formats(); });
    ASSERT_EQ(child.exit_code, 0);
    EXPECT_EQ(child.stderr_text, "") << "the lines go to the log file or nowhere";
    const std::string log_path = dir / "common/Brelvantec/LogFiles/t.log", log = read_file(log_path);
    EXPECT_EQ(access(log_path.c_str(), F_OK) == 0, c.log_opened);
    EXPECT_EQ(contains(log, "#start#"), c.shown >= 2) << log;
    EXPECT_EQ(contains(log, "bvsapssf parameters:"), c.shown >= 3) << log;
    if (!c.first_line.empty()) {
      EXPECT_TRUE(std::regex_search(log, std::regex("^" + c.first_line))) << log;
    }
  }
}

TEST(TraceSettings, WhereTheLogFileGoes) {
  const struct {
    const char* name;
    std::string log_name;  // "@" stands for the test's folder; "" for none
    bool block_common;     // a file where the common LogFiles folder would be
    std::string expected;  // relative to the test's folder; "" for standard error
  } cases[] = {
      {"a bare name goes to the common folder", "x.log", false, "common/Brelvantec/LogFiles/x.log"},
      {"else to the local one", "x.log", true, "local/Brelvantec/LogFiles/x.log"},
      {"a name with a slash is a path", "@/elsewhere/y.log", false, "elsewhere/y.log"},
      {"a path that cannot be opened leaves standard error", "/nonexistent-folder/y.log", false, ""},
      {"no name: standard error", "", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string name = c.log_name[0] == '@' ? dir.path() + c.log_name.substr(1) : c.log_name;
    Lines registry{"\"libbvsapssf.so\"=\"2\""};
    if (!name.empty()) registry.push_back("\"libbvsapssf.so.logfile\"=\"" + name + "\"");
    write_registry(dir, registry);
    if (c.block_common) write_file(dir / "common/Brelvantec/LogFiles", "not a folder");
    if (!c.expected.empty()) write_file(dir / c.expected, "kept\r\n");
    const auto child = run_isolated(folders(dir), query_formats);
    ASSERT_EQ(child.exit_code, 0);
    if (c.expected.empty()) {
      // The lines unchanged: no time stamp, no "\r".
      EXPECT_EQ(child.stderr_text, "libbvsapssf.so: ****************#start#****************\n"
                                   "libbvsapssf.so: ++++++++++++++++#success#++++++++++++++++\n");
      continue;
    }
    const std::string log = read_file(dir / c.expected);
    EXPECT_EQ(log.rfind("kept\r\n", 0), 0u) << "existing contents stay: " << log;
    EXPECT_TRUE(contains(log, "#success#")) << log;
    EXPECT_EQ(child.stderr_text, "");
  }
}

// The library creates its process's table; another module of the same
// process (here this program's own copy of the core) joins it and sees the
// library's record; the table goes with the last module.
TEST(TraceTable, SharedByTheModulesOfAProcessAndRemovedWithThem) {
  TempDir dir;
  const std::string pid_file = dir / "pid";
  const auto child = run_isolated(trace_env(dir, 4), [&] {
    SsfApi::get();
    write_file(pid_file, std::to_string(getpid()));
    struct stat info{};
    ASSERT_EQ(stat(("/dev/shm" + bv::trace::table_name(getpid())).c_str(), &info), 0);
    ASSERT_TRUE(bv::trace::attach());
    const int library = bv::trace::find_module("libbvsapssf.so", false);
    ASSERT_NE(library, bv::trace::kNoId);
    bv::trace::ModuleRecord record{};
    ASSERT_TRUE(bv::trace::read_module(library, record));
    EXPECT_EQ(record.level, 4u);
    EXPECT_EQ(record.status, bv::trace::kStatusEnabled);
    EXPECT_EQ(bv::trace::register_module("second.so", "/x/second.so"), library + 1);
    int categories = 0;
    bv::trace::for_each_category(library, [&](int, const bv::trace::CategoryRecord& c) {
      EXPECT_TRUE(std::string(c.name) == "BVTraceGeneral" || std::string(c.name) == "BVTraceSnapin") << c.name;
      ++categories;
    });
    EXPECT_EQ(categories, 2);
    std::fflush(nullptr);
    std::exit(::testing::Test::HasFailure() ? 1 : 0);  // runs the modules' exit code
  });
  ASSERT_EQ(child.exit_code, 0) << child.stderr_text;
  const pid_t pid = static_cast<pid_t>(std::stoi(read_file(pid_file)));
  struct stat info{};
  EXPECT_NE(stat(("/dev/shm" + bv::trace::table_name(pid)).c_str(), &info), 0);
}

TEST(Registry, ReadsTheTextFormOfAnExport) {
  TempDir dir;
  const std::string text =
      "Windows Registry Editor Version 5.00\r\n\r\n"
      "; comment\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Brelvantec\\Trace]\r\n"
      "\"text\"=\"C:\\\\logs\\\\a \\\"b\\\"\"\r\n"
      "\"number\"=dword:0000002a\r\n"
      "\"expand\"=hex(2):25,00,41,00,\\\r\n  25,00,00,00\r\n"
      "@=\"default\"\r\n"
      "[hkey_local_machine\\software\\brelvantec\\trace]\r\n"
      "\"number\"=dword:00000007\r\n";
  write_file(dir / "Brelvantec/registry.reg", text);
  const auto child = run_isolated({{"BV_PLATFORM_COMMON_APPDATA", dir.path()}}, [] {
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Brelvantec\\Trace", 0, KEY_READ, &key), ERROR_SUCCESS);
    struct Case {
      const char* name;
      LONG result;
      DWORD type;
      std::string data;
    } const cases[] = {
        {"text", ERROR_SUCCESS, REG_SZ, std::string("C:\\logs\\a \"b\"\0", 14)},
        {"NUMBER", ERROR_SUCCESS, REG_DWORD, std::string("\x07\0\0\0", 4)},
        {"expand", ERROR_SUCCESS, REG_EXPAND_SZ, std::string("%A%\0", 4)},
        {"", ERROR_SUCCESS, REG_SZ, std::string("default\0", 8)},
        {"absent", ERROR_FILE_NOT_FOUND, REG_NONE, ""},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      DWORD type = REG_NONE;
      DWORD size = 0;
      ASSERT_EQ(RegQueryValueExA(key, c.name, nullptr, &type, nullptr, &size), c.result);
      if (c.result != ERROR_SUCCESS) continue;
      EXPECT_EQ(type, c.type);
      ASSERT_EQ(size, c.data.size());
      std::string data(size, '\0');
      EXPECT_EQ(RegQueryValueExA(key, c.name, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size),
                ERROR_SUCCESS);
      EXPECT_EQ(data, c.data);
    }
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
  });
  EXPECT_EQ(child.exit_code, 0);
}

namespace {

const std::string kTool = BV_TOOLS_DIR "/bvtrace";

// `command` with "PID" replaced by the calling process's id.
int run_tool(std::string command, std::string* output = nullptr) {
  const size_t at = command.find("PID");
  if (at != std::string::npos) command.replace(at, 3, std::to_string(getpid()));
  int status = -1;
  const std::string text = run_command(kTool + " " + command + " 2>&1", &status);
  if (output != nullptr) *output = text;
  return status;
}

}  // namespace

TEST(Bvtrace, TheNextLineObeys) {
  struct Case {
    const char* name;
    int level;  // the module's setting at load
    const char* command;
    bool before;        // a banner before the command
    const char* after;  // a part of the banner after it; "" for none
  } const cases[] = {
      {"raise the module", 1, "set PID libbvsapssf.so 4 1", false, "libbvsapssf.so: ****************#start#"},
      {"the module's name without case", 1, "set PID LIBBVSAPSSF.SO 2 enabled", false, "#start#"},
      {"enable the category", 1, "set PID BVTraceGeneral 2 1", false, "#start#"},
      {"disable the category", 4, "set PID BVTraceGeneral 0 disabled", true, ""},
      {"both line parts", 4, "flags PID 3", true, "libbvsapssf.so: {"},
      {"the process level for an inheriting module", 1, "set PID libbvsapssf.so 0 0", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const auto child = run_isolated(trace_env(dir, c.level), [&] {
      query_formats();
      const size_t before = trace_log(dir).size();
      std::string output;
      ASSERT_EQ(run_tool(c.command, &output), 0) << output;
      query_formats();
      const std::string log = trace_log(dir);
      EXPECT_EQ(contains(log.substr(0, before), "#start#"), c.before) << log;
      const std::string added = log.substr(before);
      EXPECT_EQ(contains(added, "#start#"), *c.after != '\0') << log;
      EXPECT_TRUE(contains(added, c.after)) << log;
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  }
}

// What `list` shows, and what the tool refuses, with the code it exits with.
TEST(Bvtrace, ListsAndRefuses) {
  TempDir dir;
  const auto child = run_isolated(trace_env(dir, 3, 1), [] {
    SsfApi::get();
    const struct {
      const char* command;
      int status;
      const char* message;
    } cases[] = {
        {"list PID", 0, "flags 1 (category names on, file and line off)"},
        {"list PID", 0, "module libbvsapssf.so: level 3, status 1 enabled"},
        {"list PID", 0, "category BVTraceGeneral: level 0, status 0 inherit"},
        {"list PID", 0, "category BVTraceSnapin: level 0, status 0 inherit"},
        {"set PID NoSuchName 4 1", 1, "has no module or category NoSuchName"},
        {"set PID libbvsapssf.so 4 7", 2, "usage"},
        {"flags PID 4", 2, "usage"},
        {"set 1 libbvsapssf.so 4 1", 1, "has no trace table"},
        {"list notapid", 2, "not a process id"},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.command);
      std::string output;
      EXPECT_EQ(run_tool(c.command, &output), c.status) << output;
      EXPECT_TRUE(contains(output, c.message)) << output;
    }
  });
  EXPECT_EQ(child.exit_code, 0);
}

// A tool that waits learns of a process that loads the library.
TEST(Bvtrace, WaitsForAProcessToAnnounceItself) {
  sem_unlink(bv::trace::kAnnounceSemaphore);
  FILE* waiting = popen((kTool + " wait 20").c_str(), "r");
  ASSERT_NE(waiting, nullptr);
  // The tool creates the semaphore before it waits.
  for (int i = 0; i < 200; ++i) {
    sem_t* event = sem_open(bv::trace::kAnnounceSemaphore, 0);
    if (event != SEM_FAILED) {
      sem_close(event);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  TempDir dir;
  EXPECT_EQ(run_isolated(trace_env(dir, 1), [] { SsfApi::get(); }).exit_code, 0);
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, waiting) != nullptr;
  EXPECT_EQ(pclose(waiting), 0);
  ASSERT_TRUE(read);
  EXPECT_STREQ(line, "announced\n");
}

TEST(Config, SourcesAndTheirStrength) {
  struct Expected {
    DWORD verify_flags = 0x40000000;
    DWORD on_select = 0x40000000;
    int32_t on_sign = 1;
    DWORD acceptable = 0;
    bool user_id_as_hash = false;
    bool ask_pin = false;
    std::vector<std::string> tsp;
  };
  struct Case {
    const char* name;
    Env env;
    std::optional<std::string> local_ini, common_ini;
    Expected expected;
  };
  const std::string long_list = std::string(200, 'a') + ";" + std::string(100, 'b');  // 301 characters
  const auto none = std::nullopt;
  const std::vector<Case> cases = {
      {"nothing anywhere gives the defaults", {}, none, none, {}},
      {"environment, every key",
       {{"BV_SSF_USERID", "CERT_HASH"}, {"BV_SSF_VERIFYCERTFLAGS", "1234abcz"},
        {"BV_SSF_VERIFYCERTACCEPTABLESTATUS", "ff"}, {"BV_SSF_VERIFYCERTFLAGS_ONSELECT", "20000000xyz"},
        {"BV_SSF_ASK_PIN_WHEN_EMPTY", "yes"}, {"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "no"},
        {"BV_SSF_ADD_TSP", "http://a;http://b"}},
       none, none,
       {.verify_flags = 0x1234abc, .on_select = 0x20000000, .on_sign = 0, .acceptable = 0xff,
        .user_id_as_hash = true, .ask_pin = true, .tsp = {"http://a", "http://b"}}},
      {"environment values that switch nothing",
       {{"BV_SSF_USERID", "cert_hash"}, {"BV_SSF_VERIFYCERTFLAGS", "zz10"}, {"BV_SSF_ASK_PIN_WHEN_EMPTY", "01"},
        {"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "maybe"}},
       none, none, {}},
      {"a file switches CERT_HASH off again", {{"BV_SSF_USERID", "CERT_HASH"}}, ini("BV_SSF_USERID=cert_hash\n"), none,
       {}},
      {"a file switches signing verification back on", {{"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "0"}}, none,
       ini("BV_SSF_VERIFYCERTFLAGS_ONSIGN=YES\n"), {}},
      {"a file switches the PIN question off with any other word", {{"BV_SSF_ASK_PIN_WHEN_EMPTY", "1"}},
       ini("BV_SSF_ASK_PIN_WHEN_EMPTY=nope\n"), none, {}},
      {"the common file beats the local one and the environment",
       {{"BV_SSF_VERIFYCERTFLAGS", "1"}, {"BV_SSF_ADD_TSP", "env1;env2"}},
       ini("BV_SSF_VERIFYCERTFLAGS=2\nBV_SSF_VERIFYCERTACCEPTABLESTATUS=7\nBV_SSF_ADD_TSP=local\n"),
       ini("BV_SSF_VERIFYCERTFLAGS=3\nBV_SSF_ADD_TSP=common1;common2\n"),
       {.verify_flags = 3, .acceptable = 7, .tsp = {"common1", "common2"}}},
      {"an empty or unparsable value in a file changes nothing",
       {{"BV_SSF_ADD_TSP", "env"}, {"BV_SSF_VERIFYCERTFLAGS", "5"}}, ini("BV_SSF_ADD_TSP=\nBV_SSF_VERIFYCERTFLAGS=xyz\n"),
       none, {.verify_flags = 5, .tsp = {"env"}}},
      {"separators at the start, doubled and at the end", {{"BV_SSF_ADD_TSP", ";a;;b;"}}, none, none,
       {.tsp = {"", "a", "", "b"}}},
      {"a value of more than 259 characters is cut", {}, none, ini("BV_SSF_ADD_TSP=" + long_list + "\n"),
       {.tsp = {std::string(200, 'a'), std::string(58, 'b')}}},
      {"section and key names without case, blanks and quotes dropped", {},
       "; a comment\n[BVSapSSF]\n  bv_ssf_userid = \"CERT_HASH\"  \n", none, {.user_id_as_hash = true}},
      {"a UTF-16 file with its byte order mark", {}, none,
       utf16("[bvsapssf]\r\nBV_SSF_VERIFYCERTFLAGS_ONSELECT=c0000000\r\n"), {.on_select = 0xc0000000}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    if (c.local_ini) write_file(dir / "local/Brelvantec/ssf.ini", *c.local_ini);
    if (c.common_ini) write_file(dir / "common/Brelvantec/ssf.ini", *c.common_ini);
    const Expected& want = c.expected;
    auto env = trace_env(dir, 0);
    for (const auto& [name, value] : c.env) env[name] = value;
    const auto child = run_isolated(env, [&] {
      const Config config;
      EXPECT_EQ(config.VerifyCertFlags, want.verify_flags);
      EXPECT_EQ(config.VerifyCertFlagsOnSelect, want.on_select);
      EXPECT_EQ(config.VerifyCertOnSign, want.on_sign);
      EXPECT_EQ(config.AcceptableCertStatus, want.acceptable);
      EXPECT_EQ(config.UserIdAsCertHash, want.user_id_as_hash);
      EXPECT_EQ(config.globalAskPinWhenEmpty, want.ask_pin);
      EXPECT_EQ(config.additionalTSP, want.tsp);
    });
    EXPECT_EQ(child.exit_code, 0);
  }
}

TEST(Folders, WhereTheTwoFoldersLie) {
  struct Case {
    const char* name;
    Env env;
    int folder;
    std::string expected;  // "" for a failure
  } const cases[] = {
      {"own variable first", {{"BV_PLATFORM_LOCAL_APPDATA", "/x/own"}, {"XDG_DATA_HOME", "/x/xdg"}}, CSIDL_LOCAL_APPDATA, "/x/own"},
      {"then XDG_DATA_HOME", {{"BV_PLATFORM_LOCAL_APPDATA", ""}, {"XDG_DATA_HOME", "/x/xdg/"}}, CSIDL_LOCAL_APPDATA, "/x/xdg"},
      {"a relative XDG_DATA_HOME is ignored",
       {{"BV_PLATFORM_LOCAL_APPDATA", ""}, {"XDG_DATA_HOME", "rel"}, {"HOME", "/x/home"}},
       CSIDL_LOCAL_APPDATA,
       "/x/home/.local/share"},
      {"nothing to go by", {{"BV_PLATFORM_LOCAL_APPDATA", ""}, {"XDG_DATA_HOME", ""}, {"HOME", ""}}, CSIDL_LOCAL_APPDATA, ""},
      {"common: own variable", {{"BV_PLATFORM_COMMON_APPDATA", "/x/common"}}, CSIDL_COMMON_APPDATA, "/x/common"},
      {"common: /var/opt", {{"BV_PLATFORM_COMMON_APPDATA", ""}}, CSIDL_COMMON_APPDATA, "/var/opt"},
      {"a folder this platform does not know", {}, 0x0005, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto child = run_isolated(c.env, [&] {
      char path[MAX_PATH] = "untouched";
      const HRESULT hr = SHGetFolderPathA(nullptr, c.folder, nullptr, SHGFP_TYPE_CURRENT, path);
      EXPECT_EQ(hr == S_OK, !c.expected.empty());
      EXPECT_EQ(std::string(path), c.expected);
    });
    EXPECT_EQ(child.exit_code, 0);
  }
}

TEST(Profile, ReadsAsWindowsReads) {
  TempDir dir;
  const std::string file = dir / "test.ini";
  write_file(file, "[One]\r\nkey=value\r\nlong=abcdefghij\r\nempty=\r\nkey=second\r\n[two]\nX = 'quoted' \n");
  struct Case {
    const char* section;
    const char* key;
    const char* fallback;
    DWORD result;
    const char* text;
    DWORD error;
  } const cases[] = {
      {"one", "KEY", "", 5, "value", ERROR_SUCCESS},      // first occurrence, no case
      {"One", "empty", "dflt", 0, "", ERROR_SUCCESS},      // empty but present
      {"One", "absent", "dflt  ", 4, "dflt", ERROR_FILE_NOT_FOUND},
      {"two", "x", "", 6, "quoted", ERROR_SUCCESS},
      {"three", "x", nullptr, 0, "", ERROR_FILE_NOT_FOUND},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.section) + "/" + c.key);
    char buffer[260] = "junk";
    EXPECT_EQ(GetPrivateProfileStringA(c.section, c.key, c.fallback, buffer, sizeof buffer, file.c_str()), c.result);
    EXPECT_STREQ(buffer, c.text);
    EXPECT_EQ(GetLastError(), c.error);
  }
  char buffer[64];
  EXPECT_EQ(GetPrivateProfileStringA("One", "key", "d", buffer, sizeof buffer, (dir / "missing.ini").c_str()), 1u);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  // Key names of a section, each with its NUL and one more at the end.
  const DWORD length = GetPrivateProfileStringA("one", nullptr, "", buffer, sizeof buffer, file.c_str());
  EXPECT_EQ(std::string(buffer, length + 1), std::string("key\0long\0empty\0", 16));
}

// The whole load: what the library prints of its settings comes first in
// the log, at level 3, with each extra time-stamp address at level 2.
TEST(Config, PrintedFirstAtLoad) {
  TempDir dir;
  auto env = trace_env(dir, 3);
  env["BV_SSF_ADD_TSP"] = "http://tsp1;http://tsp2";
  env["BV_SSF_USERID"] = "CERT_HASH";
  write_file(dir / "common/Brelvantec/ssf.ini", ini("BV_SSF_VERIFYCERTACCEPTABLESTATUS=1A\n"));
  const auto child = run_isolated(env, [] { SsfApi::get(); });
  ASSERT_EQ(child.exit_code, 0);
  const std::string log = trace_log(dir);
  const std::vector<std::string> expected = {
      "#info#: bvsapssf parameters: UserIdAsCertHash = 1\n",
      "#info#: bvsapssf parameters: VerifyCertFlags = 40000000\n",
      "#info#: bvsapssf parameters: VerifyCertOnSign = 1\n",
      "#info#: bvsapssf parameters: AcceptableCertStatus = 1a\n",
      "#info#: bvsapssf parameters: VerifyCertFlagsOnSelect = 40000000\n",
      "#info#: bvsapssf parameters: globalAskPinWhenEmpty = 0\n",
      "#info#: bvsapssf parameters: additionalTSP count = 2\n",
      "#info#: bvsapssf parameters: additionalTSP  = http://tsp1\n",
      "#info#: bvsapssf parameters: additionalTSP  = http://tsp2\n",
  };
  EXPECT_EQ(log_messages(log), expected) << log;

  // At level 2 only the addresses remain.
  TempDir quiet;
  auto quiet_env = trace_env(quiet, 2);
  quiet_env["BV_SSF_ADD_TSP"] = "http://tsp1";
  ASSERT_EQ(run_isolated(quiet_env, [] { SsfApi::get(); }).exit_code, 0);
  const std::string quiet_log = trace_log(quiet);
  EXPECT_NE(quiet_log.find("additionalTSP  = http://tsp1\r\n"), std::string::npos) << quiet_log;
}

}  // namespace bv::test
