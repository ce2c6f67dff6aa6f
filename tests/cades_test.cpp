// CAdES-X Long Type 1 messages from SsfSign, taken apart and checked layer by
// layer by tools nobody here wrote (openssl cms and ts, asn1crypto), and the
// order and failures of the time stamp services.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "certs.h"
#include "cadesmsg/cadesmsg.h"
#include "cadesmsg/timestamp.h"
#include "crypt32/msg.h"
#include "crypt32/revocation.h"
#include "crypt32/store.h"
#include "http/http.h"
#include "signing.h"

namespace bv::test {
namespace {

// The checks of tests/tools/cades_check.py, then `openssl ts -verify` of
// each signer's signature time stamp over its signature value and of its
// Type 1 time stamp over the input the checker computed.
// Returns the checker's line ("ok crls=N ocsps=M").
std::string expect_x_long_type_1(const std::string& message, size_t signers) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  write_file(dir / "m.der", message);
  write_file(dir / "engine.cnf", kGostEngineConfig);
  int status = -1;
  const std::string checked = run_command("/usr/bin/python3 " BV_SOURCE_DIR "/tests/tools/cades_check.py " +
                                              quoted(dir / "m.der") + " " + quoted(dir.path()) + " 2>&1",
                                          &status);
  EXPECT_EQ(status, 0) << checked;
  if (status != 0) return checked;
  for (size_t i = 0; i < signers; ++i)
    for (const auto& [token, data] : {std::pair{"tst-", "sig-"}, std::pair{"esc-", "escin-"}}) {
      const std::string n = std::to_string(i);
      const std::string verified = run_command(
          "OPENSSL_CONF=" + quoted(dir / "engine.cnf") + " openssl ts -verify -token_in -in " +
              quoted(dir / (token + n + ".der")) + " -data " + quoted(dir / (data + n + ".bin")) + " -CAfile " +
              quoted(w.root.cert_pem) + " -untrusted " + quoted(dir / "certs.pem") + " 2>&1",
          &status);
      EXPECT_EQ(status, 0) << token << n << ": " << verified;
    }
  return checked;
}

// BouncyCastle's reading (tests/tools/CadesCheck.java): each signature, both
// time stamps of each signer, the references and values as its ESF types.
void expect_bouncycastle_accepts(const std::string& message, const std::string* detached_content, size_t signers) {
  TempDir dir;
  write_file(dir / "m.der", message);
  std::string command = "java -cp /usr/share/java/bcprov.jar:/usr/share/java/bcpkix.jar:/usr/share/java/bcutil.jar "
                        BV_SOURCE_DIR "/tests/tools/CadesCheck.java " + quoted(dir / "m.der");
  if (detached_content != nullptr) {
    write_file(dir / "content", *detached_content);
    command += " " + quoted(dir / "content");
  }
  int status = -1;
  const std::string said = run_command(command + " 2>&1", &status);
  EXPECT_EQ(status, 0) << said;
  EXPECT_NE(said.find("ok " + std::to_string(signers)), std::string::npos) << said;
}

TEST(CadesSign, MessagesPassIndependentChecks) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  TimeStampServer tsa(dir.path(), w.tsa.cert_pem, w.dir / "pki/tsa.key");
  const SignerSpec alice{"CN=Alice", "", "1111"}, bob{"CN=Bob", "", "2222"}, carol{"CN=Carol", "", ""};
  const struct {
    const char* name;
    const char* format;
    std::vector<SignerSpec> signers;
    bool detached, include_certs;
  } cases[] = {
      {"one signer, attached", "CADES", {alice}, false, true},
      {"2012-512 and 2001, detached", "PKCS7_CADES", {bob, carol}, true, true},
      {"three, no certificates", "CADES", {alice, bob, carol}, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SignRequest request{.format = c.format, .signers = c.signers, .include_certs = c.include_certs,
                              .detached = c.detached, .check_leaks = true};
    const SignOutcome outcome = sign_through_export(w.env({{"BV_CADES_DEFAULT_TSP", tsa.url()}}), request);
    ASSERT_EQ(outcome.rc, 0u) << outcome.child_stderr;
    std::string content, diagnostics;
    EXPECT_EQ(openssl_cms_verify(outcome.signed_data, w.root.cert_pem, c.include_certs ? "" : w.signers_pem,
                                 c.detached ? &request.data : nullptr, &content, &diagnostics),
              0)
        << diagnostics;
    EXPECT_EQ(content, request.data);
    expect_x_long_type_1(outcome.signed_data, c.signers.size());
    expect_bouncycastle_accepts(outcome.signed_data, c.detached ? &request.data : nullptr, c.signers.size());
  }
  // The plain formats ask the service nothing.
  const int asked = tsa.requests();
  for (const char* format : {"PKCS7", "PKCS7_ANY"})
    EXPECT_FALSE(signed_by_library(format, false, false, {alice}, tsa.url()).empty()) << format;
  EXPECT_EQ(tsa.requests(), asked);
}

// A TS response with the status "rejection" and nothing else.
std::string refusal() {
  UniquePtr<TS_RESP> response(TS_RESP_new());
  TS_STATUS_INFO* status = TS_STATUS_INFO_new();
  ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(TS_STATUS_INFO_get0_status(status)), TS_STATUS_REJECTION);
  TS_RESP_set_status_info(response.get(), status);
  TS_STATUS_INFO_free(status);
  unsigned char* der = nullptr;
  const int length = i2d_TS_RESP(response.get(), &der);
  std::string out(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return out;
}

// The answer of `tsa` to another request: valid, but for another imprint and nonce.
std::string answer_to_another_request(TimeStampServer& tsa, const TempDir& dir) {
  write_file(dir / "other.txt", "another document");
  write_file(dir / "engine.cnf", kGostEngineConfig);
  run_checked("OPENSSL_CONF=" + quoted(dir / "engine.cnf") + " openssl ts -query -md_gost12_256 -cert -data " +
              quoted(dir / "other.txt") + " -out " + quoted(dir / "other.tsq"));
  bv::platform::http::Request request;
  request.url = tsa.url();
  request.content_type = "application/timestamp-query";
  request.body = read_file(dir / "other.tsq");
  bv::platform::http::Body answer;
  EXPECT_TRUE(bv::platform::http::fetch(request, answer));
  return answer ? std::string(answer->bytes()) : std::string();
}

TEST(CadesSign, TimeStampServicesInOrderAndTheirFailures) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  for (const char* folder : {"a", "b", "c"}) std::filesystem::create_directories(dir / folder);
  TimeStampServer good_a(dir / "a", w.tsa.cert_pem, w.dir / "pki/tsa.key");
  TimeStampServer good_b(dir / "b", w.tsa.cert_pem, w.dir / "pki/tsa.key");
  HttpServer down;
  down.stop();
  HttpServer silent(/*silent=*/true);
  HttpServer garbage, refusing, replaying;
  garbage.put("/tsa", "this is no time stamp response");
  refusing.put("/tsa", refusal());
  replaying.put("/tsa", answer_to_another_request(good_b, dir));
  // An authority that chains to nothing in the Root stores.
  const auto untrusted_key = generate_key("gost2012_256");
  write_file(dir / "untrusted.key", pem_of(untrusted_key.get()));
  write_file(dir / "untrusted.pem",
             pem_of(issue_certificate({.subject = {{"CN", "Rogue TSA"}}, .serial = 99,
                                       .key_usage = "digitalSignature,nonRepudiation",
                                       .extended_key_usage = "critical,timeStamping"},
                                      untrusted_key.get())
                        .get()));
  TimeStampServer untrusted(dir / "c", dir / "untrusted.pem", dir / "untrusted.key");

  const std::string a = good_a.url(), b = good_b.url(), off = down.url("/tsa");
  const auto failed = [](const char* res) { return "#error#: Failed to enhance cades message. res = " + std::string(res); };
  // How each kind of broken HTTP answer fails is the sixteen-thread test's
  // concern; here one stands for them all: the call still ends in time.
  const struct {
    const char* name;
    std::string default_tsp, additional;  // BV_CADES_DEFAULT_TSP, BV_SSF_ADD_TSP
    uint32_t rc;
    std::vector<std::string> traced, not_traced;
  } cases[] = {
      {"default works", a, b + ";" + b, 0, {"with default TSP"}, {"additional TSP", "#error#"}},
      {"default down, first additional works", off, a + ";" + b, 0, {"additional TSP = " + a},
       {"TSP = " + b, "#error#"}},
      {"all down", off, off, SSF_ERR_ENCODE, {failed("0x2efd"), "#error#: 00002efd"}, {}},
      {"no default, none additional", "", "", SSF_ERR_ENCODE, {failed("0x2ee5")}, {}},
      {"garbage", garbage.url("/tsa"), "", SSF_ERR_ENCODE, {failed("0x2f78")}, {}},
      {"refused", refusing.url("/tsa"), "", SSF_ERR_ENCODE, {failed("0x80070005")}, {}},
      {"another request's answer", replaying.url("/tsa"), "", SSF_ERR_ENCODE, {failed("0x80096005")}, {}},
      {"untrusted authority", untrusted.url(), "", SSF_ERR_ENCODE, {failed("0x800b0109")}, {}},
      {"never answers", silent.url("/tsa"), "", SSF_ERR_ENCODE, {failed("0x2ee2")}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir traced;
    auto env = w.traced_env(traced);
    env["BV_CADES_DEFAULT_TSP"] = c.default_tsp;
    env["BV_PLATFORM_URL_TIMEOUT_MS"] = "1000";
    env["BV_SSF_ADD_TSP"] = c.additional;
    const SignRequest request{.format = "CADES", .signers = {{"CN=Alice", "", "1111"}}};
    const int a_before = good_a.requests(), b_before = good_b.requests();
    const auto started = std::chrono::steady_clock::now();
    const SignOutcome outcome = sign_through_export(env, request);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(15));
    EXPECT_EQ(outcome.rc, c.rc) << outcome.child_stderr;
    EXPECT_EQ(outcome.signed_data.empty(), c.rc != 0);
    EXPECT_EQ(outcome.results, std::vector<int32_t>{0});
    const std::string log = trace_log(traced);
    for (const std::string& line : c.traced) EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    for (const std::string& line : c.not_traced) EXPECT_EQ(log.find(line), std::string::npos) << line << "\n" << log;
    if (c.rc == 0) {
      // Two time stamps from the one service that worked; the next is never asked.
      EXPECT_EQ(good_a.requests() - a_before, 2);
      EXPECT_EQ(good_b.requests() - b_before, 0);
    }
  }
}

// Sixteen threads asking a broken service at once each get its code within
// the time-out, and the service sees one request (four with the redirects):
// the others wait for that one and share its failure.
TEST(CadesSign, SixteenThreadsAtOnceAtABrokenTimeStampService) {
  HttpServer silent(/*silent=*/true);
  const struct {
    const char* name;
    Misbehaviour how;  // ignored for the silent server
    DWORD error;
    int most_requests;
  } cases[] = {
      {"never answers", Misbehaviour::kDrip, ERROR_INTERNET_TIMEOUT, 0},
      {"one byte a second", Misbehaviour::kDrip, ERROR_INTERNET_TIMEOUT, 1},
      {"a body of 2 GiB", Misbehaviour::kHugeBody, ERROR_HTTP_INVALID_SERVER_RESPONSE, 1},
      {"redirected to itself", Misbehaviour::kRedirectLoop, ERROR_HTTP_INVALID_SERVER_RESPONSE, 4},
      {"reset in the middle", Misbehaviour::kResetMidway, ERROR_INTERNET_CONNECTION_ABORTED, 1},
  };
  setenv("BV_PLATFORM_URL_TIMEOUT_MS", "1000", 1);
  const EVP_MD* md = bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpServer broken;
    misbehave(broken, "/tsa", c.how, std::chrono::milliseconds(150));  // every thread asks before the answer
    const std::string url = c.most_requests == 0 ? silent.url("/tsa") : broken.url("/tsa");
    std::atomic<int> right{0};
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    std::latch all_started(16);
    for (int t = 0; t < 16; ++t)
      threads.emplace_back([&] {
        all_started.arrive_and_wait();
        bv::cades::TimeStamp stamp;
        if (!bv::cades::request_time_stamp(
                url, md, "data", [](bv::cades::TimeStamp&) { return true; }, stamp) &&
            GetLastError() == c.error)
          ++right;
      });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(right, 16);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
    EXPECT_LE(broken.requests(), c.most_requests);
  }
  unsetenv("BV_PLATFORM_URL_TIMEOUT_MS");
}

// Revocation values come from where the status was learnt: an OCSP
// responder, a CRL distribution point, a CRL in the stores.  A revoked signer
// or one whose status can't be had gets no X Long Type 1: code 11.
TEST(CadesSign, RevocationValuesFromEachSource) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  for (const char* folder : {"ocsp", "tsa", "common"}) std::filesystem::create_directories(dir / folder);
  TimeStampServer tsa(dir / "tsa", w.tsa.cert_pem, w.dir / "pki/tsa.key");
  const auto ca_key = generate_key();
  const auto ca = issue_certificate({.subject = {{"CN", "Revocation Root"}}, .serial = 1, .ca = true}, ca_key.get());
  HttpServer crl_server, down;
  down.stop();
  struct Signer {
    const char* name;
    bool revoked;
    std::string crl_url, ocsp_url;
    uint32_t rc;
    const char* values;
    UniquePtr<EVP_PKEY> key;
    UniquePtr<X509> cert;
  };
  Signer signers[] = {
      {"Ocsp", false, "", "ocsp", 0, "ok crls=1 ocsps=1"},  // the TSA's proof is the test root's CRL
      {"Distribution", false, crl_server.url("/ca.crl"), "", 0, "ok crls=2 ocsps=0"},
      {"Stored", false, "", "", 0, "ok crls=2 ocsps=0"},
      {"Revoked", true, "", "ocsp", SSF_ERR_ENCODE, ""},
      {"Unknowable", false, "", down.url("/ocsp"), SSF_ERR_ENCODE, ""},
  };
  std::vector<OcspResponder::Entry> entries;
  long serial = 10;
  for (Signer& s : signers) {
    s.key = generate_key();
    s.cert = issue_certificate({.subject = {{"CN", s.name}}, .serial = serial++, .crl_url = s.crl_url,
                                .ocsp_url = s.ocsp_url == "ocsp" ? "" : s.ocsp_url},
                               s.key.get(), ca.get(), ca_key.get());
    entries.push_back({s.cert.get(), s.revoked});
  }
  OcspResponder responder(dir / "ocsp", ca.get(), ca_key.get(), entries);
  crl_server.put("/ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {}).get()));

  // Stores: both roots (the test root for the time stamp authority), the
  // test root's CRL, the new root's CRL only for the "Stored" signer.
  const std::string stores = dir / "local/Brelvantec/Certificates";
  write_file(stores + "/Root/root.cer", der_of(w.root.cert.get()));
  std::filesystem::copy_file(w.local() + "/Brelvantec/Certificates/Root/root.crl", stores + "/Root/root.crl");
  write_file(stores + "/Root/revocation.cer", der_of(ca.get()));
  for (Signer& s : signers) {
    if (s.ocsp_url == "ocsp")  // now that the responder has its address
      s.cert = issue_certificate({.subject = {{"CN", s.name}}, .serial = X509_get0_serialNumber(s.cert.get())->data[0],
                                  .ocsp_url = responder.url()},
                                 s.key.get(), ca.get(), ca_key.get());
    write_file(stores + "/My/" + s.name + ".cer", der_of(s.cert.get()));
    write_file(stores + "/My/" + s.name + ".key", pem_of(s.key.get(), "1"));
  }
  for (Signer& s : signers) {
    SCOPED_TRACE(s.name);
    if (std::string(s.name) == "Stored")
      write_file(stores + "/CA/revocation.crl", der_of(issue_crl(ca.get(), ca_key.get(), {}).get()));
    const SignRequest request{.format = "CADES", .signers = {{std::string("CN=") + s.name, "", "1"}},
                              .include_certs = true};
    const SignOutcome outcome = sign_through_export(
        {{"BV_PLATFORM_LOCAL_APPDATA", dir / "local"}, {"BV_PLATFORM_COMMON_APPDATA", dir / "common"},
         {"BV_CADES_DEFAULT_TSP", tsa.url()}, {"BV_PLATFORM_URL_TIMEOUT_MS", "1000"}, {"BV_SSF_ADD_TSP", ""},
         {"BV_SSF_VERIFYCERTFLAGS_ONSIGN", "0"}},  // the CAdES layer, not the signing policy, judges here
        request);
    EXPECT_EQ(outcome.rc, s.rc) << outcome.child_stderr;
    if (s.rc == 0) { EXPECT_EQ(expect_x_long_type_1(outcome.signed_data, 1), std::string(s.values) + "\n"); }
    std::filesystem::remove(stores + "/CA/revocation.crl");
  }
}

// A CAdES message changed through OpenSSL's own structures: `change` gets
// the one signer and the message.
std::string tampered(const std::string& message, const std::function<void(CMS_SignerInfo*, CMS_ContentInfo*)>& change) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(message.data());
  UniquePtr<CMS_ContentInfo> cms(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(message.size())));
  change(sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0), cms.get());
  return der_of(cms.get());
}

void flip_last_byte(ASN1_STRING* value) {
  const_cast<unsigned char*>(ASN1_STRING_get0_data(value))[ASN1_STRING_length(value) - 1] ^= 0x01;
}

// The last byte of an unsigned attribute's value: inside the token's own
// signature for a time stamp, inside the last value otherwise.
std::function<void(CMS_SignerInfo*, CMS_ContentInfo*)> flip_unsigned(int nid) {
  return [nid](CMS_SignerInfo* signer, CMS_ContentInfo*) {
    X509_ATTRIBUTE* attribute = CMS_unsigned_get_attr(signer, CMS_unsigned_get_attr_by_NID(signer, nid, -1));
    flip_last_byte(X509_ATTRIBUTE_get0_type(attribute, 0)->value.sequence);
  };
}

// Every status the test PKI can produce, each from a real fault, through
// the CAdES verifier on a decoded message and, for the faults in the
// message, through SsfVerify.
TEST(CadesVerify, StatusesFromRealFaults) {
  const SigningWorld& w = SigningWorld::get();
  TempDir dir;
  TimeStampServer tsa(dir.path(), w.tsa.cert_pem, w.dir / "pki/tsa.key");
  const SignerSpec alice{"CN=Alice", "", "1111"};
  const std::string good = signed_by_library("CADES", false, false, {alice}, tsa.url());
  ASSERT_FALSE(good.empty());

  // Plain messages judged with other stores: with no Root store (no path),
  // with a CRL in the stores that revokes Alice, and from a signer under an
  // intermediate CA the root has revoked.
  const std::string plain = signed_by_library("PKCS7", false, true, {alice});
  const std::string stores = dir / "stores";
  std::filesystem::copy(w.local(), stores, std::filesystem::copy_options::recursive);
  write_file(stores + "/Brelvantec/Certificates/Root/root.crl",
             der_of(issue_crl(w.root.cert.get(), w.root.key.get(),
                              {ASN1_INTEGER_get(X509_get0_serialNumber(w.alice.cert.get())), 0x700}).get()));
  UniquePtr<EVP_PKEY> ca_key = generate_key(), leaf_key = generate_key();
  UniquePtr<X509> ca = issue_certificate({.subject = {{"CN", "Revoked CA"}}, .serial = 0x700, .ca = true},
                                         ca_key.get(), w.root.cert.get(), w.root.key.get());
  UniquePtr<X509> leaf =
      issue_certificate({.subject = {{"CN", "Under Revoked CA"}}, .serial = 2}, leaf_key.get(), ca.get(), ca_key.get());
  write_file(stores + "/Brelvantec/Certificates/CA/revoked-ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {}).get()));
  write_file(dir / "leaf.pem", pem_of(leaf.get()));
  write_file(dir / "ca.pem", pem_of(ca.get()));
  const std::string under_ca = signed_by_openssl({{dir / "leaf.pem", leaf_key.get()}}, "data to be signed",
                                                 "-nodetach -noattr -certfile " + quoted(dir / "ca.pem"));

  const struct {
    const char* name;
    std::string message;
    DWORD status;
    int32_t result;  // the signer's record after SsfVerify; -1: not asked
    bool plain_under_any = false;  // no longer X Long Type 1: PKCS7_ANY verifies it as a plain signature
    std::string local = "";  // the current user's folder, if not the test world's
  } cases[] = {
      {"as signed", good, CADES_VERIFY_SUCCESS, 0},
      {"signature value", tampered(good, [](CMS_SignerInfo* s, CMS_ContentInfo*) {
         flip_last_byte(CMS_SignerInfo_get0_signature(s));
       }), CADES_VERIFY_INVALID_SIGNATURE, 27},
      {"content", tampered(good, [](CMS_SignerInfo*, CMS_ContentInfo* cms) {
         flip_last_byte(*CMS_get0_content(cms));
       }), CADES_VERIFY_INVALID_SIGNATURE, 27},
      {"content-type attribute", tampered(good, [](CMS_SignerInfo* s, CMS_ContentInfo*) {
         X509_ATTRIBUTE* a = CMS_signed_get_attr(s, CMS_signed_get_attr_by_NID(s, NID_pkcs9_contentType, -1));
         X509_ATTRIBUTE_get0_type(a, 0)->value.object = OBJ_nid2obj(NID_id_smime_ct_TSTInfo);
       }), CADES_VERIFY_INVALID_CONTENT_TYPE, 28},
      {"signing-certificate-v2 names another certificate", tampered(good, [](CMS_SignerInfo* s, CMS_ContentInfo*) {
         X509_ATTRIBUTE* a = CMS_signed_get_attr(s, CMS_signed_get_attr_by_NID(s, NID_id_smime_aa_signingCertificateV2, -1));
         flip_last_byte(X509_ATTRIBUTE_get0_type(a, 0)->value.sequence);
       }), CADES_VERIFY_SIGNER_NOT_FOUND, 26},
      {"signature time stamp", tampered(good, flip_unsigned(NID_id_smime_aa_timeStampToken)),
       CADES_VERIFY_INVALID_SIGNATURE_TIMESTAMP, 28},
      {"Type 1 time stamp", tampered(good, flip_unsigned(NID_id_smime_aa_ets_escTimeStamp)),
       CADES_VERIFY_INVALID_CADES_C_TIMESTAMP, 28},
      {"a CRL among the values", tampered(good, flip_unsigned(NID_id_smime_aa_ets_revocationValues)),
       CADES_VERIFY_REFS_AND_VALUES_NO_MATCH, 28},
      {"revocation values gone", tampered(good, [](CMS_SignerInfo* s, CMS_ContentInfo*) {
         X509_ATTRIBUTE_free(CMS_unsigned_delete_attr(s, CMS_unsigned_get_attr_by_NID(s, NID_id_smime_aa_ets_revocationValues, -1)));
       }), CADES_VERIFY_INVALID_REFS_AND_VALUES, 28, true},
      {"no anchor", plain, CADES_VERIFY_NO_CHAIN, -1, false, dir / "nowhere"},
      {"signer revoked", plain, CADES_VERIFY_END_CERT_REVOCATION, -1, false, stores},
      {"intermediate revoked", under_ca, CADES_VERIFY_CHAIN_CERT_REVOCATION, -1, false, stores},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    w.apply_environment();
    if (!c.local.empty()) setenv("BV_PLATFORM_LOCAL_APPDATA", c.local.c_str(), 1);
    bv::platform::forget_cached_stores();
    bv::platform::revocation::clear_cache();
    bv::platform::MessageHandle message(CryptMsgOpenToDecode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, 0, nullptr, nullptr));
    ASSERT_TRUE(CryptMsgUpdate(message.get(), reinterpret_cast<const BYTE*>(c.message.data()),
                               static_cast<DWORD>(c.message.size()), TRUE));
    CadesVerificationInfo* info = nullptr;
    const BOOL verified = CadesMsgVerifySignature(message.get(), 0, nullptr, &info);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->dwStatus, c.status);
    EXPECT_EQ(verified != FALSE, c.status == CADES_VERIFY_SUCCESS);
    if (c.status == CADES_VERIFY_SUCCESS) {
      EXPECT_NE(info->pSignerCert, nullptr);
      EXPECT_NE(info->pSigningTime, nullptr);
      EXPECT_NE(info->pSignatureTimeStampTime, nullptr);
      BOOL is_x_long = FALSE;
      EXPECT_TRUE(CadesMsgIsType(message.get(), 0, CADES_X_LONG_TYPE_1, &is_x_long));
      EXPECT_TRUE(is_x_long);
      CadesBlobArray* values = nullptr;
      ASSERT_TRUE(CadesMsgGetCertificateValues(message.get(), 0, &values));
      EXPECT_GE(values->cBlob, 2u);  // the signer and the root at least
      CadesFreeBlobArray(values);
    }
    CadesFreeVerificationInfo(info);
    if (c.result < 0) continue;
    // The same through SsfVerify, by either name that finds CAdES.
    for (const char* format : {"CADES", "PKCS7_ANY"}) {
      const Verified v = verify_through_export(w.env(), format, c.message, nullptr);
      ASSERT_EQ(v.records.size(), 1u) << format;
      const bool plain_any = c.plain_under_any && std::string(format) == "PKCS7_ANY";
      EXPECT_EQ(v.records[0].result, plain_any ? 0 : c.result) << format;
      EXPECT_EQ(v.rc, plain_any || c.status == CADES_VERIFY_SUCCESS ? SSF_OK : SSF_ERR_SIGNER) << format;
    }
  }
}

}  // namespace
}  // namespace bv::test
