// Settings at load: folders, ini files, the environment and their order of
// strength, read the way the library reads them.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "kernel32/profile.h"
#include "shell32/shell32.h"

namespace bv::test {

namespace {

using Env = std::map<std::string, std::string>;

std::string ini(const std::string& body) { return "[bvsapssf]\n" + body; }

struct Expected {
  DWORD verify_flags = 0x40000000;
  DWORD on_select = 0x40000000;
  int32_t on_sign = 1;
  DWORD acceptable = 0;
  bool user_id_as_hash = false;
  bool ask_pin = false;
  std::vector<std::string> tsp;
};

struct ConfigCase {
  const char* name;
  Env env;
  std::optional<std::string> local_ini;
  std::optional<std::string> common_ini;
  Expected expected;
};

}  // namespace

TEST(Config, SourcesAndTheirStrength) {
  const std::string long_list = std::string(200, 'a') + ";" + std::string(100, 'b');  // 301 characters
  const auto none = std::nullopt;
  const std::vector<ConfigCase> cases = {
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
       [] {
         std::string utf16 = "\xFF\xFE";
         for (char c : std::string("[bvsapssf]\r\nBV_SSF_VERIFYCERTFLAGS_ONSELECT=c0000000\r\n")) utf16 += {c, '\0'};
         return utf16;
       }(),
       {.on_select = 0xc0000000}},
  };
  for (const ConfigCase& c : cases) {
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
  EXPECT_EQ(quiet_log.find("count"), std::string::npos) << quiet_log;
  EXPECT_NE(quiet_log.find("additionalTSP  = http://tsp1\r\n"), std::string::npos) << quiet_log;
}

}  // namespace bv::test
