// bvstore on stores as an administrator keeps them: CRLs, a PKCS #12 file
// with its chain, stores that must exist, keys deleted only when meant,
// export and PIN change that leave a key that signs, and every way a secret
// is given.  Each test works on a demo PKI of its own, through the tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host.h"
#include "signing.h"

namespace bv::test {
namespace {

const std::string kTools = BV_TOOLS_DIR "/";
const std::string bvstore = kTools + "bvstore ";
const std::string bvssf = kTools + "bvssf ";

struct Step {
  std::string command;  // for the shell, in the PKI's folder with its environment
  int status;
  std::string out;  // a part of standard output, "" for anything
  std::string err;  // the same for standard error
};

// `bvstore demo` in a folder of its own, and its manifest.
class DemoPki {
 public:
  DemoPki() {
    run_checked(kTools + "bvstore demo " + quoted(dir_ / "pki") + " >/dev/null");
    std::istringstream manifest(read_file(dir_ / "pki/demo.txt"));
    std::string line;
    while (std::getline(manifest, line)) {
      std::vector<std::string> fields;
      std::istringstream split(line);
      for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
      if (fields.size() >= 6 && fields[0][0] != '#')
        parties_[fields[0]] = {fields[3], fields[3].substr(0, fields[3].size() - 4) + ".key", fields[4], fields[5]};
    }
  }
  struct Party {
    std::string file, key, hash, pin;
  };
  const Party& operator[](const std::string& name) const { return parties_.at(name); }
  std::string path(const std::string& name) const { return dir_ / ("pki/" + name); }
  std::string store(const std::string& location, const std::string& name) const {
    return path(location + "/Brelvantec/Certificates/" + name);
  }
  // The test's folder as the current one, and the PKI's stores.
  std::string shell_prefix() const {
    return "cd " + quoted(dir_.path()) + " && export BV_PLATFORM_LOCAL_APPDATA=" + quoted(path("local")) +
           " BV_PLATFORM_COMMON_APPDATA=" + quoted(path("common")) +
           " BV_SSF_VERIFYCERTFLAGS_ONSIGN= BV_SSF_VERIFYCERTACCEPTABLESTATUS= BV_PLATFORM_ASKPASS= && ";
  }
  // Standard input is empty unless the command gives its own.
  Streams run(const std::string& command) const { return run_streams(shell_prefix() + "(" + command + ") </dev/null"); }
  // Runs the steps in order: each may depend on the ones before.
  void play(const std::vector<Step>& steps) const {
    for (const Step& step : steps) {
      SCOPED_TRACE(step.command);
      const Streams r = run(step.command);
      EXPECT_EQ(r.status, step.status) << r.out << r.err;
      EXPECT_TRUE(contains(r.out, step.out)) << r.out;
      EXPECT_TRUE(contains(r.err, step.err)) << r.err;
    }
  }
  // Signs with the library through bvssf and checks the message with openssl.
  void expect_signs(const std::string& signer) const {
    const Streams sign = run(bvssf + "sign PKCS7 pki/demo.txt signed.p7s --certs --signer " + quoted(signer));
    ASSERT_EQ(sign.status, 0) << sign.out << sign.err;
    std::string content, diagnostics;
    // chain.pem holds the issuing CA and the root: both trusted here.
    EXPECT_EQ(openssl_cms_verify(read_file(dir_ / "signed.p7s"), path("services/chain.pem"), "", nullptr, &content,
                                 &diagnostics),
              0)
        << diagnostics;
    EXPECT_TRUE(content == read_file(path("demo.txt")));
  }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  std::map<std::string, Party> parties_;
};

// A hash in lower case, and as a certificate viewer shows a fingerprint.
std::string lower(const std::string& hash) { return hex_of(bytes_of_hex(hash)); }
std::string with_colons(const std::string& hash) { return hex_of(bytes_of_hex(hash), ':'); }

mode_t mode_of(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 0777) : 0;
}

TEST(Bvstore, CrlsMissingStoresAndDeletingKeys) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2012-512"];
  // A PEM CRL, as a CA publishes it; the demo's own DER CRL is replaced by it.
  run_checked(pki.shell_prefix() + "openssl crl -inform DER -in " + quoted(pki.store("common", "CA") + "/demo-ca.crl") + " -out ca.crl");
  pki.play({
      {bvstore + "import -m CA ca.crl", 0, "CRL of CN=Demo Issuing CA", ""},
      {bvstore + "list -m CA", 0, "CRL  CN=Demo Issuing CA, O=Demo Organisation, C=RU\n    this update: ", ""},
      {bvstore + "list -m CA", 0, "UTC  revoked: 1", ""},
      {bvstore + "import -m ca ca.crl", 1, "", "no store ca in the machine's stores; did you mean CA?"},
      {bvstore + "import Certificates " + quoted(signer.file), 1, "", "(there are: Addressbook, My)"},
      {bvstore + "delete My " + signer.hash, 1, "", "has a private key (" + signer.key + "): give --yes"},
      {bvstore + "delete My 12:34", 2, "", "a hash has 40 hexadecimal digits, not 4"},
      {bvstore + "delete My " + quoted(with_colons(signer.hash)) + " --yes", 0, "deleted the private key " + signer.key, ""},
      {bvstore + "list My", 0, "", ""},
  });
  EXPECT_TRUE(std::filesystem::exists(pki.store("common", "CA") + "/demo-ca.cer"));
  EXPECT_FALSE(std::filesystem::exists(pki.store("common", "CA") + "/demo-ca.crl"));
  EXPECT_FALSE(std::filesystem::exists(pki.store("common", "ca")));  // a refused import makes no store
  EXPECT_FALSE(std::filesystem::exists(signer.key));
  EXPECT_FALSE(contains(pki.run(bvstore + "list My").out, signer.hash));
}

// Imports an administrator gets wrong are refused and leave nothing; a key
// is stored under its new PIN; files named by hand in upper case are found
// and deleted by their hash.
TEST(Bvstore, ImportsRefusedOrRekeyedAndHandNamedFiles) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2012-256"];
  const DemoPki::Party& other = pki["signer-2001"];
  const std::string work = pki.store("local", "Work") + "/" + signer.hash;
  write_file(pki.dir() / "garbage.cer", "no certificate here");
  pki.play({
      {bvstore + "create Work", 0, "", ""},
      {bvstore + "import Work garbage.cer", 1, "", "is no certificate, CRL or PKCS #12 file"},
      {bvstore + "import Work " + quoted(signer.file) + " --key " + quoted(other.key) + " --password pass:" + other.pin +
           " --pin pass:1", 1, "", "not the certificate's"},
      {bvstore + "import Work " + quoted(signer.file) + " --key " + quoted(signer.key) + " --pin pass:1", 1, "", "give --password"},
      {bvstore + "import Work " + quoted(signer.file) + " --key " + quoted(signer.key) + " --password pass:wrong --pin pass:1", 1,
       "", "wrong --password"},
      {bvstore + "import ../Work " + quoted(signer.file), 1, "", "bad store name"},
      {bvstore + "list Work", 0, "", ""},
      // The key under a PIN of the administrator's choice.
      {bvstore + "import Work " + quoted(signer.file) + " --key " + quoted(signer.key) + " --password pass:" + signer.pin +
           " --pin pass:new-pin", 0, signer.hash + "  with key", ""},
      {bvssf + "sign PKCS7 pki/demo.txt w.p7s --signer " + signer.hash + ":Work:" + signer.pin, 1, "", ""},
      {bvssf + "sign PKCS7 pki/demo.txt w.p7s --signer " + signer.hash + ":Work:new-pin", 0, "", ""},
      {bvstore + "delete Work " + signer.hash + " --yes", 0, "", ""},
      // As an older bvstore or a person named them: upper case.
      {"cp " + quoted(signer.file) + " " + quoted(work + ".cer") + " && cp " + quoted(signer.key) + " " + quoted(work + ".key"),
       0, "", ""},
      {bvstore + "list Work", 0, "[key]", ""},
      {bvstore + "delete Work " + lower(signer.hash) + " --yes", 0, "deleted the private key " + work + ".key", ""},
  });
  EXPECT_FALSE(std::filesystem::exists(work + ".cer"));
  pki.expect_signs(signer.hash + "::" + signer.pin);
}

// A PKCS #12 file made by openssl with the signer's key and the whole chain.
TEST(Bvstore, Pkcs12ChainGoesIntoCaAndRootOrIsNamed) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2012-256"];
  run_checked(pki.shell_prefix() + "openssl pkey -engine gost -in " + quoted(signer.key) + " -passin pass:" + signer.pin + " -out key.pem" +
              " && openssl x509 -inform DER -in " + quoted(signer.file) + " -out cert.pem && openssl pkcs12 -export" +
              " -engine gost -inkey key.pem -in cert.pem -certfile " + quoted(pki.path("services/chain.pem")) +
              " -keypbe gost89 -certpbe gost89 -macalg md_gost12_512 -passout pass:p12 -out chain.p12");
  const std::string root = pki["root"].hash, ca = pki["ca"].hash;
  pki.play({
      {bvstore + "delete My " + signer.hash + " --yes", 0, "", ""},
      {bvstore + "import My chain.p12 --password pass:p12", 2, "", "give --pin SOURCE (pass:, env:, file:, fd:, stdin), or --no-pin"},
      {bvstore + "import My chain.p12 --password pass:wrong --pin pass:5555", 1, "", "wrong --password?"},
      {bvstore + "import My chain.p12 --password pass:p12 --pin pass:5555", 0, signer.hash + "  with key\n",
       "left out " + ca + "  CN=Demo Issuing CA, O=Demo Organisation, C=RU (give --chain to import it into CA)"},
      {bvstore + "import My chain.p12 --password pass:p12 --pin pass:5555 --chain", 1, "", "no store Root in the current user's"},
      {bvstore + "create Root", 0, "", ""},
      {bvstore + "create CA", 0, "", ""},
      {bvstore + "import My chain.p12 --password pass:p12 --pin pass:5555 --chain", 0, ca + "  CN=Demo Issuing CA", ""},
      {bvstore + "list Root", 0, root + "  CN=Demo Root CA", ""},
      {bvstore + "list CA", 0, ca + "  CN=Demo Issuing CA", ""},
      {bvstore + "import My cert.pem --key key.pem", 2, "", "--no-pin"},
      {bvstore + "import My cert.pem --key key.pem --no-pin --pin pass:1", 2, "", "--pin and --no-pin exclude each other"},
  });
  EXPECT_TRUE(std::filesystem::exists(pki.store("local", "Root") + "/" + lower(root) + ".cer"));
  EXPECT_EQ(mode_of(pki.store("local", "My") + "/" + lower(signer.hash) + ".key"), 0600);
  pki.expect_signs(signer.hash + "::5555");
}

TEST(Bvstore, ExportThenImportAndPinChangeSign) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2012-256"];
  const std::string key_file = pki.store("local", "My") + "/" + lower(signer.hash) + ".key";
  pki.play({
      {bvstore + "export My " + signer.hash + " out.p12 --pin pass:" + signer.pin + " --password pass:", 2, "",
       "needs a password"},
      {bvstore + "export My " + signer.hash + " out.p12 --pin pass:00000000 --password pass:p12", 1, "", "wrong --pin"},
      {bvstore + "export My " + lower(signer.hash) + " out.p12 --pin pass:" + signer.pin + " --password pass:p12", 0,
       "written to out.p12", ""},
      {"openssl pkcs12 -engine gost -in out.p12 -passin pass:p12 -nodes -info", 0, "BEGIN PRIVATE KEY",
       "Shrouded Keybag: PBES2, PBKDF2, gost89, Iteration 2048, PRF id-tc26-hmac-gost-3411-2012-512"},
      {bvstore + "delete My " + signer.hash + " --yes", 0, "", ""},
      {bvstore + "import My out.p12 --password pass:p12 --pin pass:1234", 0, signer.hash + "  with key", ""},
      // The imported key under its PIN, then under the new one only.
      {bvstore + "pin My " + signer.hash + " --pin pass:0000 --new-pin pass:4321", 1, "", "wrong --pin for " + key_file},
      {bvstore + "pin My " + signer.hash + " --pin pass:1234 --new-pin pass:", 2, "", "an empty PIN: give --no-pin"},
      {bvstore + "pin My " + signer.hash + " --pin pass:1234 --new-pin pass:4321", 0, key_file + " has its new PIN", ""},
      {bvssf + "sign PKCS7 pki/demo.txt old.p7s --signer " + signer.hash + "::1234", 1, "", ""},
  });
  EXPECT_EQ(mode_of(pki.dir() / "out.p12"), 0600);
  EXPECT_EQ(mode_of(key_file), 0600);
  pki.expect_signs(signer.hash + "::4321");
}

// Each source gives the old PIN of one change and the new PIN of the
// next, so a source read wrongly breaks the chain of changes.
TEST(Bvstore, EverySecretSource) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2001"];
  write_file(pki.dir() / "pin-file", "file-pin\r\nsecond line\n");
  write_file(pki.dir() / "fd-pin", "fd-pin\n");
  const std::string pin = "pin My " + quoted(with_colons(signer.hash));
  pki.play({
      {bvstore + pin + " --pin " + signer.pin + " --new-pin pass:pass-pin", 0, "has its new PIN", ""},
      {"PW=env-pin " + bvstore + pin + " --pin pass:pass-pin --new-pin env:PW", 0, "", ""},
      {bvstore + pin + " --pin env:NO_SUCH_VARIABLE --new-pin plain", 2, "", "--pin: no variable NO_SUCH_VARIABLE"},
      {"PW=env-pin " + bvstore + pin + " --pin env:PW --new-pin file:pin-file", 0, "", ""},
      {bvstore + pin + " --pin file:no-such-file --new-pin plain", 2, "", "cannot read no-such-file: No such file"},
      {bvstore + pin + " --pin file:pin-file --new-pin fd:3 3<fd-pin", 0, "", ""},
      {"printf 'fd-pin\\nstdin-pin\\n' | " + bvstore + pin + " --pin stdin --new-pin stdin", 0, "", ""},
      {bvstore + pin + " --pin stdin --new-pin plain", 1, "", "wrong --pin"},  // standard input is empty here
      {bvstore + pin + " --pin pass:stdin-pin --new-pin plain", 0, "", ""},
      {bvstore + pin + " --pin plain --no-pin", 0, "is stored without a PIN now", ""},
      {bvstore + "import My - --pin stdin", 2, "", "FILE and --pin cannot both be standard input"},
      // Without a terminal and without a source, nothing is asked.
      {bvstore + pin + " --new-pin pass:x", 0, "", ""},
      {bvstore + pin + " --pin pass:x", 2, "", "the key needs a PIN"},
  });
  pki.expect_signs(signer.hash + "::x");
}

// At a terminal: the PIN asked with echo off and twice, the deletion of a
// key asked and answered.
TEST(Bvstore, AsksAtTheTerminal) {
  DemoPki pki;
  const DemoPki::Party& signer = pki["signer-2012-256"];
  const std::string command = pki.shell_prefix() + bvstore;
  auto at_terminal = [](const std::string& shell_command) {
    return [shell_command] {
      const int tty = open("/dev/tty", O_RDWR);
      for (int fd : {0, 1, 2}) dup2(tty, fd);
      execl("/bin/sh", "sh", "-c", shell_command.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    };
  };
  const PtyRun changed = run_on_pty({{"PIN of ", signer.pin + "\r"},
                                     {"PIN for the stored key: ", "typed-pin\r"},
                                     {"Again, to confirm: ", "typed-pin\r"}},
                                    at_terminal(command + "pin My " + signer.hash));
  EXPECT_EQ(changed.exit_code, 0) << changed.screen;
  EXPECT_FALSE(contains(changed.screen, "typed-pin")) << changed.screen;
  EXPECT_FALSE(contains(changed.screen, signer.pin)) << changed.screen;

  const PtyRun kept = run_on_pty({{"and its private key", "n\r"}}, at_terminal(command + "delete My " + signer.hash));
  EXPECT_EQ(kept.exit_code, 1) << kept.screen;
  EXPECT_TRUE(contains(kept.screen, "nothing deleted")) << kept.screen;
  pki.expect_signs(signer.hash + "::typed-pin");
  const PtyRun deleted = run_on_pty({{"[y/N] ", "y\r"}}, at_terminal(command + "delete My " + signer.hash));
  EXPECT_EQ(deleted.exit_code, 0) << deleted.screen;
  EXPECT_TRUE(contains(deleted.screen, "deleted the private key")) << deleted.screen;
}

}  // namespace
}  // namespace bv::test
