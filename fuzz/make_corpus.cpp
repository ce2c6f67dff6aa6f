// Writes the fuzzers' fixed PKI (fuzz/world, only when it is missing: the
// corpus files are made for it) and their seed corpora (fuzz/corpus/<fuzzer>)
// from real messages: ours, made through the exports, and OpenSSL's.
// Run from the build folder: fuzz/make_corpus; then commit what changed.
#include "authority.h"
#include "certs.h"
#include "signing.h"
#include "world.h"

namespace pki = bv::pki;
using namespace bv::fuzz;

namespace {

constexpr long kTwentyYears = 20 * 365 * pki::kDay;

void make_pki(const fs::path& folder) {
  auto root_key = pki::generate_key();
  auto root = pki::issue_certificate({.subject = {{"CN", "Fuzz Root"}, {"C", "RU"}}, .serial = 1, .not_after = kTwentyYears, .ca = true},
                                     root_key.get());
  auto signer_key = pki::generate_key();
  auto signer = pki::issue_certificate(
      {.subject = {{"O", "Fuzz Bank"}, {"CN", "Fuzz Signer"}, {"C", "RU"}}, .serial = 2, .not_after = kTwentyYears},
      signer_key.get(), root.get(), root_key.get());
  auto tsa_key = pki::generate_key();
  auto tsa = pki::issue_certificate({.subject = {{"CN", "Fuzz TSA"}, {"C", "RU"}}, .serial = 3, .not_after = kTwentyYears,
                                     .service = pki::CertificateRequest::Service::kTimeStamping},
                                    tsa_key.get(), root.get(), root_key.get());
  write_file(folder / "root.pem", pki::pem_of(root.get()));
  write_file(folder / "root.key", pki::pem_of(root_key.get()));
  write_file(folder / "signer.pem", pki::pem_of(signer.get()));
  write_file(folder / "signer.key", pki::pem_of(signer_key.get(), kSignerPin));
  write_file(folder / "tsa.pem", pki::pem_of(tsa.get()));
  write_file(folder / "tsa.key", pki::pem_of(tsa_key.get()));
}

class Corpus {
 public:
  explicit Corpus(const std::string& fuzzer) : folder_(fs::path(BV_FUZZ_DIR) / "corpus" / fuzzer) {
    fs::remove_all(folder_);
    fs::create_directories(folder_);
  }
  void add(const std::string& name, std::string_view bytes) {
    if (bytes.empty()) throw std::runtime_error("empty seed " + folder_.string() + "/" + name);
    write_file(folder_ / name, bytes);
  }

 private:
  fs::path folder_;
};

std::string joined(std::initializer_list<std::string_view> parts) {
  std::string all;
  for (std::string_view part : parts) (all += part) += "\n--\n";
  all.resize(all.size() - 4);
  return all;
}

std::string signed_message(const char* format, bool certs, bool detached, int signers = 1) {
  Records list;
  for (int i = 0; i < signers; ++i) list.add(world().signer_hash);
  Output out;
  SsfSign(format, static_cast<int32_t>(strlen(format)), nullptr, 0, certs, detached, bytes_of(kDetachedContent),
          length_of(kDetachedContent), list.list(), &out.data, &out.length);
  return out.bytes();
}

std::string enveloped_message() {
  Records list;
  list.add(world().signer_hash);
  Output out;
  SsfEnvelope("PKCS7", 5, "GOST28147", 9, bytes_of(kDetachedContent), length_of(kDetachedContent), nullptr, 0, nullptr, 0,
              list.list(), &out.data, &out.length);
  return out.bytes();
}

std::string added_signature(const std::string& message) {
  Records list;
  SsfInfo* info = list.add(world().signer_hash);
  Output out;
  SsfAddSign("PKCS7", 5, nullptr, 0, 1, bytes_of(message), length_of(message), nullptr, 0, info, &out.data, &out.length);
  return out.bytes();
}

std::string digest_message() {
  Output out;
  SsfDigest("PKCS7", 5, 0, bytes_of(kDetachedContent), length_of(kDetachedContent), "GOST2012-256", 12, &out.data, &out.length);
  return out.bytes();
}

std::string with_mode(int format, bool detached, const std::string& message) {
  if (message.empty()) throw std::runtime_error("a message of the corpus could not be made");
  return std::string(1, static_cast<char>(format | (detached ? 4 : 0))) + message;
}

void message_corpus() {
  const fs::path pki = pki_folder();
  auto signer_key = key_from(pki / "signer.key", kSignerPin);
  // CAdES through our own time stamp server on 127.0.0.1.
  bv::test::TempDir tsa_folder;
  bv::test::TimeStampServer tsa(tsa_folder.path(), (pki / "tsa.pem").string(), (pki / "tsa.key").string());
  setenv("BV_CADES_DEFAULT_TSP", tsa.url().c_str(), 1);
  const std::string attached = signed_message("PKCS7", true, false);
  const std::string cades = signed_message("CADES", true, false);
  const std::string openssl =
      bv::test::signed_by_openssl({{(pki / "signer.pem").string(), signer_key.get()}}, std::string(kDetachedContent), "-nodetach");
  Corpus corpus("message");
  corpus.add("pkcs7-attached", with_mode(0, false, attached));
  corpus.add("pkcs7-no-certificates", with_mode(0, false, signed_message("PKCS7", false, false)));
  corpus.add("pkcs7-detached", with_mode(0, true, signed_message("PKCS7", true, true)));
  corpus.add("pkcs7-two-signers", with_mode(3, false, signed_message("PKCS7", true, false, 2)));
  corpus.add("pkcs7-added-signer", with_mode(0, false, added_signature(attached)));
  corpus.add("cades-attached", with_mode(1, false, cades));
  corpus.add("cades-as-pkcs7-cades", with_mode(2, false, cades));
  corpus.add("cades-detached", with_mode(1, true, signed_message("CADES", true, true)));
  corpus.add("cades-added-signer", with_mode(1, false, added_signature(cades)));
  corpus.add("openssl-attached", with_mode(0, false, openssl));
  corpus.add("openssl-detached",
             with_mode(3, true, bv::test::signed_by_openssl({{(pki / "signer.pem").string(), signer_key.get()}},
                                                            std::string(kDetachedContent), "")));
  corpus.add("enveloped", with_mode(0, false, enveloped_message()));
  corpus.add("digested", with_mode(0, false, digest_message()));
  unsetenv("BV_CADES_DEFAULT_TSP");
}

void identity_corpus() {
  const std::string hash = world().signer_hash;
  std::string spaced;
  for (size_t i = 0; i < hash.size(); i += 2) spaced += hash.substr(i, 2) + " ";
  Corpus corpus("identity");
  corpus.add("hash", hash);
  corpus.add("hash-spaced-lower", spaced);
  corpus.add("hash-odd", hash.substr(1));
  corpus.add("dn", "CN=Fuzz Signer, O=Fuzz Bank, C=RU");
  corpus.add("dn-quoted", "CN=\"Fuzz Signer\", O=\"Fuzz Bank\"");
  corpus.add("dn-oid", "2.5.4.3=Fuzz Signer, 2.5.4.6=RU");
  corpus.add("dn-escaped", "CN=Fuzz\\u0020Signer, O=\\u0424\\u0431");
  corpus.add("dn-1251", "CN=\xD4\xE0\xE7\xE7, O=\xC1\xE0\xED\xEA");
  corpus.add("dn-broken", "CN=, =x, O");
  corpus.add("several", joined({hash, "CN=Fuzz Signer", spaced, "O=Fuzz Bank; CN=Nobody"}));
}

void store_corpus() {
  const fs::path pki = pki_folder();
  X509* root = world().root.get();
  const std::string crl = pki::der_of(pki::issue_crl(root, world().root_key.get(), {}, -3600, 3650 * pki::kDay).get());
  const std::string revoked = pki::der_of(pki::issue_crl(root, world().root_key.get(), {2}, -3600, 3650 * pki::kDay).get());
  const std::string signer_der = pki::der_of(world().signer.get());
  const std::string key = read_file(pki / "signer.key");
  Corpus corpus("store");
  corpus.add("signer-chain-crl-key", joined({signer_der, read_file(pki / "root.pem"), crl, key}));
  corpus.add("signer-revoked", joined({signer_der, read_file(pki / "tsa.pem"), revoked, key}));
  corpus.add("root-pem-crl", joined({pki::der_of(root), read_file(pki / "signer.pem") + read_file(pki / "tsa.pem"),
                                     pki::pem_of(pki::issue_crl(root, world().root_key.get(), {}).get())}));
  corpus.add("signer-wrong-key", joined({signer_der, "", "", read_file(pki / "tsa.key")}));
}

void config_corpus() {
  const std::string ssf_ini =
      "; settings\n[bvsapssf]\nBV_SSF_USERID=CERT_HASH\nBV_SSF_VERIFYCERTFLAGS=40000000zz\n"
      "BV_SSF_VERIFYCERTACCEPTABLESTATUS=0x1F\nBV_SSF_ASK_PIN_WHEN_EMPTY=no\nBV_SSF_VERIFYCERTFLAGS_ONSIGN=\"0\"\n"
      "BV_SSF_ADD_TSP=http://127.0.0.1:1/a;;http://127.0.0.1:1/b;\n";
  const std::string trace_ini = "[Trace]\nlibbvsapssf.so=3\nlibbvsapssf.so.logfile=bvsapssf.log\nProcessFlags=1\n";
  const std::string registry =
      "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Brelvantec\\Trace]\r\n"
      "\"libbvsapssf.so\"=\"4\"\r\n\"libbvsapssf.so.logfile\"=hex(2):62,00,76,00,2e,00,6c,00,\\\r\n  6f,00,67,00,00,00\r\n"
      "\"ProcessFlags\"=dword:00000003\r\n@=\"a \\\"quoted\\\" \\\\ text\"\r\n\"bin\"=hex:01,02\r\n; comment\r\n";
  const std::string trc =
      "[Process]\nInfo=ModuleCount:1, Level:2, Enabled:t, FuncAndCategoryNames:t, FileNameAndLineNo:f\nModule1=SSF\n\n"
      "[SSF]\nName=libbvsapssf.so\nSettings=CategoryCount:2, Level:4, Status:1\n"
      "Category1=Level:0, Status:0, Name:BVTraceGeneral\nCategory2=Level:0, Status:2, Name:BVTraceSnapin\n";
  const std::string cades_ini = "[cades]\nDefaultTSP = 'http://127.0.0.1:1/tsp'\n";
  std::string utf16 = "\xFF\xFE";
  for (char c : trace_ini) utf16 += {c, '\0'};
  Corpus corpus("config");
  corpus.add("all", joined({ssf_ini, trace_ini, registry, trc, cades_ini}));
  corpus.add("utf16-bom", joined({"\xEF\xBB\xBF" + ssf_ini, utf16, "\xFF\xFE" + std::string("W\0i\0n\0", 6), "", ""}));
  corpus.add("1251", joined({"[BVSAPSSF]\n bv_ssf_userid = \xD4\xE0\xE7\n", "[trace]\nLIBBVSAPSSF.SO=\"/tmp/\xC6.log\"", "", "", ""}));
}

std::string ocsp_response(int status, bool with_nonce) {
  X509* root = world().root.get();
  UniquePtr<OCSP_BASICRESP> basic(OCSP_BASICRESP_new());
  OCSP_CERTID* id = OCSP_cert_to_id(nullptr, world().signer.get(), root);
  UniquePtr<ASN1_STRING> now(X509_gmtime_adj(nullptr, -60)), next(X509_gmtime_adj(nullptr, 3650L * pki::kDay));
  OCSP_basic_add1_status(basic.get(), id, status, status == V_OCSP_CERTSTATUS_REVOKED ? OCSP_REVOKED_STATUS_KEYCOMPROMISE : -1,
                         status == V_OCSP_CERTSTATUS_REVOKED ? now.get() : nullptr, now.get(), next.get());
  OCSP_CERTID_free(id);
  if (with_nonce) OCSP_basic_add1_nonce(basic.get(), nullptr, 16);
  if (OCSP_basic_sign(basic.get(), root, world().root_key.get(), pki::digest_for_key(world().root_key.get()), nullptr, 0) != 1)
    throw std::runtime_error("OCSP response not signed: " + bv::ossl::take_error_text());
  UniquePtr<OCSP_RESPONSE> response(OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, basic.get()));
  return bv::ossl::der_of(response.get(), i2d_OCSP_RESPONSE);
}

void revocation_corpus() {
  X509* root = world().root.get();
  EVP_PKEY* key = world().root_key.get();
  Corpus corpus("revocation");
  corpus.add("ocsp-good", ocsp_response(V_OCSP_CERTSTATUS_GOOD, false));
  corpus.add("ocsp-revoked", ocsp_response(V_OCSP_CERTSTATUS_REVOKED, false));
  corpus.add("ocsp-unknown-nonce", ocsp_response(V_OCSP_CERTSTATUS_UNKNOWN, true));
  UniquePtr<OCSP_RESPONSE> refused(OCSP_response_create(OCSP_RESPONSE_STATUS_TRYLATER, nullptr));
  corpus.add("ocsp-try-later", bv::ossl::der_of(refused.get(), i2d_OCSP_RESPONSE));
  corpus.add("crl-empty", pki::der_of(pki::issue_crl(root, key, {}).get()));
  corpus.add("crl-revoked", pki::der_of(pki::issue_crl(root, key, {2, 3}).get()));
  corpus.add("crl-stale-pem", pki::pem_of(pki::issue_crl(root, key, {}, -10 * pki::kDay, -5 * pki::kDay).get()));
}

void timestamp_corpus() {
  const fs::path pki = pki_folder();
  bv::test::TempDir folder;
  bvtsa::AuthoritySettings settings{.certificate_file = (pki / "tsa.pem").string(), .key_file = (pki / "tsa.key").string(),
                                    .chain_file = (pki / "root.pem").string(), .policy = "2.999.3161.1",
                                    .serial_file = folder / "serial"};
  bvtsa::TimeStampAuthority authority(settings);
  UniquePtr<TS_REQ> request = fixed_time_stamp_request();
  Corpus corpus("timestamp");
  bvtsa::Reply reply;
  if (!authority.reply(bv::ossl::der_of(request.get(), i2d_TS_REQ), reply)) throw std::runtime_error("no time stamp");
  corpus.add("granted", reply.der);
  TS_REQ_set_cert_req(request.get(), 0);
  authority.reply(bv::ossl::der_of(request.get(), i2d_TS_REQ), reply);
  corpus.add("granted-without-certificate", reply.der);
  TS_REQ_set_nonce(request.get(), nullptr);
  authority.reply(bv::ossl::der_of(request.get(), i2d_TS_REQ), reply);
  corpus.add("granted-without-nonce", reply.der);
  X509_ALGOR_set_md(TS_MSG_IMPRINT_get_algo(TS_REQ_get_msg_imprint(request.get())), EVP_md5());
  authority.reply(bv::ossl::der_of(request.get(), i2d_TS_REQ), reply);
  corpus.add("rejected", reply.der);
}

// One call of exports_fuzzer: the export's number and its arguments, each
// text with the real length.
class Call {
 public:
  explicit Call(int export_number, std::string_view format = "PKCS7") {
    bytes_ += {'\0', '\0'};
    text(format);
    bytes_ += static_cast<char>(export_number);
  }
  Call& text(std::string_view value) {
    bytes_ += static_cast<char>(value.size());
    (bytes_ += value) += '\5';
    return *this;
  }
  Call& byte(char value) {
    bytes_ += value;
    return *this;
  }
  Call& record(std::string_view id) { return text(id).text("").text(kSignerPin); }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

void exports_corpus() {
  const std::string hash = world().signer_hash;
  Corpus corpus("exports");
  corpus.add("version", Call(0).byte(0).byte(0).bytes());
  corpus.add("properties", Call(1).text("FORMATS").bytes());
  corpus.add("encode", Call(2).text("data").byte(1).bytes());
  corpus.add("sign", Call(3).byte(1).byte(0).byte(1).record(hash).text("data").bytes());
  corpus.add("verify", Call(4).text(signed_message("PKCS7", false, false).substr(0, 255)).text("").text("").byte(0).bytes());
  corpus.add("envelope", Call(5).text("GOST28147").text("data").text("").byte(1).record(hash).bytes());
  corpus.add("develope", Call(6).text(enveloped_message().substr(0, 255)).byte(0).record(hash).bytes());
  corpus.add("add-sign", Call(7).byte(1).text("\x30\x03\x02\x01\x01").text("").byte(0).record(hash).bytes());
  corpus.add("digest", Call(8).byte(0).text("data").text("GOST2012-256").bytes());
  corpus.add("print-record", Call(9).record(hash).byte(0).bytes());
  corpus.add("print-list", Call(10).byte(2).record(hash).record("CN=Fuzz Signer").byte(0).bytes());
  corpus.add("records", Call(11).record(hash).bytes());
}

}  // namespace

int main() {
  if (!fs::exists(pki_folder() / "root.pem")) make_pki(pki_folder());
  world();  // before the settings below, which it would reset
  message_corpus();
  identity_corpus();
  store_corpus();
  config_corpus();
  revocation_corpus();
  timestamp_corpus();
  exports_corpus();
  return 0;
}
