// The stores every signing test works on, made with OpenSSL alone: a root
// with its CRL in Root, and signers of the three GOST key kinds in several
// stores of both locations; and SsfSign run as a host runs it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "certs.h"
#include "crypt32/cert.h"
#include "host.h"

namespace bv::test {

struct TestCert {
  UniquePtr<EVP_PKEY> key;
  UniquePtr<X509> cert;
  std::string cert_pem;  // path of the certificate, PEM
  std::string sha1_hex;  // SHA-1 of the DER, upper case, no blanks
};

struct SigningWorld {
  TempDir dir;
  TestCert root;
  TestCert alice;   // 2012-256, PIN 1111, current user My
  TestCert bob;     // 2012-512, PIN 2222, current user My and Other
  TestCert carol;   // 2001, no PIN, current user My and "12345678901234"
  TestCert dup_untrusted, dup_good;  // same name; the first can't be chained
  TestCert lonely;  // self-signed only, PIN 5555
  TestCert nokey;   // no key link
  TestCert dave;    // 2012-256, PIN 6666, local machine My
  TestCert erin;    // 2012-256, PIN 7777, local machine "y"
  TestCert tsa;     // 2012-256 time stamping authority (critical usage), key unencrypted in the PKI folder
  std::string signers_pem;  // every leaf, for messages without certificates

  std::string local() const { return dir / "local"; }
  std::string common() const { return dir / "common"; }
  // A file of the current user's My store: "01-alice.cer", "01-alice.key"...
  std::string my(const std::string& file) const { return local() + "/Brelvantec/Certificates/My/" + file; }
  // Points this process's stores at the folders.
  void apply_environment() const;
  // The folders and, on top, `extra` settings.
  std::map<std::string, std::string> env(const std::map<std::string, std::string>& extra = {}) const;
  // The same stores under trace_env(traced, level), the common ones copied there.
  std::map<std::string, std::string> traced_env(const TempDir& traced, int level = 4) const;

  static const SigningWorld& get();  // made once per test program
};


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
  // Under the sanitizers, the child runs the leak check after the call: what
  // the library still holds then is a leak.
  bool check_leaks = false;
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

// What SsfVerify left in one signer's record: the Profile's time texts with
// "|" for their terminators, and the certificate the Password carries.
struct SignerRecord {
  int32_t result = -1;
  std::string id, times, certificate;
};

struct Verified {
  uint32_t rc = 99;
  std::string content;
  std::vector<SignerRecord> records;
};

// SsfVerify in a child with `env`; the records come back through a file.
Verified verify_through_export(const std::map<std::string, std::string>& env, const std::string& format,
                               const std::string& message, const std::string* input, const std::string& pab = "");

// SsfSign's message of "data to be signed" in a child with the test world's
// stores; `tsa_url` is the default time stamp service.
std::string signed_by_library(const std::string& format, bool detached, bool certs,
                              const std::vector<SignerSpec>& signers, const std::string& tsa_url = "");

// `openssl cms -sign` of `data` with each (certificate PEM file, key) as a
// signer, `options` added to the command line.
std::string signed_by_openssl(const std::vector<std::pair<std::string, EVP_PKEY*>>& signers, const std::string& data,
                              const std::string& options);

// What SsfAddSign gave back: its code, the record's Result (99 before the
// call) and the new message.
struct AddSigned {
  uint32_t rc = 99;
  int32_t result = -1;
  std::string message;
};

// SsfAddSign in a child with `env`, for one record made from `signer`.
AddSigned add_sign_through_export(const std::map<std::string, std::string>& env, const std::string& format,
                                  const std::string& message, const std::string* input, const SignerSpec& signer,
                                  bool include_certs);

// `openssl cms -verify` of a DER message against `ca_file`; `signer_certs`
// (PEM, may be empty) for messages without certificates, `content` for
// detached ones.  Returns the exit status; the content that came out is
// put in *out_content.
int openssl_cms_verify(const std::string& message, const std::string& ca_file, const std::string& signer_certs,
                       const std::string* content, std::string* out_content, std::string* diagnostics);



}  // namespace bv::test
