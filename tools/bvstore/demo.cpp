// `bvstore demo DIR`: a complete demonstration PKI with GOST keys, laid out
// as the two application data folders:
//   DIR/local   stands for folder 28 (BV_PLATFORM_LOCAL_APPDATA)
//   DIR/common  stands for folder 35 (BV_PLATFORM_COMMON_APPDATA)
//   DIR/services the time stamp authority's and the OCSP responder's
//                certificates and keys, PEM, for bvtsa and openssl ocsp
// and a manifest DIR/demo.txt with one line per certificate.
#include <cstdio>
#include <fstream>

#include "bvstore.h"
#include "crypt32/keys.h"
#include "kernel32/files.h"

namespace bvstore {

using namespace bv::pki;

namespace {

struct Party {
  const char* name;        // file stem after the order number
  const char* key_kind;
  const char* pin;         // empty: plain key file
  const char* common_name;
  const char* organisation;
  bool recipient;          // key agreement rather than signing
  bool revoked;
  bool expired;
};

// The order is the store's order.
constexpr Party kParties[] = {
    {"signer-2001", "gost2001", "11111111", "Demo Signer 2001", "OOO \"Demo, Signing\"", false, false, false},
    {"signer-2012-256", "gost2012_256", "22222222", "Demo Signer 2012-256", "Demo Organisation", false, false, false},
    {"signer-2012-512", "gost2012_512", "33333333", "Demo Signer 2012-512", "Demo Organisation", false, false, false},
    {"signer-nopin", "gost2012_256", "", "Demo Signer Without PIN", "Demo Organisation", false, false, false},
    {"signer-revoked", "gost2012_256", "66666666", "Demo Signer Revoked", "Demo Organisation", false, true, false},
    {"signer-expired", "gost2012_256", "88888888", "Demo Signer Expired", "Demo Organisation", false, false, true},
    {"recipient-2001", "gost2001", "77777777", "Demo Recipient 2001", "Demo Organisation", true, false, false},
    {"recipient-2012-256", "gost2012_256", "44444444", "Demo Recipient 2012-256", "Demo Organisation", true, false, false},
    {"recipient-2012-512", "gost2012_512", "55555555", "Demo Recipient 2012-512", "Demo Organisation", true, false, false},
};

std::string store_folder(const std::string& base, const std::string& name) {
  return base + "/Brelvantec/Certificates/" + name;
}

void write_key(const std::string& path, EVP_PKEY* key, const std::string& pin) {
  if (!bv::platform::write_key_file(path, key, pin)) throw Failure{"cannot write " + path};
}

void write_text(const std::string& path, const std::string& text) {
  if (const int error = bv::platform::replace_file(path, text, 0644)) throw file_failure("write", path, error);
}

struct Service {
  const char* name;  // file stem in DIR/services
  const char* pin;   // empty: plain key file
  const char* common_name;
  CertificateRequest::Service kind;
};

constexpr Service kServices[] = {
    {"tsa", "12121212", "Demo Time Stamp Authority", CertificateRequest::Service::kTimeStamping},
    {"ocsp", "", "Demo OCSP Responder", CertificateRequest::Service::kOcspSigning},
};

}  // namespace

int run_demo(const std::string& directory) {
  const std::string local = directory + "/local";
  const std::string common = directory + "/common";
  const std::string root_store = store_folder(common, "Root");
  const std::string ca_store = store_folder(common, "CA");
  const std::string my_store = store_folder(local, "My");
  const std::string address_store = store_folder(local, "Addressbook");
  for (const std::string& folder : {root_store, ca_store, my_store, address_store}) make_folders(folder);
  std::ofstream manifest(directory + "/demo.txt");
  manifest << "# name\tlocation\tstore\tfile\thash\tpin\tkey\n";
  auto record = [&](const std::string& name, const char* location, const char* store, const std::string& file,
                    X509* certificate, const std::string& pin, const std::string& kind) {
    manifest << name << '\t' << location << '\t' << store << '\t' << file << '\t' << certificate_hash(certificate)
             << '\t' << (pin.empty() ? "-" : pin) << '\t' << kind << '\n';
  };

  // Root and intermediate, both GOST R 34.10-2012 256-bit.
  auto root_key = generate_key("gost2012_256");
  CertificateRequest root_request;
  root_request.subject = {{"CN", "Demo Root CA"}, {"O", "Demo Organisation"}, {"C", "RU"}};
  root_request.not_after = 7299 * kDay;
  root_request.ca = true;
  auto root = issue_certificate(root_request, root_key.get());
  write_der_certificate(root_store + "/demo-root.cer", root.get());
  record("root", "common", "Root", root_store + "/demo-root.cer", root.get(), "", "gost2012_256");

  auto ca_key = generate_key("gost2012_256");
  CertificateRequest ca_request = root_request;
  ca_request.subject = {{"CN", "Demo Issuing CA"}, {"O", "Demo Organisation"}, {"C", "RU"}};
  ca_request.serial = 2;
  ca_request.not_after = 3649 * kDay;
  auto ca = issue_certificate(ca_request, ca_key.get(), root.get(), root_key.get());
  write_der_certificate(ca_store + "/demo-ca.cer", ca.get());
  record("ca", "common", "CA", ca_store + "/demo-ca.cer", ca.get(), "", "gost2012_256");

  // End entities.
  std::vector<long> revoked;
  long serial = 100;
  int order = 10;
  for (const Party& party : kParties) {
    auto key = generate_key(party.key_kind);
    CertificateRequest request;
    request.subject = {{"CN", party.common_name},
                       {"O", party.organisation},
                       {"L", "Moscow"},
                       {"C", "RU"},
                       {"emailAddress", std::string(party.name) + "@demo.example"},
                       {"1.2.643.100.3", "12345678901"},     // SNILS
                       {"1.2.643.3.131.1.1", "007712345678"}};  // INN
    request.serial = ++serial;
    request.not_before = (party.expired ? -400 : -1) * kDay;
    request.not_after = (party.expired ? -370 : 1824) * kDay;
    request.key_usage = party.recipient ? "keyEncipherment,keyAgreement" : "digitalSignature,nonRepudiation";
    request.extended_key_usage = "emailProtection";
    auto certificate = issue_certificate(request, key.get(), ca.get(), ca_key.get());
    if (party.revoked) revoked.push_back(request.serial);

    const std::string stem = std::to_string(order) + "-" + party.name;
    order += 10;
    write_der_certificate(my_store + "/" + stem + ".cer", certificate.get());
    write_key(bv::platform::key_file_for(my_store + "/" + stem + ".cer"), key.get(), party.pin);
    record(party.name, "local", "My", my_store + "/" + stem + ".cer", certificate.get(), party.pin, party.key_kind);
    if (party.recipient) {
      write_der_certificate(address_store + "/" + stem + ".cer", certificate.get());
      record(party.name, "local", "Addressbook", address_store + "/" + stem + ".cer", certificate.get(), "",
             party.key_kind);
    }
  }

  // Services, issued by the issuing CA; chain.pem is what a verifier needs
  // between their certificates and the root.
  const std::string services = directory + "/services";
  make_folders(services);
  write_text(services + "/chain.pem", pem_of(ca.get()) + pem_of(root.get()));
  write_text(services + "/root.pem", pem_of(root.get()));
  serial = 200;
  for (const Service& service : kServices) {
    auto key = generate_key("gost2012_256");
    CertificateRequest request;
    request.subject = {{"CN", service.common_name}, {"O", "Demo Organisation"}, {"C", "RU"}};
    request.serial = ++serial;
    request.not_after = 1824 * kDay;
    request.service = service.kind;
    auto certificate = issue_certificate(request, key.get(), ca.get(), ca_key.get());
    const std::string stem = services + "/" + service.name;
    write_text(stem + ".pem", pem_of(certificate.get()));
    write_key(stem + ".key", key.get(), service.pin);
    record(service.name, "-", "-", stem + ".pem", certificate.get(), service.pin, "gost2012_256");
  }

  write_der_crl(root_store + "/demo-root.crl", issue_crl(root.get(), root_key.get(), {}, -kDay, 30 * kDay).get());
  write_der_crl(ca_store + "/demo-ca.crl", issue_crl(ca.get(), ca_key.get(), revoked, -kDay, 30 * kDay).get());
  manifest.close();
  if (!manifest) throw file_failure("write", directory + "/demo.txt");

  std::printf("Demo PKI written to %s\n", directory.c_str());
  std::printf("  BV_PLATFORM_LOCAL_APPDATA=%s\n  BV_PLATFORM_COMMON_APPDATA=%s\n", local.c_str(), common.c_str());
  std::printf("  Certificates, hashes and PINs: %s/demo.txt\n", directory.c_str());
  std::printf("  Time stamp authority and OCSP responder: %s/services\n", directory.c_str());
  return 0;
}

}  // namespace bvstore
