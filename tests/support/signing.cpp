#include "signing.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

#include "crypt32/store.h"

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

std::map<std::string, std::string> SigningWorld::traced_env(const TempDir& traced, int level) const {
  auto all = trace_env(traced, level);
  std::filesystem::copy(common() + "/Brelvantec/Certificates", traced / "common/Brelvantec/Certificates",
                        std::filesystem::copy_options::recursive);
  all["BV_PLATFORM_LOCAL_APPDATA"] = local();
  return all;
}

void SigningWorld::apply_environment() const {
  setenv("BV_PLATFORM_LOCAL_APPDATA", local().c_str(), 1);
  setenv("BV_PLATFORM_COMMON_APPDATA", common().c_str(), 1);
  bv::platform::forget_cached_stores();
}

const SigningWorld& SigningWorld::get() {
  static const std::unique_ptr<SigningWorld> world = [] {
    auto w = std::make_unique<SigningWorld>();
    long serial = 1;
    // O, CN and C=RU; the root signs unless the certificate signs itself.
    const auto make = [&](TestCert& c, const std::string& name, const std::string& organization, const char* kind,
                          bool ca_or_self_signed = false) {
      CertificateRequest request{.subject = {{"CN", name}, {"C", "RU"}}, .serial = serial++, .ca = &c == &w->root};
      if (!organization.empty()) request.subject.insert(request.subject.begin(), {"O", organization});
      c.key = generate_key(kind);
      c.cert = ca_or_self_signed ? issue_certificate(request, c.key.get())
                                 : issue_certificate(request, c.key.get(), w->root.cert.get(), w->root.key.get());
      c.cert_pem = w->dir / ("pki/" + std::to_string(request.serial) + ".pem");
      write_file(c.cert_pem, pem_of(c.cert.get()));
      c.sha1_hex = certificate_hash(c.cert.get());
    };
    make(w->root, "Test Root", "Test PKI", "gost2012_256", true);
    make(w->alice, "Alice", "Test Bank", "gost2012_256");
    make(w->bob, "Bob", "Test Bank", "gost2012_512");
    make(w->carol, "Carol", "Other Bank", "gost2001");
    make(w->dup_untrusted, "Dup", "Test Bank", "gost2012_256", true);
    make(w->dup_good, "Dup", "Test Bank", "gost2012_256");
    make(w->lonely, "Lonely", "", "gost2012_256", true);
    make(w->nokey, "NoKey", "", "gost2012_256");
    make(w->dave, "Dave", "", "gost2012_256");
    make(w->erin, "Erin", "", "gost2012_256");
    {
      CertificateRequest request{.subject = {{"CN", "Test TSA"}, {"C", "RU"}}, .serial = serial++,
                                 .service = CertificateRequest::Service::kTimeStamping};
      w->tsa.key = generate_key("gost2012_256");
      w->tsa.cert = issue_certificate(request, w->tsa.key.get(), w->root.cert.get(), w->root.key.get());
      w->tsa.cert_pem = w->dir / "pki/tsa.pem";
      write_file(w->tsa.cert_pem, pem_of(w->tsa.cert.get()));
      write_file(w->dir / "pki/tsa.key", pem_of(w->tsa.key.get()));
    }

    // <stem>.cer with its key link <stem>.key beside it, the key under `pin`.
    const auto install = [](const TestCert& c, const std::string& appdata, const std::string& store,
                            const std::string& stem, const char* pin) {
      const std::string folder = appdata + "/Brelvantec/Certificates/" + store + "/" + stem;
      write_file(folder + ".cer", der_of(c.cert.get()));
      if (pin != nullptr) write_file(folder + ".key", pem_of(c.key.get(), pin));
    };
    install(w->root, w->local(), "Root", "root", nullptr);
    write_file(w->local() + "/Brelvantec/Certificates/Root/root.crl",
               der_of(issue_crl(w->root.cert.get(), w->root.key.get(), {}).get()));
    install(w->alice, w->local(), "My", "01-alice", "1111");
    install(w->bob, w->local(), "My", "02-bob", "2222");
    install(w->carol, w->local(), "My", "03-carol", "");
    install(w->dup_untrusted, w->local(), "My", "04-dup", "4444");
    install(w->dup_good, w->local(), "My", "05-dup", "4444");
    install(w->lonely, w->local(), "My", "06-lonely", "5555");
    install(w->nokey, w->local(), "My", "07-nokey", nullptr);
    install(w->bob, w->local(), "Other", "bob", "2222");
    install(w->carol, w->local(), "12345678901234", "carol", "");
    install(w->dave, w->common(), "My", "dave", "6666");
    install(w->erin, w->common(), "y", "erin", "7777");

    w->signers_pem = w->dir / "signers.pem";
    std::string all;
    for (const TestCert* c : {&w->alice, &w->bob, &w->carol, &w->dup_good, &w->lonely, &w->dave, &w->erin})
      all += pem_of(c->cert.get());
    write_file(w->signers_pem, all);
    return w;
  }();
  return *world;
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
  // The list goes back as a host gives it back, with the length it was made with.
  for (size_t i = 0; i < records.size(); ++i)
    if (records[i] != nullptr) records[i]->PasswordL = static_cast<int32_t>(request.signers[i].pin.size());
  api.SsfDELSigRcpSsfInfoList(&list);
#if defined(__SANITIZE_ADDRESS__)
  if (request.check_leaks) {
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
  }
#endif
}

SignOutcome read_outcome(const std::string& outcome_path, const std::string& signed_path) {
  SignOutcome outcome;
  std::istringstream lines(read_file(outcome_path));
  std::string pointer, line;
  if (!(lines >> outcome.rc >> pointer)) return outcome;
  outcome.output_pointer_null = pointer == "null";
  std::getline(lines, line);  // the end of the first line
  while (std::getline(lines, line)) {
    const size_t blank = line.find(' ');
    outcome.results.push_back(line == "-" ? -1 : std::stoi(line.substr(0, blank)));
    outcome.ids.push_back(line == "-" ? std::string() : line.substr(blank + 1));
  }
  outcome.signed_data = read_file(signed_path);
  return outcome;
}
}  // namespace

SignOutcome sign_through_export(const std::map<std::string, std::string>& env, const SignRequest& request) {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    sign_here(request, exchange / "outcome", exchange / "signed");
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  SignOutcome outcome = read_outcome(exchange / "outcome", exchange / "signed");
  outcome.child_stderr = child.stderr_text;
  return outcome;
}

Verified verify_through_export(const std::map<std::string, std::string>& env, const std::string& format,
                               const std::string& message, const std::string* input, const std::string& pab) {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    const SsfApi& api = SsfApi::get();
    SsfInfoNode* list = nullptr;
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    const SSF_RC rc = api.SsfVerify(
        format.data(), static_cast<int32_t>(format.size()), 0, reinterpret_cast<const unsigned char*>(message.data()),
        static_cast<int32_t>(message.size()),
        input != nullptr ? reinterpret_cast<const unsigned char*>(input->data()) : nullptr,
        input != nullptr ? static_cast<int32_t>(input->size()) : 0, pab.empty() ? nullptr : pab.data(),
        static_cast<int32_t>(pab.size()), nullptr, 0, &list, &out, &out_length);
    std::ostringstream text;
    text << rc << "\n";
    for (SsfInfoNode* node = list; node != nullptr; node = node->next) {
      const SsfInfo& info = *node->info;
      std::string times(info.Profile != nullptr ? info.Profile : "", static_cast<size_t>(info.ProfileL));
      for (char& c : times)
        if (c == '\0') c = '|';
      text << info.Result << "\t" << std::string(info.strSigRcpId, static_cast<size_t>(info.strSigRcpIdL)) << "\t"
           << times << "\t"
           << hex_of(info.Password != nullptr ? std::string(info.Password, static_cast<size_t>(info.PasswordL)) : "")
           << "\n";
    }
    write_file(exchange / "records", text.str());
    write_file(exchange / "content", std::string(reinterpret_cast<char*>(out), out != nullptr ? out_length : 0));
    api.SsfDELSsfOctetstring(&out, &out_length);
    api.SsfDELSigRcpSsfInfoList(&list);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  Verified verified;
  std::istringstream lines(read_file(exchange / "records"));
  std::string line;
  if (std::getline(lines, line)) verified.rc = static_cast<uint32_t>(std::stoul(line));
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    SignerRecord record;
    std::string result, certificate;
    std::getline(fields, result, '\t');
    std::getline(fields, record.id, '\t');
    std::getline(fields, record.times, '\t');
    std::getline(fields, certificate, '\t');
    record.result = std::stoi(result);
    record.certificate = bytes_of_hex(certificate);
    verified.records.push_back(record);
  }
  verified.content = read_file(exchange / "content");
  return verified;
}

std::string signed_by_library(const std::string& format, bool detached, bool certs,
                              const std::vector<SignerSpec>& signers, const std::string& tsa_url) {
  const SigningWorld& w = SigningWorld::get();
  SignRequest request;
  request.format = format;
  request.detached = detached;
  request.include_certs = certs;
  request.signers = signers;
  const SignOutcome outcome = sign_through_export(w.env({{"BV_CADES_DEFAULT_TSP", tsa_url}}), request);
  EXPECT_EQ(outcome.rc, 0u) << outcome.child_stderr;
  return outcome.signed_data;
}

std::string signed_by_openssl(const std::vector<std::pair<std::string, EVP_PKEY*>>& signers, const std::string& data,
                              const std::string& options) {
  TempDir dir;
  write_file(dir / "data", data);
  write_file(dir / "engine.cnf", kGostEngineConfig);
  std::string command = "OPENSSL_CONF='" + (dir / "engine.cnf") + "' openssl cms -sign -binary -outform DER -in '" +
                        (dir / "data") + "' " + options + " -out '" + (dir / "m.der") + "'";
  for (size_t i = 0; i < signers.size(); ++i) {
    const std::string key = dir / ("key" + std::to_string(i) + ".pem");
    write_file(key, pem_of(signers[i].second));
    command += " -signer '" + signers[i].first + "' -inkey '" + key + "'";
  }
  run_checked(command);
  return read_file(dir / "m.der");
}

AddSigned add_sign_through_export(const std::map<std::string, std::string>& env, const std::string& format,
                                  const std::string& message, const std::string* input, const SignerSpec& signer,
                                  bool include_certs) {
  TempDir exchange;
  const ChildResult child = run_isolated(env, [&] {
    const SsfApi& api = SsfApi::get();
    SsfInfo* info = nullptr;
    ASSERT_EQ(api.SsfNEWSigRcpSsfInfo(signer.id.data(), static_cast<int32_t>(signer.id.size()), nullptr, 0,
                                      signer.profile.data(), static_cast<int32_t>(signer.profile.size()),
                                      signer.pin.data(), static_cast<int32_t>(signer.pin.size()), 99, &info),
              SSF_OK);
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    const SSF_RC rc = api.SsfAddSign(
        format.data(), static_cast<int32_t>(format.size()), nullptr, 0, include_certs ? 1 : 0,
        reinterpret_cast<const unsigned char*>(message.data()), static_cast<int32_t>(message.size()),
        input != nullptr ? reinterpret_cast<const unsigned char*>(input->data()) : nullptr,
        input != nullptr ? static_cast<int32_t>(input->size()) : 0, info, &out, &out_length);
    write_file(exchange / "outcome", std::to_string(rc) + " " + std::to_string(info->Result) + "\n");
    write_file(exchange / "message", std::string(reinterpret_cast<char*>(out), out != nullptr ? out_length : 0));
    api.SsfDELSsfOctetstring(&out, &out_length);
    info->PasswordL = static_cast<int32_t>(signer.pin.size());
    api.SsfDELSigRcpSsfInfo(&info);
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);  // what the call still holds is a leak
#endif
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  AddSigned added;
  std::istringstream(read_file(exchange / "outcome")) >> added.rc >> added.result;
  added.message = read_file(exchange / "message");
  return added;
}

int openssl_cms_verify(const std::string& message, const std::string& ca_file, const std::string& signer_certs,
                       const std::string* content, std::string* out_content, std::string* diagnostics) {
  TempDir dir;
  write_file(dir / "message.der", message);
  std::string command = "openssl cms -verify -engine gost -binary -inform DER -in " + quoted(dir / "message.der") +
                        " -CAfile " + quoted(ca_file) + " -purpose any -out " + quoted(dir / "content.out");
  if (!signer_certs.empty()) command += " -certfile " + quoted(signer_certs);
  if (content != nullptr) {
    write_file(dir / "content.in", *content);
    command += " -content " + quoted(dir / "content.in");
  }
  int status = -1;
  const std::string output = run_command(command + " 2>&1", &status);
  if (diagnostics != nullptr) *diagnostics = output;
  if (out_content != nullptr && status == 0) *out_content = read_file(dir / "content.out");
  return status;
}

}  // namespace bv::test
