// The tools as an administrator runs them: help and version on standard
// output, the exit codes, "-" for the standard streams, an output that is an
// input refused; and what `cmake --install` and the .deb put on a machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "host.h"
#include "signing.h"

namespace bv::test {
namespace {

const std::string kTools = BV_TOOLS_DIR "/";

// The tools' environment: the test stores, nothing of this machine's.
std::string environment() {
  std::string assignments;
  for (const auto& [name, value] : SigningWorld::get().env()) assignments += name + "=" + quoted(value) + " ";
  return assignments;
}

TEST(ToolsCli, HelpVersionUsageAndFileErrors) {
  struct Case {
    std::string command;
    int status;
    std::string out;  // a part of standard output; "" when it must be empty
    std::string err;  // the same for standard error
  };
  TempDir dir;
  write_file(dir / "in", "data");
  const std::string in = quoted(dir / "in");
  // Help and version are answered alike by every tool (tools/cli): each way
  // of asking once, and each tool's own argument parser.
  std::vector<Case> cases = {
      {"bvssf -h", 0, "Usage: bvssf ", ""},
      {"bvtrace help", 0, "Usage: bvtrace ", ""},
      {"bvtsa --version", 0, "bvtsa 1.", ""},
      {"bvssf help sign", 0, "Usage: bvssf sign FORMAT IN OUT --signer", ""},
      {"bvstore demo --help", 0, "Usage: bvstore demo DIR", ""},
      {"bvtsa help --listen", 0, "Usage: bvtsa --listen ADDRESS:PORT", ""},
      {"bvssf help nothing", 2, "", "no command or option nothing"},
      {"bvssf sign PKCS7", 2, "", "usage: bvssf sign FORMAT IN OUT"},
      {"bvstore import My", 2, "", "usage: bvstore import"},
      {"bvtrace set 1", 2, "", "usage: bvtrace set PID"},
      {"bvssf encode PKCS7 /nonexistent/in out", 2, "", "cannot read /nonexistent/in: No such file or directory"},
      {"bvssf encode PKCS7 " + in + " /nonexistent/out", 2, "", "cannot write /nonexistent/out: No such file"},
      {"bvstore hash /nonexistent", 2, "", "cannot read /nonexistent: No such file or directory"},
      {"bvtsa --listen 127.0.0.1:0 --cert /nonexistent --key /nonexistent", 2, "", "cannot read /nonexistent: No such"},
      {"bvssf encode XML " + in + " " + quoted(dir / "out"), 1, "SSF_ERR_FORMAT", ""},
      {"bvstore list NoSuchStore", 1, "", "no store NoSuchStore"},
  };
  for (const std::string tool : {"bvssf", "bvstore", "bvtrace", "bvtsa"}) {
    cases.push_back({tool + " --help", 0, "Usage: " + tool + " ", ""});
    cases.push_back({tool + " --no-such-word", 2, "", "Try '" + tool + " --help'."});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    const Streams r = run_streams(environment() + kTools + c.command);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_TRUE(c.out.empty() ? r.out.empty() : contains(r.out, c.out)) << r.out;
    EXPECT_TRUE(c.err.empty() ? r.err.empty() : contains(r.err, c.err)) << r.err;
  }
}

// "-" in and out: the data alone on standard output, the same bytes as
// between files, and signed data that openssl verifies.
TEST(ToolsCli, BvssfStandardStreams) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  const std::string content = "content for the standard streams\n";
  write_file(dir / "in", content);
  const std::string bvssf = environment() + kTools + "bvssf ";
  const std::string in = quoted(dir / "in");
  run_checked(bvssf + "digest RAW_GOST GOST2012-256 " + in + " " + quoted(dir / "hash"));
  const std::string hash = read_file(dir / "hash");
  ASSERT_EQ(hash.size(), 32u);
  for (const std::string& command : {bvssf + "digest RAW_GOST GOST2012-256 - - < " + in,
                                     "cat " + in + " | " + bvssf + "digest RAW_GOST GOST2012-256 - -"}) {
    SCOPED_TRACE(command);
    const Streams r = run_streams(command);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, hash);
    EXPECT_TRUE(contains(r.err, "32 bytes written to standard output\nSSF_OK (0)")) << r.err;
  }

  const Streams sign = run_streams("cat " + in + " | " + bvssf + "sign PKCS7 - - --certs --signer " + w.alice.sha1_hex + "::1111");
  ASSERT_EQ(sign.status, 0) << sign.err;
  EXPECT_TRUE(contains(sign.err, "signer 1: OK (0)")) << sign.err;
  std::string opened, diagnostics;
  EXPECT_EQ(openssl_cms_verify(sign.out, w.root.cert_pem, "", nullptr, &opened, &diagnostics), 0) << diagnostics;
  EXPECT_EQ(opened, content);

  write_file(dir / "msg", sign.out);
  const Streams verify = run_streams(bvssf + "verify PKCS7 " + quoted(dir / "msg") + " --out -");
  EXPECT_EQ(verify.status, 0) << verify.err;
  EXPECT_EQ(verify.out, content);
  EXPECT_TRUE(contains(verify.err, "signer 1: OK (0)")) << verify.err;

  const Streams twice = run_streams(bvssf + "verify PKCS7 - --content - < " + quoted(dir / "msg"));
  EXPECT_EQ(twice.status, 2);
  EXPECT_TRUE(contains(twice.err, "only one input can be standard input")) << twice.err;
}

// However the output names an input, it is refused and the input kept.
TEST(ToolsCli, OutputThatIsAnInputIsRefused) {
  TempDir dir;
  write_file(dir / "in", "data");
  write_file(dir / "content", "signed elsewhere");
  ASSERT_EQ(link((dir / "in").c_str(), (dir / "hard").c_str()), 0);
  ASSERT_EQ(symlink((dir / "in").c_str(), (dir / "soft").c_str()), 0);
  const std::string in = quoted(dir / "in");
  const std::string bvssf = environment() + kTools + "bvssf ";
  const struct {
    const char* name;
    std::string arguments;
  } cases[] = {
      // Compared as files, not names: a hard link stands for the same name.
      {"another spelling", "decode PKCS7 " + in + " " + quoted(dir.path() + "/./in")},
      {"a hard link", "digest RAW_GOST SHA1 " + in + " " + quoted(dir / "hard")},
      {"a symbolic link", "encode PKCS7 " + in + " " + quoted(dir / "soft")},
      {"standard output appended to it", "encode PKCS7 " + in + " - >> " + in},
      {"standard input read from it", "encode PKCS7 - " + in + " < " + in},
      {"the content of a detached message", "verify PKCS7 " + quoted(dir / "content") + " --content " + in +
                                                " --out " + quoted(dir / "hard")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Streams r = run_streams(bvssf + c.arguments);
    EXPECT_EQ(r.status, 2) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "is the same file as the input")) << r.err;
    EXPECT_EQ(read_file(dir / "in"), "data");
  }
}

// The completion reads commands and options from the tools' help: a help
// whose layout changed would leave it with nothing to offer.
TEST(ToolsCli, BashCompletionOffersCommandsAndOptions) {
  const struct {
    const char* words;  // the command line so far; the last word is completed
    const char* offered;
  } cases[] = {
      {"bvssf si", "sign"},
      {"bvssf sign PKCS7 --", "--signer --detached --certs --help"},
      {"bvstore import -", "-m --key --password --pin --no-pin --chain --help"},
      {"bvtrace help ", "list set flags process wait"},
      {"bvtsa --l", "--listen --log"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words);
    const std::string script = "source " BV_SOURCE_DIR "/tools/completion/bvsapssf.bash; COMP_WORDS=(" +
                               std::string(c.words) + (std::string(c.words).back() == ' ' ? "\"\"" : "") +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _bvsapssf; echo \"${COMPREPLY[*]}\"";
    EXPECT_EQ(run_checked("PATH=" + quoted(BV_TOOLS_DIR) + ":$PATH bash -c " + quoted(script)),
              std::string(c.offered) + "\n");
  }
}

// Every file an installation holds, below its prefix.
const std::vector<std::string> kInstalled = {
    "bin/bvssf", "bin/bvstore", "bin/bvtrace", "bin/bvtsa", "include/bvsapssf_api.h",
    "share/man/man1/bvssf.1", "share/man/man1/bvstore.1", "share/man/man1/bvtrace.1", "share/man/man1/bvtsa.1",
    "share/bash-completion/completions/bvssf", "share/bash-completion/completions/bvstore",
    "share/bash-completion/completions/bvtrace", "share/bash-completion/completions/bvtsa",
    "share/doc/bvsapssf/README.md", "share/doc/bvsapssf/docs/deployment.md",
    "share/doc/bvsapssf/docs/configuration.md", "libbvsapssf.so"};

TEST(Install, StagingFolderHoldsEverythingAndRuns) {
  TempDir stage;
  run_checked("DESTDIR=" + quoted(stage.path()) + " cmake --install " + quoted(BV_TOOLS_DIR) + " --prefix /usr 2>&1");
  std::string files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(stage / "usr"))
    if (entry.is_regular_file()) files += entry.path().string() + "\n";
  for (const std::string& file : kInstalled) EXPECT_TRUE(contains(files, "/" + file + "\n")) << file << "\n" << files;

  // The staged bvssf finds the staged library, and the man pages read cleanly.
  EXPECT_TRUE(contains(run_checked("env -u BVSSF_LIBRARY " + quoted(stage / "usr/bin/bvssf") + " version"), "SSF_OK (0)"));
  for (const char* tool : {"bvssf", "bvstore", "bvtrace", "bvtsa"}) {
    const std::string page = stage / ("usr/share/man/man1/" + std::string(tool) + ".1");
    const Streams man = run_streams("MANWIDTH=80 man --warnings -l " + quoted(page));
    EXPECT_EQ(man.status, 0);
    EXPECT_EQ(man.err, "") << tool;
    EXPECT_TRUE(contains(man.out, "EXIT STATUS")) << man.out;
  }
}

TEST(Install, DebianPackage) {
  TempDir out;
  run_checked("cd " + quoted(BV_TOOLS_DIR) + " && cpack -G DEB -B " + quoted(out.path()) + " 2>&1");
  std::string deb;
  for (const auto& entry : std::filesystem::directory_iterator(out.path()))
    if (entry.path().extension() == ".deb") deb = quoted(entry.path().string());
  ASSERT_FALSE(deb.empty());
  const std::string contents = run_checked("dpkg-deb --contents " + deb);
  for (const std::string& file : kInstalled) EXPECT_TRUE(contains(contents, "/" + file + "\n")) << file;
  const std::string depends = run_checked("dpkg-deb --field " + deb + " Depends");
  for (const char* package : {"libssl3", "libengine-gost-openssl", "libcurl4", "locales"})
    EXPECT_TRUE(contains(depends, package)) << depends;
  EXPECT_TRUE(contains(run_checked("dpkg-deb --info " + deb + " postinst"), "ru_RU.CP1251 CP1251"));
}

// bvstore check on a demo PKI: the cause of every refusal in words, as an
// administrator needs it, and OK for a good signer.
TEST(BvstoreCheck, NamesTheCauseOfEachRefusal) {
  TempDir dir;
  const std::string env = "BV_PLATFORM_COMMON_APPDATA=" + quoted(dir / "common") +
                          " BV_PLATFORM_LOCAL_APPDATA=" + quoted(dir / "local") + " ";
  ASSERT_EQ(run_streams(env + kTools + "bvstore demo " + quoted(dir.path())).status, 0);
  const std::string stores = dir / "common/Brelvantec/Certificates/";
  const std::string my = dir / "local/Brelvantec/Certificates/My/";
  struct Case {
    const char* name;
    std::function<void()> before;  // may be null
    std::string record;
    int status;
    std::string says;
  };
  const Case cases[] = {
      {"a good signer and its PIN", nullptr, "CN=Demo Signer 2012-256::22222222", 0, "OK: candidate 1 signs."},
      {"a wrong PIN", nullptr, "CN=Demo Signer 2012-256::22222223", 1, "PIN: wrong"},
      {"revoked", nullptr, "CN=Demo Signer Revoked::66666666", 1, "revoked: CN=Demo Signer Revoked"},
      {"expired", nullptr, "CN=Demo Signer Expired::88888888", 1, "not valid now: CN=Demo Signer Expired"},
      {"no such store", nullptr, "CN=Demo Signer 2001:Mx", 1, "Certificates: Addressbook My"},
      {"no key", [&] { std::filesystem::remove(my + "10-signer-2001.key"); }, "CN=Demo Signer 2001::11111111", 1,
       "key: none"},
      {"no CRL for the CA", [&] { std::filesystem::remove(stores + "CA/demo-ca.crl"); },
       "CN=Demo Signer 2012-512::33333333", 1,
       "revocation status unknown: no CRL or OCSP answer for CN=Demo Signer 2012-512 — import its CA's CRL with "
       "`bvstore import -m CA file.crl`"},
      {"an untrusted root", [&] { std::filesystem::rename(stores + "Root/demo-root.cer", stores + "CA/demo-root.cer"); },
       "CN=Demo Signer 2012-512::33333333", 1, "untrusted root: CN=Demo Root CA is in no Root store"},
      {"no root at all", [&] { std::filesystem::remove(stores + "CA/demo-root.cer"); },
       "CN=Demo Signer 2012-512::33333333", 1, "no issuer found above CN=Demo Issuing CA — import its issuer's"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.before) c.before();
    const Streams r = run_streams(env + kTools + "bvstore check " + quoted(c.record));
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, c.says)) << r.out;
    EXPECT_FALSE(contains(r.out, "3333333")) << "a PIN in the output";
  }
  // bvssf points a refused signer there.
  write_file(dir / "in", "data");
  const Streams sign = run_streams(env + kTools + "bvssf sign PKCS7 " + quoted(dir / "in") + " " + quoted(dir / "out") +
                           " --signer 'CN=Demo Signer Revoked::66666666'");
  EXPECT_EQ(sign.status, 1);
  EXPECT_TRUE(contains(sign.out, "why: bvstore check 'CN=Demo Signer Revoked::PIN'")) << sign.out;
}

// bvssf settings (bvstore's report): a value from each source, the store
// folders, trace and time stamp settings, and warnings for what reads
// otherwise than it looks.
TEST(Settings, EachValueWithItsSourceAndWarnings) {
  TempDir dir;
  const std::string local = dir / "local/Brelvantec/", common = dir / "common/Brelvantec/";
  write_file(local + "ssf.ini", "[bvsapssf]\nBV_SSF_VERIFYCERTFLAGS_ONSIGN=off\nBV_SSF_VERYFYCERTFLAGS=1\n");
  write_file(common + "ssf.ini", "[bvsapssf]\nBV_SSF_VERIFYCERTACCEPTABLESTATUS=40\n[bvsapsf]\n");
  write_file(common + "Trace.ini", "[Trace]\nlibbvsapssf.so=4\nlibbvsapssf.so.logfile=ssf.log\n");
  write_file(local + "cades.ini", "[cades]\nDefaultTSP=http://127.0.0.1:9/tsp\n");
  const Streams r = run_streams("BV_PLATFORM_COMMON_APPDATA=" + quoted(dir / "common") + " BV_PLATFORM_LOCAL_APPDATA=" +
                        quoted(dir / "local") + " BV_SSF_ASK_PIN_WHEN_EMPTY=yes " + kTools + "bvssf settings");
  EXPECT_EQ(r.status, 0) << r.err;
  for (const std::string& line : std::vector<std::string>{
           "BV_SSF_VERIFYCERTFLAGS             0x40000000   default",
           "BV_SSF_VERIFYCERTACCEPTABLESTATUS  0x00000040   " + common + "ssf.ini",
           "BV_SSF_VERIFYCERTFLAGS_ONSIGN      on           " + local + "ssf.ini",
           "BV_SSF_ASK_PIN_WHEN_EMPTY          on           environment",
           "current user   " + local + "Certificates (BV_PLATFORM_LOCAL_APPDATA)",
           "setting \"4\" (Trace.ini)",
           "log file " + common + "LogFiles/ssf.log, else " + local + "LogFiles/ssf.log (Trace.ini)",
           "default service http://127.0.0.1:9/tsp (" + local + "cades.ini)",
           "BV_SSF_VERIFYCERTFLAGS_ONSIGN = \"off\" (" + local + "ssf.ini): not one of YES, TRUE, 1, NO, FALSE, 0: read as on",
           "key BV_SSF_VERYFYCERTFLAGS in [bvsapssf] is not read",
           "section [bvsapsf] is not read",
           "read as hexadecimal 0x40 (these numbers are always hexadecimal)",
       })
    EXPECT_TRUE(contains(r.out, line)) << line << "\n" << r.out;
}

}  // namespace
}  // namespace bv::test
