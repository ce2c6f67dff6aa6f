#include "signing_fixture.h"

#include <filesystem>

namespace bv::test {

std::map<std::string, std::string> SigningWorld::env(const std::map<std::string, std::string>& extra) const {
  std::map<std::string, std::string> all = {
      {"BV_PLATFORM_LOCAL_APPDATA", local()},  {"BV_PLATFORM_COMMON_APPDATA", common()},
      {"BV_SSF_VERIFYCERTFLAGS_ONSIGN", ""},   {"BV_SSF_VERIFYCERTACCEPTABLESTATUS", ""},
      {"BV_SSF_VERIFYCERTFLAGS_ONSELECT", ""}, {"BV_SSF_ASK_PIN_WHEN_EMPTY", ""},
      {"BV_PLATFORM_ASKPASS", ""},             {"BV_PLATFORM_SELECT", ""},
  };
  for (const auto& [name, value] : extra) all[name] = value;
  return all;
}

const SigningWorld& SigningWorld::get() {
  static const std::unique_ptr<SigningWorld> world = [] {
    auto w = std::make_unique<SigningWorld>();
    w->pki = std::make_unique<CliPki>(w->dir / "pki");
    CliPki& pki = *w->pki;
    w->alice = pki.issue("alice", "gost2012_256", "/CN=Alice/O=Test Bank/C=RU", "1111");
    w->bob = pki.issue("bob", "gost2012_512", "/CN=Bob/O=Test Bank/C=RU", "2222");
    w->carol = pki.issue("carol", "gost2001", "/CN=Carol/O=Other Bank/C=RU", "");
    w->dup_untrusted = pki.issue("dup1", "gost2012_256", "/CN=Dup/O=Test Bank/C=RU", "4444", true);
    w->dup_good = pki.issue("dup2", "gost2012_256", "/CN=Dup/O=Test Bank/C=RU", "4444");
    w->lonely = pki.issue("lonely", "gost2012_256", "/CN=Lonely/C=RU", "5555", true);
    w->nokey = pki.issue("nokey", "gost2012_256", "/CN=NoKey/C=RU", "");
    w->dave = pki.issue("dave", "gost2012_256", "/CN=Dave/C=RU", "6666");
    w->erin = pki.issue("erin", "gost2012_256", "/CN=Erin/C=RU", "7777");

    const std::string root_store = store_folder(w->local(), "Root");
    install_certificate(pki.root(), root_store, "root", false);
    std::filesystem::copy_file(pki.root_crl_der(), root_store + "/root.crl");

    const std::string my = store_folder(w->local(), "My");
    install_certificate(w->alice, my, "01-alice");
    install_certificate(w->bob, my, "02-bob");
    install_certificate(w->carol, my, "03-carol");
    install_certificate(w->dup_untrusted, my, "04-dup");
    install_certificate(w->dup_good, my, "05-dup");
    install_certificate(w->lonely, my, "06-lonely");
    install_certificate(w->nokey, my, "07-nokey", false);
    install_certificate(w->bob, store_folder(w->local(), "Other"), "bob");
    install_certificate(w->carol, store_folder(w->local(), "12345678901234"), "carol");
    install_certificate(w->dave, store_folder(w->common(), "My"), "dave");
    install_certificate(w->erin, store_folder(w->common(), "y"), "erin");

    w->signers_pem = w->dir / "signers.pem";
    std::string all;
    for (const CliCertificate* c : {&w->alice, &w->bob, &w->carol, &w->dup_good, &w->lonely, &w->dave, &w->erin})
      all += read_file(c->cert_pem);
    write_file(w->signers_pem, all);
    return w;
  }();
  return *world;
}

}  // namespace bv::test
