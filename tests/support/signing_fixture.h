// The stores every signing test works on: a root with its CRL in Root, and
// signers of the three GOST key kinds in several stores of both locations.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "host.h"
#include "openssl_cli_pki.h"

namespace bv::test {

struct SigningWorld {
  TempDir dir;
  std::unique_ptr<CliPki> pki;
  CliCertificate alice;   // 2012-256, PIN 1111, current user My
  CliCertificate bob;     // 2012-512, PIN 2222, current user My and Other
  CliCertificate carol;   // 2001, no PIN, current user My and "12345678901234"
  CliCertificate dup_untrusted, dup_good;  // same name; the first can't be chained
  CliCertificate lonely;  // self-signed only, PIN 5555
  CliCertificate nokey;   // no key link
  CliCertificate dave;    // 2012-256, PIN 6666, local machine My
  CliCertificate erin;    // 2012-256, PIN 7777, local machine "y"
  std::string signers_pem;  // every leaf, for messages without certificates

  std::string local() const { return dir / "local"; }
  std::string common() const { return dir / "common"; }
  // The folders and, on top, `extra` settings.
  std::map<std::string, std::string> env(const std::map<std::string, std::string>& extra = {}) const;

  static const SigningWorld& get();  // made once per test program
};

}  // namespace bv::test
