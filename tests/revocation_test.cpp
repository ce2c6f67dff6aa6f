// Revocation sources against real servers on 127.0.0.1: CRLs from the
// stores and from distribution points, OCSP from `openssl ocsp`, the cache,
// time-outs and HTTP failures.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "certs.h"
#include "crypt32/revocation.h"
#include "http/http.h"
#include "kernel32/kernel32.h"

namespace {

using namespace bv::test;
namespace revocation = bv::platform::revocation;
using revocation::Source;
using revocation::Verdict;

// An OCSP responder for one CA, from an index in `openssl ca` form: each
// request is answered by `openssl ocsp` on files in `folder`, behind an
// HttpServer (one request at a time: it answers its connections in turn).
class OcspResponder {
 public:
  struct Entry {
    X509* cert;
    bool revoked;
  };
  OcspResponder(const std::string& folder, X509* ca, EVP_PKEY* ca_key, const std::vector<Entry>& entries) {
    write_file(folder + "/ca.pem", pem_of(ca));
    write_file(folder + "/ca.key", pem_of(ca_key));
    std::string index;
    for (const Entry& entry : entries) {
      UniquePtr<BIGNUM> serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(entry.cert), nullptr));
      char* hex = BN_bn2hex(serial.get());
      char* subject = X509_NAME_oneline(X509_get_subject_name(entry.cert), nullptr, 0);
      index += std::string(entry.revoked ? "R" : "V") + "\t301231000000Z\t" +
               (entry.revoked ? "200101000000Z,keyCompromise" : "") + "\t" + (std::strlen(hex) % 2 ? "0" : "") + hex +
               "\tunknown\t" + subject + "\n";
      OPENSSL_free(hex);
      OPENSSL_free(subject);
    }
    write_file(folder + "/index.txt", index);
    write_file(folder + "/openssl.cnf",
               "openssl_conf = openssl_def\n[openssl_def]\nengines = engines\n[engines]\ngost = gost\n"
               "[gost]\nengine_id = gost\ndefault_algorithms = ALL\n");
    server_.handle("/", [folder](const std::string& request) {
      write_file(folder + "/request.der", request);
      std::remove((folder + "/response.der").c_str());
      const std::string f = "'" + folder + "/";
      run_command("OPENSSL_CONF=" + f + "openssl.cnf' openssl ocsp -index " + f + "index.txt' -CA " + f +
                  "ca.pem' -rsigner " + f + "ca.pem' -rkey " + f + "ca.key' -rmd md_gost12_256 -nmin 5 -reqin " + f +
                  "request.der' -respout " + f + "response.der' >> " + f + "ocsp.log' 2>&1");
      return read_file(folder + "/response.der");
    });
  }
  std::string url() const { return server_.url("/"); }
  void stop() { server_.stop(); }

 private:
  HttpServer server_;
};

class Revocation : public ::testing::Test {
 protected:
  void SetUp() override {
    revocation::clear_cache();
    setenv("no_proxy", "127.0.0.1,localhost", 1);
  }
  void TearDown() override { revocation::clear_cache(); }

  UniquePtr<X509> leaf(long serial, const std::string& crl_url = {}, const std::string& ocsp_url = {}) {
    return issue_certificate(
        {.subject = {{"CN", "Leaf " + std::to_string(serial)}}, .serial = serial, .crl_url = crl_url, .ocsp_url = ocsp_url},
        leaf_key.get(), ca.get(), ca_key.get());
  }
  static revocation::Options quick(bool network = true) {
    revocation::Options options;
    options.network = network;
    options.timeout = std::chrono::milliseconds(1500);
    return options;
  }

  bv::test::TempDir dir;
  UniquePtr<EVP_PKEY> ca_key = generate_key(), leaf_key = generate_key();
  UniquePtr<X509> ca = issue_certificate({.subject = {{"CN", "Revocation CA"}}, .ca = true}, ca_key.get());
};

TEST_F(Revocation, CrlsOfTheStores) {
  UniquePtr<EVP_PKEY> other_key = generate_key();
  // Same name as the real CA, another key: its CRLs prove nothing.
  UniquePtr<X509> impostor = issue_certificate({.subject = {{"CN", "Revocation CA"}}, .ca = true}, other_key.get());
  UniquePtr<X509> cert = leaf(0x1234);
  const struct {
    const char* name;
    UniquePtr<X509_CRL> crl;
    Verdict verdict;
    DWORD error;
  } cases[] = {
      {"lists it", issue_crl(ca.get(), ca_key.get(), {7, 0x1234}), Verdict::revoked, CRYPT_E_REVOKED},
      {"current, without it", issue_crl(ca.get(), ca_key.get(), {7}), Verdict::good, 0},
      {"past its next update, without it", issue_crl(ca.get(), ca_key.get(), {7}, -10 * kDay, -kDay),
       Verdict::offline, CRYPT_E_REVOCATION_OFFLINE},
      {"past its next update, with it", issue_crl(ca.get(), ca_key.get(), {0x1234}, -10 * kDay, -kDay),
       Verdict::revoked, CRYPT_E_REVOKED},
      {"another key's", issue_crl(impostor.get(), other_key.get(), {0x1234}), Verdict::unknown,
       CRYPT_E_NO_REVOCATION_CHECK},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    revocation::Options options = quick();
    options.store_crls.push_back(c.crl.get());
    const revocation::Result result = revocation::check(cert.get(), ca.get(), options);
    EXPECT_EQ(result.verdict, c.verdict);
    EXPECT_EQ(result.error, c.error);
    if (c.verdict == Verdict::revoked || c.verdict == Verdict::good) {
      EXPECT_EQ(result.source, Source::store_crl);
    }
  }
  // A revocation in one store CRL wins over another that doesn't list it.
  UniquePtr<X509_CRL> clean = issue_crl(ca.get(), ca_key.get(), {});
  UniquePtr<X509_CRL> listing = issue_crl(ca.get(), ca_key.get(), {0x1234});
  revocation::Options options = quick();
  options.store_crls = {clean.get(), listing.get()};
  EXPECT_EQ(revocation::check(cert.get(), ca.get(), options).verdict, Verdict::revoked);
  // Revoked an hour ago: at a time before that it was good.
  options.at = std::time(nullptr) - 3 * 3600;
  options.store_crls = {listing.get()};
  EXPECT_EQ(revocation::check(cert.get(), ca.get(), options).verdict, Verdict::good);
}

TEST_F(Revocation, NoSourceAtAllIsUnknownNotOffline) {
  UniquePtr<X509> cert = leaf(5);
  const revocation::Result result = revocation::check(cert.get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::unknown);
  EXPECT_EQ(result.error, CRYPT_E_NO_REVOCATION_CHECK);
  // Only schemes that are fetched count as sources.
  UniquePtr<X509> ldap_only = leaf(6, "ldap://127.0.0.1/cn=crl");
  EXPECT_EQ(revocation::check(ldap_only.get(), ca.get(), quick()).verdict, Verdict::unknown);
}

TEST_F(Revocation, DistributionPointDownloadedOnceThenCached) {
  HttpServer server;
  server.put("/ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {0x77}).get()));
  server.put("/ca.pem", pem_of(issue_crl(ca.get(), ca_key.get(), {0x10}).get()));
  UniquePtr<X509> revoked = leaf(0x77, server.url("/ca.crl"));
  UniquePtr<X509> good = leaf(0x78, server.url("/ca.crl"));

  revocation::Result result = revocation::check(revoked.get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::revoked);
  EXPECT_EQ(result.source, Source::downloaded_crl);
  EXPECT_EQ(server.requests(), 1);

  // Same distribution point: the cached CRL answers, also without network.
  result = revocation::check(good.get(), ca.get(), quick(/*network=*/false));
  EXPECT_EQ(result.verdict, Verdict::good);
  EXPECT_EQ(result.source, Source::cached_crl);
  EXPECT_EQ(server.requests(), 1);
  EXPECT_NE(result.this_update, 0);

  // A CRL served as PEM is read as well.
  EXPECT_EQ(revocation::check(leaf(0x10, server.url("/ca.pem")).get(), ca.get(), quick()).verdict, Verdict::revoked);
}

TEST_F(Revocation, UnreachableSourcesAreOfflineAndFast) {
  HttpServer silent(/*silent=*/true);
  HttpServer server;
  server.put("/empty.crl", "");
  server.put("/garbage.crl", "not a CRL");
  UniquePtr<X509> other_ca = issue_certificate({.subject = {{"CN", "Other CA"}}, .serial = 9, .ca = true}, ca_key.get());
  server.put("/foreign.crl", der_of(issue_crl(other_ca.get(), ca_key.get(), {}).get()));
  const std::string down = "http://127.0.0.1:" + std::to_string(free_port()) + "/ca.crl";
  const struct {
    const char* name;
    std::string crl_url, ocsp_url;
  } cases[] = {
      {"nobody listens (CRL)", down, ""},
      {"nobody listens (OCSP)", "", down},
      {"answers nothing", silent.url("/ca.crl"), ""},
      {"404", server.url("/missing.crl"), ""},
      {"empty body", server.url("/empty.crl"), ""},
      {"not a CRL", server.url("/garbage.crl"), ""},
      {"another issuer's CRL", server.url("/foreign.crl"), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    revocation::clear_cache();
    UniquePtr<X509> cert = leaf(0x31, c.crl_url, c.ocsp_url);
    revocation::Options options = quick();
    options.timeout = std::chrono::milliseconds(300);
    const auto started = std::chrono::steady_clock::now();
    const revocation::Result result = revocation::check(cert.get(), ca.get(), options);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    EXPECT_EQ(result.verdict, Verdict::offline);
    EXPECT_EQ(result.error, CRYPT_E_REVOCATION_OFFLINE);
    // Bounded by the time-out given, far below the default one: no hang.
    EXPECT_LT(took.count(), 5000);
    // Without network, the same certificate is offline too, at once.
    EXPECT_EQ(revocation::check(cert.get(), ca.get(), quick(false)).verdict, Verdict::offline);
  }
}

TEST_F(Revocation, FailedSourceIsNotAskedAgainAtOnceAndDeadlinesHold) {
  HttpServer server;  // has nothing: every CRL request gets 404
  UniquePtr<X509> cert = leaf(0x32, server.url("/ca.crl"));
  EXPECT_EQ(revocation::check(cert.get(), ca.get(), quick()).verdict, Verdict::offline);
  EXPECT_EQ(revocation::check(cert.get(), ca.get(), quick()).verdict, Verdict::offline);
  EXPECT_EQ(server.requests(), 1);

  // A deadline shared by the requests and already spent ends them at once.
  HttpServer silent(/*silent=*/true);
  revocation::Options options = quick();
  options.deadline = revocation::Clock::now();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(revocation::check(leaf(0x33, silent.url("/ca.crl")).get(), ca.get(), options).verdict, Verdict::offline);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

TEST_F(Revocation, OcspResponderAnswersAndIsCached) {
  UniquePtr<X509> good = leaf(0x1001);
  UniquePtr<X509> revoked = leaf(0x1002);
  OcspResponder responder(dir.path(), ca.get(), ca_key.get(), {{good.get(), false}, {revoked.get(), true}});
  good = leaf(0x1001, "", responder.url());
  revoked = leaf(0x1002, "", responder.url());
  UniquePtr<X509> stranger = leaf(0x1003, "", responder.url());

  revocation::Result result = revocation::check(good.get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::good) << bv::test::read_file(dir / "ocsp.log");
  EXPECT_EQ(result.source, Source::ocsp);
  result = revocation::check(revoked.get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::revoked);
  EXPECT_EQ(result.error, CRYPT_E_REVOKED);
  EXPECT_EQ(result.reason, 1);  // keyCompromise
  // The responder doesn't know it, and there is no other source.
  EXPECT_EQ(revocation::check(stranger.get(), ca.get(), quick()).verdict, Verdict::unknown);

  // With the responder gone, the answers come from the cache until their
  // nextUpdate.
  responder.stop();
  result = revocation::check(good.get(), ca.get(), quick(/*network=*/false));
  EXPECT_EQ(result.verdict, Verdict::good);
  EXPECT_EQ(result.source, Source::cached_ocsp);
  EXPECT_EQ(revocation::check(revoked.get(), ca.get(), quick()).verdict, Verdict::revoked);
  revocation::clear_cache();
  EXPECT_EQ(revocation::check(good.get(), ca.get(), quick()).verdict, Verdict::offline);
}

TEST_F(Revocation, OcspComesFirstAndUnknownFallsBackToTheCrl) {
  HttpServer server;
  UniquePtr<X509> known = leaf(0x2001);
  OcspResponder responder(dir.path(), ca.get(), ca_key.get(), {{known.get(), true}});
  server.put("/ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {0x2002}).get()));
  // OCSP says revoked, the CRL doesn't list it: OCSP decides, no CRL fetched.
  known = leaf(0x2001, server.url("/ca.crl"), responder.url());
  EXPECT_EQ(revocation::check(known.get(), ca.get(), quick()).source, Source::ocsp);
  EXPECT_EQ(server.requests(), 0);
  // Unknown to the responder: the CRL decides.
  UniquePtr<X509> unknown = leaf(0x2002, server.url("/ca.crl"), responder.url());
  const revocation::Result result = revocation::check(unknown.get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::revoked);
  EXPECT_EQ(result.source, Source::downloaded_crl);
}

TEST_F(Revocation, OcspAnswerSignedByAnotherKeyIsRefused) {
  UniquePtr<EVP_PKEY> other_key = generate_key();
  UniquePtr<X509> other_ca = issue_certificate({.subject = {{"CN", "Revocation CA"}}, .ca = true}, other_key.get());
  UniquePtr<X509> cert = leaf(0x3001);
  // The responder signs with a key the CA never certified.
  OcspResponder responder(dir.path(), other_ca.get(), other_key.get(), {{cert.get(), false}});
  cert = leaf(0x3001, "", responder.url());
  EXPECT_EQ(revocation::check(cert.get(), ca.get(), quick()).verdict, Verdict::offline);
}

TEST(Http, FailuresGiveWininetErrors) {
  setenv("no_proxy", "127.0.0.1,localhost,invalid", 1);
  HttpServer silent(/*silent=*/true);
  HttpServer server;
  server.put("/ok", "body");
  const struct {
    std::string url;
    DWORD error;  // 0: success
  } cases[] = {
      {server.url("/ok"), 0},
      {server.url("/missing"), ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"http://127.0.0.1:" + std::to_string(free_port()) + "/", ERROR_INTERNET_CANNOT_CONNECT},
      {silent.url("/"), ERROR_INTERNET_TIMEOUT},
      {"http://host.invalid/crl", ERROR_INTERNET_NAME_NOT_RESOLVED},
      {"https://127.0.0.1/", ERROR_INTERNET_INVALID_URL},
      {"ftp://127.0.0.1/crl", ERROR_INTERNET_INVALID_URL},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    bv::platform::http::Request request;
    request.url = c.url;
    request.timeout = std::chrono::milliseconds(300);
    std::string body;
    SetLastError(0);
    EXPECT_EQ(bv::platform::http::fetch(request, body), c.error == 0);
    if (c.error == 0) {
      EXPECT_EQ(body, "body");
    } else {
      EXPECT_EQ(GetLastError(), c.error);
    }
  }
  bv::platform::http::Request large;
  large.url = server.url("/ok");
  large.max_response = 2;
  std::string body;
  EXPECT_FALSE(bv::platform::http::fetch(large, body));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

}  // namespace
