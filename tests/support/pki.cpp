#include "pki.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "advapi32/keys.h"
#include "advapi32/provider.h"
#include "host.h"

namespace bv::test {
namespace {

// The folder goes at exit of the process that made it, not of a forked child.
struct Holder {
  std::unique_ptr<TempDir> folder;
  pid_t owner = getpid();
  ~Holder() {
    if (getpid() != owner) (void)folder.release();
  }
};

}  // namespace

const DemoPki& DemoPki::get() {
  static Holder holder;
  static DemoPki* pki = [] {
    holder.folder = std::make_unique<TempDir>();
    auto* made = new DemoPki;
    made->directory_ = holder.folder->path() + "/pki";
    int status = 0;
    const std::string output =
        run_command(std::string(BV_TOOLS_DIR) + "/bvstore demo " + made->directory_ + " 2>&1", &status);
    if (status != 0) throw std::runtime_error("bvstore demo failed: " + output);
    std::ifstream manifest(made->directory_ + "/demo.txt");
    std::string line;
    while (std::getline(manifest, line)) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream fields(line);
      PkiEntry entry;
      std::getline(fields, entry.name, '\t');
      std::getline(fields, entry.location, '\t');
      std::getline(fields, entry.store, '\t');
      std::getline(fields, entry.file, '\t');
      std::getline(fields, entry.hash, '\t');
      std::getline(fields, entry.pin, '\t');
      std::getline(fields, entry.key_kind, '\t');
      if (entry.pin == "-") entry.pin.clear();
      made->entries_.push_back(entry);
    }
    if (made->entries_.empty()) throw std::runtime_error("bvstore demo wrote no manifest");
    return made;
  }();
  return *pki;
}

std::map<std::string, std::string> DemoPki::environment() const {
  return {{"BV_PLATFORM_LOCAL_APPDATA", local_appdata()}, {"BV_PLATFORM_COMMON_APPDATA", common_appdata()}};
}

void DemoPki::apply_environment() const {
  for (const auto& [name, value] : environment()) setenv(name.c_str(), value.c_str(), 1);
}

const PkiEntry& DemoPki::entry(const std::string& name, const std::string& store) const {
  for (const PkiEntry& candidate : entries_)
    if (candidate.name == name && candidate.store == store) return candidate;
  throw std::runtime_error("no demo certificate " + name + " in " + store);
}

std::string DemoPki::key_file(const std::string& name) const {
  const std::string file = entry(name).file;
  return file.substr(0, file.rfind('.')) + ".key";
}

std::string DemoPki::store_folder(const std::string& location, const std::string& store) const {
  return directory_ + "/" + location + "/Brelvantec/Certificates/" + store;
}

std::string DemoPki::pem_file(const std::string& name, const std::string& store) const {
  const PkiEntry& found = entry(name, store);
  const std::string pem = directory_ + "/" + name + "-" + store + ".pem";
  if (access(pem.c_str(), R_OK) != 0) {
    int status = 0;
    run_command("openssl x509 -inform DER -in " + found.file + " -out " + pem + " 2>&1", &status);
    if (status != 0) throw std::runtime_error("openssl x509 failed for " + found.file);
  }
  return pem;
}

void give_pin(PCCERT_CONTEXT context, const char* pin) {
  DWORD size = 0;
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
  std::vector<BYTE> buffer(size);
  ASSERT_TRUE(CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size));
  std::string copy = pin != nullptr ? pin : "";
  CRYPT_KEY_PROV_PARAM param{PP_KEYEXCHANGE_PIN, pin != nullptr ? reinterpret_cast<BYTE*>(copy.data()) : nullptr,
                             pin != nullptr ? static_cast<DWORD>(copy.size() + 1) : 0, 0};
  auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buffer.data());
  info->cProvParam = 1;
  info->rgProvParam = &param;
  ASSERT_TRUE(CertSetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID,
                                                CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG, info));
}

bool key_opened(HCRYPTPROV provider) {
  BYTE value[8];
  DWORD size = sizeof value;
  return CryptGetProvParam(provider, PP_KEY_OPENED, value, &size, 0) != 0;
}

}  // namespace bv::test
