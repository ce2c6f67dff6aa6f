// Where trace settings come from at load, what they do to the lines, where
// the log file goes, and the table the modules of a process share.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "advapi32/registry.h"
#include "host.h"
#include "trace/table.h"

namespace bv::test {

namespace {

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

std::string common_log(const TempDir& dir, const char* name = "t.log") {
  return read_file(dir / (std::string("common/Brelvantec/LogFiles/") + name));
}

}  // namespace

// Each source alone and in pairs; the log file shows what got through.
TEST(TraceSettings, WhereTheSettingComesFromAndWhatItPasses) {
  const std::string log_key = "\"libbvsapssf.so.logfile\"=\"t.log\"", ini_log = "libbvsapssf.so.logfile=t.log\r\n";
  const auto level = [](const char* value) { return std::string("\"libbvsapssf.so\"=") + value; };
  const struct {
    const char* name;
    Lines registry;          // empty: no registry file
    std::string common_ini, local_ini;  // empty: no file
    bool log_opened;  // only a module that has a setting opens its log file
    bool banners;     // level 2
    bool parameters;  // level 3
  } cases[] = {
      {"no settings anywhere", {}, "", "", false, false, false},
      {"registry 3", {level("\"3\""), log_key}, "", "", true, true, true},
      {"registry 2 drops level 3", {level("\"2\""), log_key}, "", "", true, true, false},
      {"registry 0 drops everything", {level("\"0\""), log_key}, "", "", true, false, false},
      {"registry 5 names a settings file that is not there", {level("\"5\""), log_key}, "", "", true, false, false},
      {"an empty registry value means level 3", {level("\"\""), log_key}, "", "", true, true, true},
      {"a registry value of another type is no setting", {level("dword:00000004"), log_key}, "", "", false, false, false},
      {"registry value names without case", {"\"LIBBVSAPSSF.SO\"=\"4\"", log_key}, "", "", true, true, true},
      {"common Trace.ini", {}, "libbvsapssf.so=3\r\n" + ini_log, "", true, true, true},
      {"local Trace.ini", {}, ini_log, "libbvsapssf.so=2\r\n", true, true, false},
      {"common Trace.ini before the local one", {}, "libbvsapssf.so=2\r\n" + ini_log, "libbvsapssf.so=4\r\n", true, true, false},
      {"registry before Trace.ini", {level("\"2\""), log_key}, "libbvsapssf.so=4\r\n", "", true, true, false},
      {"log file name from Trace.ini when the registry has none", {level("\"4\"")}, ini_log, "", true, true, true},
      {"a log file name alone opens nothing", {log_key}, "", "", false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    if (!c.registry.empty()) write_registry(dir, c.registry);
    if (!c.common_ini.empty()) write_trace_ini(dir, "common", c.common_ini);
    if (!c.local_ini.empty()) write_trace_ini(dir, "local", c.local_ini);
    const auto child = run_isolated(folders(dir), query_formats);
    ASSERT_EQ(child.exit_code, 0);
    EXPECT_EQ(child.stderr_text, "") << "the lines go to the log file or nowhere";
    EXPECT_EQ(access((dir / "common/Brelvantec/LogFiles/t.log").c_str(), F_OK) == 0, c.log_opened);
    const std::string log = common_log(dir);
    EXPECT_EQ(contains(log, "#start#"), c.banners) << log;
    EXPECT_EQ(contains(log, "bvsapssf parameters:"), c.parameters) << log;
  }
}

TEST(TraceSettings, ProcessFlagsChooseTheLineParts) {
  const std::string stamp = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d : libbvsapssf\.so: )";
  const std::string site = R"(\{\d+\} /SsfQueryProperties/ ssfxxmain\(\d+\) : )";
  const std::string category = "BVTraceGeneral: ";
  const std::string start = R"(\*+#start#\*+\r\n)";
  struct Case {
    const char* name;
    std::string registry_flags;  // "" for no value
    std::string ini_flags;       // "" for no key
    std::string expected;
  } const cases[] = {
      {"registry 0", "dword:00000000", "", stamp + start},
      {"registry 1", "dword:00000001", "", stamp + category + start},
      {"registry 2", "dword:00000002", "", stamp + site + start},
      {"registry 3", "dword:00000003", "", stamp + site + category + start},
      {"a 0 from the registry stands", "dword:00000000", "3", stamp + start},
      {"Trace.ini when the registry has no value", "", "3", stamp + site + category + start},
      {"Trace.ini when the registry value is no DWORD", "\"3\"", "1", stamp + category + start},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    Lines registry{"\"libbvsapssf.so\"=\"2\"", "\"libbvsapssf.so.logfile\"=\"t.log\""};
    if (!c.registry_flags.empty()) registry.push_back("\"ProcessFlags\"=" + c.registry_flags);
    write_registry(dir, registry);
    if (!c.ini_flags.empty()) write_trace_ini(dir, "common", "ProcessFlags=" + c.ini_flags + "\r\n");
    ASSERT_EQ(run_isolated(folders(dir), query_formats).exit_code, 0);
    const std::string log = common_log(dir);
    EXPECT_TRUE(std::regex_search(log, std::regex("^" + c.expected))) << log;
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

TEST(TraceSettings, SettingsFile) {
  const std::string module = "[Process]\r\nInfo=ModuleCount:1, Level:0, Enabled:t, FuncAndCategoryNames:f, "
                             "FileNameAndLineNo:f\r\nModule1=Ours\r\n[Ours]\r\nName=libbvsapssf.so\r\n";
  struct Case {
    const char* name;
    std::string text;
    bool utf16;
    bool banners;
    bool parameters;
  } const cases[] = {
      {"module level 3", module + "Settings=CategoryCount:0, Level:3, Status:1\r\n", false, true, true},
      {"the same in UTF-16", module + "Settings=CategoryCount:0, Level:3, Status:1\r\n", true, true, true},
      {"module name without case",
       "[Process]\r\nInfo=ModuleCount:1, Level:0, Enabled:t, FuncAndCategoryNames:f, FileNameAndLineNo:f\r\n"
       "Module1=M\r\n[M]\r\nName=LIBBVSAPSSF.SO\r\nSettings=CategoryCount:0, Level:2, Status:1\r\n",
       false, true, false},
      {"a disabled category silences the module",
       module + "Settings=CategoryCount:1, Level:4, Status:1\r\nCategory1=Level:0, Status:2, Name:BVTraceGeneral\r\n",
       false, false, false},
      {"an enabled category speaks for a disabled module",
       module + "Settings=CategoryCount:1, Level:0, Status:7\r\nCategory1=Level:3, Status:1, Name:BVTraceGeneral\r\n",
       false, true, true},
      {"the process level for an inheriting module",
       "[Process]\r\nInfo=ModuleCount:0, Level:2, Enabled:t, FuncAndCategoryNames:f, FileNameAndLineNo:f\r\n",
       false, true, false},
      {"a process that is not enabled",
       "[Process]\r\nInfo=ModuleCount:0, Level:4, Enabled:f, FuncAndCategoryNames:f, FileNameAndLineNo:f\r\n",
       false, false, false},
      // Counts beyond what the table holds load at once, as far as the table goes.
      {"a huge module count",
       "[Process]\r\nInfo=ModuleCount:4294967295, Level:0, Enabled:t, FuncAndCategoryNames:f, FileNameAndLineNo:f\r\n"
       "Module1=Ours\r\n[Ours]\r\nName=libbvsapssf.so\r\nSettings=CategoryCount:0, Level:3, Status:1\r\n",
       false, true, true},
      {"a huge category count", module + "Settings=CategoryCount:4294967295, Level:3, Status:1\r\n", false, true, true},
      {"an Info line that does not parse",
       "[Process]\r\nInfo=ModuleCount:x\r\nModule1=Ours\r\n[Ours]\r\nName=libbvsapssf.so\r\n"
       "Settings=CategoryCount:0, Level:4, Status:1\r\n",
       false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    std::string bytes = c.text;
    if (c.utf16) {
      bytes = "\xFF\xFE";
      for (char ch : c.text) bytes += std::string{ch, '\0'};
    }
    write_file(dir / "settings.trc", bytes);
    write_registry(dir, {"\"libbvsapssf.so\"=\"" + (dir / "settings.trc") + "\"",
                         "\"libbvsapssf.so.logfile\"=\"t.log\""});
    // A load that does not end within seconds ends the child.
    ASSERT_EQ(run_isolated(folders(dir), [] { alarm(10), query_formats(); }).exit_code, 0);
    const std::string log = common_log(dir);
    EXPECT_EQ(contains(log, "#start#"), c.banners) << log;
    EXPECT_EQ(contains(log, "bvsapssf parameters:"), c.parameters) << log;
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
      "\"expand\"=hex(2):25,00,41,00,25,00,00,00\r\n"
      "\"binary\"=hex:01,02,\\\r\n  03\r\n"
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
        {"binary", ERROR_SUCCESS, REG_BINARY, "\x01\x02\x03"},
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

}  // namespace bv::test
