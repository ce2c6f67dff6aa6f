// A small GOST PKI made by the openssl command line with the GOST engine,
// independent of the library: a root, leaf certificates of the three GOST
// key kinds with keys under a PIN, and the root's CRL.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bv::test {

struct CliCertificate {
  std::string cert_pem;  // path of the certificate, PEM
  std::string cert_der;  // path of the certificate, DER
  std::string key_pem;   // path of the private key, PKCS #8, encrypted when a PIN was given
  std::string plain_key_pem;  // path of the same key without a PIN
  std::string sha1_hex;  // SHA-1 of the DER, upper case, no blanks
};

class CliPki {
 public:
  // Makes the root (GOST 2012-256) and its empty CRL under `folder`.
  explicit CliPki(const std::string& folder);

  const CliCertificate& root() const { return root_; }
  const std::string& root_crl_der() const { return root_crl_der_; }

  // A leaf for signing.  `algorithm`: "gost2001", "gost2012_256",
  // "gost2012_512".  `subject` in openssl's "/CN=.../O=..." form.  An empty
  // `pin` leaves the key plain.  `self_signed` makes a certificate no chain
  // can reach.
  CliCertificate issue(const std::string& name, const std::string& algorithm, const std::string& subject,
                       const std::string& pin, bool self_signed = false);

 private:
  std::string folder_;
  CliCertificate root_;
  std::string root_crl_der_;
  int serial_ = 100;
};

// Runs a shell command; a non-zero exit fails the calling test.
std::string run_checked(const std::string& command);

// Puts a certificate into the system store folder `store_folder` as
// <stem>.cer (DER) with its key link <stem>.key beside it (unless
// `with_key` is false).
void install_certificate(const CliCertificate& certificate, const std::string& store_folder,
                         const std::string& stem, bool with_key = true);

// The folder of system store `name` under an application data folder.
std::string store_folder(const std::string& appdata, const std::string& name);

struct SignerSpec {
  std::string id, profile, pin;
  bool no_record = false;  // a list node without a record
  bool negative_pin_length = false;  // PasswordL set below 0 by hand, as a host could
};

struct SignRequest {
  std::string format = "PKCS7";
  std::vector<SignerSpec> signers;
  bool include_certs = false;
  bool detached = false;
  std::string data = "data to be signed";
};

struct SignOutcome {
  uint32_t rc = 99;
  std::vector<int32_t> results;
  std::vector<std::string> ids;  // the records' identities after the call
  std::string signed_data;
  bool output_pointer_null = false;
  std::string child_stderr;
};

// Loads the library in a child process with `env` and runs SsfSign there.
SignOutcome sign_through_export(const std::map<std::string, std::string>& env, const SignRequest& request);

// The same with the call's process on a pseudo-terminal of its own: when
// the screen shows `prompt`, what `answer` returns for the screen so far is
// typed.
SignOutcome sign_at_terminal(const std::map<std::string, std::string>& env, const SignRequest& request,
                             const std::string& prompt, const std::function<std::string(const std::string&)>& answer,
                             std::string* screen = nullptr);

// `openssl cms -verify` of a DER message against `ca_file`; `signer_certs`
// (PEM, may be empty) for messages without certificates, `content` for
// detached ones.  Returns the exit status; the content that came out is
// put in *out_content.
int openssl_cms_verify(const std::string& message, const std::string& ca_file, const std::string& signer_certs,
                       const std::string* content, std::string* out_content, std::string* diagnostics);

}  // namespace bv::test
