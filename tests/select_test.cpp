// The PIN prompt and the certificate chooser, driven as a user drives them:
// through a pseudo-terminal that is the child's controlling terminal, and
// through the helper programs named in the environment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "certs.h"
#include "crypt32/store.h"
#include "cryptui/cryptui.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "terminal/terminal.h"
#include "wincrypt_types.h"

namespace bv::test {

namespace {

std::string write_script(const TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir / name;
  write_file(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
  return path;
}

// ---------------------------------------------------------------- PIN prompt

TEST(AskPin, OnTheTerminalWithEchoOffAndLineEditing) {
  struct Case {
    const char* typed;
    bool answered;
    const char* pin;
  };
  const Case cases[] = {
      {"12345678\r", true, "12345678"},
      {"12x\x7f" "34\r", true, "1234"},     // erase
      {"bad\x15good\r", true, "good"},      // kill the line
      {"\r", true, ""},                     // an empty PIN is an answer
      {"12\x03", false, ""},                // Ctrl-C
      {"\x1b", false, ""},                  // Escape
      {"\x04", false, ""},                  // end of file on an empty line
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typed);
    const PtyRun run = run_on_pty({{"PIN for test key:", c.typed}}, [&] {
      std::string pin = "old";
      const bool answered = bv::platform::ask_pin("PIN for test key: ", pin);
      EXPECT_EQ(answered, c.answered);
      if (answered) {
        EXPECT_EQ(pin, c.pin);
      } else {
        EXPECT_EQ(GetLastError(), SCARD_W_CANCELLED_BY_USER);
      }
    });
    EXPECT_EQ(run.exit_code, 0) << run.screen;
    // Nothing typed may show on the screen.
    EXPECT_EQ(run.screen.find("1234"), std::string::npos) << run.screen;
    EXPECT_EQ(run.screen.find("good"), std::string::npos) << run.screen;
  }
}

TEST(AskPin, WithoutTerminalThroughTheHelperProgram) {
  TempDir dir;
  const std::string prompt_file = dir / "prompt";
  struct Case {
    std::string name;
    std::string body;  // of the helper script; empty: unset; a path: that program
    bool answered;
    std::string pin;
    DWORD error;
  };
  const std::vector<Case> cases = {
      {"first line only", "printf 'secret\\nmore\\n'\n", true, "secret", 0},
      {"CRLF line end", "printf 'secret\\r\\n'\n", true, "secret", 0},
      {"no line end", "printf 'secret'\n", true, "secret", 0},
      {"blanks are kept", "printf ' a b \\n'\n", true, " a b ", 0},
      {"refused", "echo ignored; exit 1\n", false, "", SCARD_W_CANCELLED_BY_USER},
      {"killed", "kill -9 $$\n", false, "", SCARD_W_CANCELLED_BY_USER},
      {"no helper", "", false, "", SCARD_W_CANCELLED_BY_USER},
      {"helper missing", "/nonexistent/askpass", false, "", ERROR_FILE_NOT_FOUND},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool script = !c.body.empty() && c.body[0] != '/';
    const std::string helper =
        script ? write_script(dir, "askpass", "printf '%s' \"$1\" > '" + prompt_file + "'\n" + c.body) : c.body;
    const auto child = run_isolated({{"BV_PLATFORM_ASKPASS", helper}}, [&] {
      std::string pin;
      const bool answered = bv::platform::ask_pin("PIN for \"key\": ", pin);
      EXPECT_EQ(answered, c.answered);
      if (answered) {
        EXPECT_EQ(pin, c.pin);
      } else {
        EXPECT_EQ(GetLastError(), c.error);
      }
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
    if (script) {
      EXPECT_EQ(read_file(prompt_file), "PIN for \"key\": ");
    }
  }
}

TEST(HelperProgram, ProgramThatIgnoresItsInputDoesNotKillTheHost) {
  // A large input the program never reads: the host must neither block
  // nor die of SIGPIPE.
  const std::string input(4 * 1024 * 1024, 'x');
  std::string output;
  EXPECT_TRUE(bv::platform::run_helper_program("/bin/echo", "done", input, output));
  EXPECT_EQ(output, "done\n");
}

// ---------------------------------------------------------------- chooser

using bv::pki::certificate_hash;

// A memory store with three GOST certificates, as the library hands it over.
class Chooser : public ::testing::Test {
 protected:
  void SetUp() override {
    key = bv::pki::generate_key();
    for (int i = 1; i <= 3; ++i) {
      certs.push_back(bv::pki::issue_certificate(
          {.subject = {{"O", "Chain Test"}, {"CN", "Signer " + std::to_string(i)}}, .serial = i}, key.get()));
      const std::string der = bv::pki::der_of(certs.back().get());
      ASSERT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                   static_cast<DWORD>(der.size()), CERT_STORE_ADD_ALWAYS, nullptr));
    }
  }
  void TearDown() override { CertCloseStore(store, 0); }

  // Runs the chooser as the library calls it and checks what it returned.
  void expect_choice(int expected_index, DWORD expected_error, DWORD hidden = CRYPTUI_SELECT_LOCATION_COLUMN) {
    SetLastError(0);
    PCCERT_CONTEXT chosen = CryptUIDlgSelectCertificateFromStore(store, nullptr, nullptr, nullptr, hidden, 0, nullptr);
    if (expected_index < 0) {
      EXPECT_EQ(chosen, nullptr);
      EXPECT_EQ(GetLastError(), expected_error);
    } else {
      ASSERT_NE(chosen, nullptr);
      EXPECT_EQ(certificate_hash(bv::platform::certificate_x509(chosen)),
                certificate_hash(certs[static_cast<size_t>(expected_index)].get()));
    }
    CertFreeCertificateContext(chosen);
  }

  bv::ossl::UniquePtr<EVP_PKEY> key;
  std::vector<bv::ossl::UniquePtr<X509>> certs;
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
};

TEST_F(Chooser, OnTheTerminal) {
  const std::string prompt = "Number of the certificate";
  const std::string hash_with_blanks = hex_of(bytes_of_hex(certificate_hash(certs[2].get())), ' ');
  struct Case {
    const char* name;
    std::vector<Exchange> script;
    int index;
    DWORD error;
  };
  const std::vector<Case> cases = {
      {"by number", {{prompt, "2\r"}}, 1, 0},
      {"by hash", {{prompt, hash_with_blanks + "\r"}}, 2, 0},
      {"wrong, then right", {{prompt, "9\r"}, {"There is no certificate \"9\"", ""}, {prompt, "1\r"}}, 0, 0},
      {"Enter cancels", {{prompt, "\r"}}, -1, ERROR_CANCELLED},
      {"Ctrl-C cancels", {{prompt, "\x03"}}, -1, ERROR_CANCELLED},
      {"three wrong answers", {{prompt, "0\r"}, {prompt, "x\r"}, {prompt, "4\r"}}, -1, ERROR_CANCELLED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const PtyRun run = run_on_pty(c.script, [&] { expect_choice(c.index, c.error); });
    EXPECT_EQ(run.exit_code, 0) << run.screen;
    for (const auto& cert : certs) EXPECT_NE(run.screen.find(certificate_hash(cert.get())), std::string::npos);
    EXPECT_NE(run.screen.find("CN=Signer 2"), std::string::npos) << run.screen;
    EXPECT_NE(run.screen.find("Issuer: "), std::string::npos);
    EXPECT_NE(run.screen.find("Valid:  "), std::string::npos);
  }
  // A left-out column stays out.
  const PtyRun run = run_on_pty({{prompt, "3\r"}}, [&] { expect_choice(2, 0, CRYPTUI_SELECT_ISSUEDBY_COLUMN); });
  EXPECT_EQ(run.screen.find("Issuer: "), std::string::npos) << run.screen;
}

TEST_F(Chooser, ThroughTheSelectProgram) {
  TempDir dir;
  const std::string list_file = dir / "list";
  struct Case {
    const char* name;
    std::string body;  // of the program; empty: BV_PLATFORM_SELECT unset
    int index;
    DWORD error;
  };
  const std::string hash = certificate_hash(certs[2].get());
  const std::vector<Case> cases = {
      {"number", "echo 2\n", 1, 0},
      {"hash, lower case", "echo '" + hash + "' | tr A-F a-f\n", 2, 0},
      {"number with blanks, more lines", "printf ' 1 \\nignored\\n'\n", 0, 0},
      {"out of range", "echo 4\n", -1, ERROR_INVALID_DATA},
      {"empty answer", "true\n", -1, ERROR_CANCELLED},
      {"refused", "echo 1; exit 2\n", -1, ERROR_CANCELLED},
      {"no program", "", -1, ERROR_CANCELLED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string program =
        c.body.empty() ? "" : write_script(dir, "select", "cat > '" + list_file + "'\n" + c.body);
    const auto child = run_isolated({{"BV_PLATFORM_SELECT", program}}, [&] {
      expect_choice(c.index, c.error);
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  }
  // The list the program read: one certificate a line, tab-separated.
  const std::string list = read_file(list_file);
  EXPECT_EQ(list.find("1\t" + certificate_hash(certs[0].get()) + "\tCN=Signer 1, O=Chain Test\t"), 0u) << list;
  EXPECT_NE(list.find("\n3\t" + hash + "\t"), std::string::npos) << list;

  // An empty store asks nobody: the program would write the list again.
  unlink(list_file.c_str());
  const std::string program = write_script(dir, "select", "cat > '" + list_file + "'; echo 1\n");
  const auto child = run_isolated({{"BV_PLATFORM_SELECT", program}}, [&] {
    HCERTSTORE empty = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
    EXPECT_EQ(CryptUIDlgSelectCertificateFromStore(empty, nullptr, nullptr, nullptr, 0, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), CRYPT_E_NOT_FOUND);
    CertCloseStore(empty, 0);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  EXPECT_NE(access(list_file.c_str(), F_OK), 0);
}

}  // namespace

}  // namespace bv::test
