// The demonstration PKI as a test fixture: made once per test process by
// `bvstore demo` in a temporary folder, removed at exit.  Root and CA stores
// lie in the machine folder, My and Addressbook in the user's.  Names of
// the parties (see tools/bvstore/demo.cpp): signer-2001, signer-2012-256,
// signer-2012-512, signer-nopin, signer-revoked, signer-expired,
// recipient-2001, recipient-2012-256, recipient-2012-512, and root, ca.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "crypt32/cert.h"

namespace bv::test {

struct PkiEntry {
  std::string name;
  std::string location;  // "local" (current user) or "common" (local machine)
  std::string store;     // Root, CA, My, Addressbook
  std::string file;      // the certificate file
  std::string hash;      // SHA-1, 40 upper-case hex digits: an SSF hash identity
  std::string pin;       // empty when the key file is plain or there is no key
  std::string key_kind;  // gost2001, gost2012_256, gost2012_512
};

class DemoPki {
 public:
  // Builds the PKI on first use; a failure to build it fails the test.
  static const DemoPki& get();

  std::string local_appdata() const { return directory_ + "/local"; }
  std::string common_appdata() const { return directory_ + "/common"; }
  // The variables that point the platform at this PKI, for run_isolated.
  std::map<std::string, std::string> environment() const;
  // Sets those variables in this process, for tests that link the core.
  void apply_environment() const;

  // The entry of a party in a store ("My" unless said); throws if absent.
  const PkiEntry& entry(const std::string& name, const std::string& store = "My") const;
  std::string hash(const std::string& name) const { return entry(name).hash; }
  std::string pin(const std::string& name) const { return entry(name).pin; }
  std::string certificate_file(const std::string& name, const std::string& store = "My") const {
    return entry(name, store).file;
  }
  // <stem>.key beside the certificate in My.
  std::string key_file(const std::string& name) const;
  // The folder of a store: location "local" or "common".
  std::string store_folder(const std::string& location, const std::string& store) const;
  // The certificate as PEM (for openssl command lines).
  std::string pem_file(const std::string& name, const std::string& store = "My") const;

 private:
  DemoPki() = default;
  std::string directory_;
  std::vector<PkiEntry> entries_;
};

// Hands `pin` (null: none) to the certificate's key link as the signer
// search does: one PP_KEYEXCHANGE_PIN parameter, in a property that is not
// persisted.
void give_pin(PCCERT_CONTEXT context, const char* pin);
// Whether the provider's key opened (parameter 109).
bool key_opened(HCRYPTPROV provider);

}  // namespace bv::test
