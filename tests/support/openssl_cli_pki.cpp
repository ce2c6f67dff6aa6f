#include "openssl_cli_pki.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "host.h"

namespace bv::test {

namespace {

std::string shell_quoted(const std::string& text) { return "'" + text + "'"; }

std::string key_command(const std::string& algorithm, const std::string& out) {
  const std::string paramset = algorithm == "gost2012_512" ? "A" : "A";
  return "openssl genpkey -engine gost -algorithm " + algorithm + " -pkeyopt paramset:" + paramset + " -out " +
         shell_quoted(out) + " 2>/dev/null";
}

std::string sha1_of(const std::string& der_path) {
  std::string line = run_checked("openssl dgst -sha1 -r " + shell_quoted(der_path));
  line = line.substr(0, line.find(' '));
  for (char& c : line) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return line;
}

}  // namespace

std::string run_checked(const std::string& command) {
  int status = -1;
  std::string output = run_command(command, &status);
  EXPECT_EQ(status, 0) << command << "\n" << output;
  return output;
}

CliPki::CliPki(const std::string& folder) : folder_(folder) {
  std::filesystem::create_directories(folder_);
  const std::string f = folder_ + "/";
  write_file(f + "ca.cnf",
             "[ca]\ndefault_ca = root\n[root]\ndatabase = " + f + "index.txt\ncrlnumber = " + f +
                 "crlnumber\ndefault_md = md_gost12_256\ndefault_crl_days = 30\n"
                 "[leaf]\nbasicConstraints = CA:false\nkeyUsage = critical,digitalSignature,nonRepudiation\n"
                 "subjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid\n");
  write_file(f + "index.txt", "");
  write_file(f + "crlnumber", "01\n");
  root_.plain_key_pem = root_.key_pem = f + "root.key";
  root_.cert_pem = f + "root.pem";
  root_.cert_der = f + "root.cer";
  run_checked(key_command("gost2012_256", root_.key_pem));
  run_checked("openssl req -engine gost -x509 -new -key " + shell_quoted(root_.key_pem) +
              " -subj '/CN=Test Root/O=Test PKI/C=RU' -days 365 -md_gost12_256"
              " -addext basicConstraints=critical,CA:true -addext keyUsage=critical,keyCertSign,cRLSign"
              " -out " + shell_quoted(root_.cert_pem) + " 2>&1");
  run_checked("openssl x509 -in " + shell_quoted(root_.cert_pem) + " -outform DER -out " + shell_quoted(root_.cert_der));
  root_.sha1_hex = sha1_of(root_.cert_der);
  root_crl_der_ = f + "root.crl";
  run_checked("openssl ca -engine gost -gencrl -config " + shell_quoted(f + "ca.cnf") + " -keyfile " +
              shell_quoted(root_.key_pem) + " -cert " + shell_quoted(root_.cert_pem) + " -out " + shell_quoted(f + "root.crl.pem") +
              " 2>&1 && openssl crl -in " + shell_quoted(f + "root.crl.pem") + " -outform DER -out " +
              shell_quoted(root_crl_der_));
}

CliCertificate CliPki::issue(const std::string& name, const std::string& algorithm, const std::string& subject,
                             const std::string& pin, bool self_signed) {
  const std::string f = folder_ + "/" + name;
  CliCertificate c;
  c.plain_key_pem = f + ".plain.key";
  c.key_pem = f + ".key.pem";
  c.cert_pem = f + ".pem";
  c.cert_der = f + ".cer";
  run_checked(key_command(algorithm, c.plain_key_pem));
  if (pin.empty()) {
    run_checked("cp " + shell_quoted(c.plain_key_pem) + " " + shell_quoted(c.key_pem));
  } else {
    run_checked("openssl pkcs8 -engine gost -topk8 -v2 aes-256-cbc -in " + shell_quoted(c.plain_key_pem) +
                " -passout " + shell_quoted("pass:" + pin) + " -out " + shell_quoted(c.key_pem) + " 2>&1");
  }
  const std::string serial = std::to_string(++serial_);
  if (self_signed) {
    run_checked("openssl req -engine gost -x509 -new -key " + shell_quoted(c.plain_key_pem) + " -subj " +
                shell_quoted(subject) + " -days 365 -set_serial " + serial + " -out " + shell_quoted(c.cert_pem) + " 2>&1");
  } else {
    run_checked("openssl req -engine gost -new -key " + shell_quoted(c.plain_key_pem) + " -subj " + shell_quoted(subject) +
                " -out " + shell_quoted(f + ".csr") + " 2>&1 && openssl x509 -engine gost -req -in " +
                shell_quoted(f + ".csr") + " -CA " + shell_quoted(root_.cert_pem) + " -CAkey " + shell_quoted(root_.key_pem) +
                " -set_serial " + serial + " -days 90 -md_gost12_256 -extfile " + shell_quoted(folder_ + "/ca.cnf") +
                " -extensions leaf -out " + shell_quoted(c.cert_pem) + " 2>&1");
  }
  run_checked("openssl x509 -in " + shell_quoted(c.cert_pem) + " -outform DER -out " + shell_quoted(c.cert_der));
  c.sha1_hex = sha1_of(c.cert_der);
  return c;
}

std::string store_folder(const std::string& appdata, const std::string& name) {
  return appdata + "/Brelvantec/Certificates/" + name;
}

void install_certificate(const CliCertificate& certificate, const std::string& folder, const std::string& stem,
                         bool with_key) {
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(certificate.cert_der, folder + "/" + stem + ".cer",
                             std::filesystem::copy_options::overwrite_existing);
  if (with_key)
    std::filesystem::copy_file(certificate.key_pem, folder + "/" + stem + ".key",
                               std::filesystem::copy_options::overwrite_existing);
}

namespace {

// The host's side of one SsfSign call, in the process that runs it; what
// came back goes to two files for the test's process.
void sign_here(const SignRequest& request, const std::string& outcome_path, const std::string& signed_path) {
  const SsfApi& api = SsfApi::get();
  SsfInfoNode* list = nullptr;
  std::vector<SsfInfo*> records;
  for (const SignerSpec& s : request.signers) {
    if (s.no_record) {
      // A node the host built by hand, without a record.
      auto* node = static_cast<SsfInfoNode*>(std::calloc(1, sizeof(SsfInfoNode)));
      SsfInfoNode** tail = &list;
      while (*tail != nullptr) tail = &(*tail)->next;
      *tail = node;
      records.push_back(nullptr);
      continue;
    }
    SsfInfo* info = nullptr;
    ASSERT_EQ(api.SsfNEWSigRcpSsfInfo(s.id.data(), static_cast<int32_t>(s.id.size()), nullptr, 0,
                                      s.profile.data(), static_cast<int32_t>(s.profile.size()), s.pin.data(),
                                      static_cast<int32_t>(s.pin.size()), 99, &info),
              SSF_OK);
    if (s.negative_pin_length) info->PasswordL = -1;
    ASSERT_EQ(api.SsfINSSigRcpSsfInfo(info, &list), SSF_OK);
    records.push_back(info);
  }
  unsigned char* out = reinterpret_cast<unsigned char*>(1);
  uint32_t out_length = 12345;
  const SSF_RC rc = api.SsfSign(request.format.data(), static_cast<int32_t>(request.format.size()), nullptr, 0,
                                request.include_certs ? 1 : 0, request.detached ? 1 : 0,
                                reinterpret_cast<const unsigned char*>(request.data.data()),
                                static_cast<int32_t>(request.data.size()), list, &out, &out_length);
  std::string outcome = std::to_string(rc) + " " + (out == nullptr ? "null" : "set") + "\n";
  for (SsfInfo* info : records) {
    if (info == nullptr) {
      outcome += "-\n";
      continue;
    }
    outcome += std::to_string(info->Result) + " " + std::string(info->strSigRcpId, info->strSigRcpIdL) + "\n";
  }
  write_file(outcome_path, outcome);
  write_file(signed_path, out == nullptr ? std::string() : std::string(reinterpret_cast<char*>(out), out_length));
  if (out != nullptr) api.SsfDELSsfOctetstring(&out, &out_length);
}

SignOutcome read_outcome(const std::string& outcome_path, const std::string& signed_path) {
  SignOutcome outcome;
  const std::string text = read_file(outcome_path);
  size_t line_end = text.find('\n');
  if (line_end == std::string::npos) return outcome;
  const std::string first = text.substr(0, line_end);
  outcome.rc = static_cast<uint32_t>(std::stoul(first.substr(0, first.find(' '))));
  outcome.output_pointer_null = first.substr(first.find(' ') + 1) == "null";
  size_t position = line_end + 1;
  while ((line_end = text.find('\n', position)) != std::string::npos) {
    const std::string line = text.substr(position, line_end - position);
    position = line_end + 1;
    if (line == "-") {
      outcome.results.push_back(-1);
      outcome.ids.emplace_back();
      continue;
    }
    const size_t blank = line.find(' ');
    outcome.results.push_back(std::stoi(line.substr(0, blank)));
    outcome.ids.push_back(line.substr(blank + 1));
  }
  outcome.signed_data = read_file(signed_path);
  return outcome;
}


}  // namespace

SignOutcome sign_through_export(const std::map<std::string, std::string>& env, const SignRequest& request) {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    // No controlling terminal: the provider and the chooser never prompt here.
    setsid();
    sign_here(request, exchange / "outcome", exchange / "signed");
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  SignOutcome outcome = read_outcome(exchange / "outcome", exchange / "signed");
  outcome.child_stderr = child.stderr_text;
  return outcome;
}

SignOutcome sign_at_terminal(const std::map<std::string, std::string>& env, const SignRequest& request,
                             const std::string& prompt, const std::function<std::string(const std::string&)>& answer,
                             std::string* screen_out) {
  TempDir exchange;
  std::fflush(nullptr);
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    for (const auto& [name, value] : env) {
      if (value.empty())
        unsetenv(name.c_str());
      else
        setenv(name.c_str(), value.c_str(), 1);
    }
    sign_here(request, exchange / "outcome", exchange / "signed");
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  std::string screen;
  bool answered = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (;;) {
    pollfd ready{terminal, POLLIN, 0};
    if (poll(&ready, 1, 200) > 0) {
      char chunk[4096];
      const ssize_t n = read(terminal, chunk, sizeof chunk);
      if (n <= 0) break;  // the child closed the terminal
      screen.append(chunk, static_cast<size_t>(n));
      if (!answered && screen.find(prompt) != std::string::npos) {
        const std::string typed = answer(screen);
        EXPECT_EQ(write(terminal, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        answered = true;
      }
    }
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "no end at the terminal:\n" << screen;
      kill(pid, SIGKILL);
      break;
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  close(terminal);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << screen;
  if (screen_out != nullptr) *screen_out = screen;
  return read_outcome(exchange / "outcome", exchange / "signed");
}

int openssl_cms_verify(const std::string& message, const std::string& ca_file, const std::string& signer_certs,
                       const std::string* content, std::string* out_content, std::string* diagnostics) {
  TempDir dir;
  write_file(dir / "message.der", message);
  std::string command = "openssl cms -verify -engine gost -binary -inform DER -in " + shell_quoted(dir / "message.der") +
                        " -CAfile " + shell_quoted(ca_file) + " -purpose any -out " + shell_quoted(dir / "content.out");
  if (!signer_certs.empty()) command += " -certfile " + shell_quoted(signer_certs);
  if (content != nullptr) {
    write_file(dir / "content.in", *content);
    command += " -content " + shell_quoted(dir / "content.in");
  }
  int status = -1;
  const std::string output = run_command(command + " 2>&1", &status);
  if (diagnostics != nullptr) *diagnostics = output;
  if (out_content != nullptr && status == 0) *out_content = read_file(dir / "content.out");
  return status;
}

}  // namespace bv::test
