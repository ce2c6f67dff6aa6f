// CertGetCertificateChain on GOST hierarchies made by the test and laid out
// in the store folders: every status bit the engine produces, the stores it
// takes anchors and intermediates from, and revocation as the flags ask; and
// the revocation sources against real servers on 127.0.0.1: CRLs from the
// stores and from distribution points, OCSP from `openssl ocsp`, the cache,
// time-outs and HTTP failures.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "certs.h"
#include "crypt32/chain.h"
#include "crypt32/revocation.h"
#include "crypt32/store.h"
#include "http/http.h"
#include "kernel32/kernel32.h"

namespace {

using namespace bv::test;

constexpr DWORD kExcludeRoot = CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT;

// Both store locations at fresh folders for the life of a test.  A file
// rewritten in place may keep its folder's time: the store cache is dropped
// with every change.
class StoreFolders {
 public:
  StoreFolders() {
    setenv("BV_PLATFORM_LOCAL_APPDATA", (dir_ / "user").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (dir_ / "machine").c_str(), 1);
    setenv("BV_PLATFORM_URL_TIMEOUT_MS", "1500", 1);
    setenv("no_proxy", "127.0.0.1,localhost", 1);
    forget();
  }
  ~StoreFolders() { forget(); }
  // `name` is "Root", "CA", "My"...; `machine` picks the location.
  std::string store(const std::string& name, bool machine = false) const {
    return dir_ / ((machine ? "machine" : "user") + std::string("/Brelvantec/Certificates/") + name);
  }
  template <typename Object>  // X509 or X509_CRL
  void put(const std::string& name, const std::string& file, Object* object, bool machine = false) const {
    write_file(store(name, machine) + "/" + file, der_of(object));
    bv::platform::forget_cached_stores();
  }

 private:
  static void forget() {
    bv::platform::forget_cached_stores();
    bv::platform::revocation::clear_cache();
  }
  TempDir dir_;
};

struct Chain {
  std::shared_ptr<const CERT_CHAIN_CONTEXT> context;
  DWORD status() const { return context->TrustStatus.dwErrorStatus; }
  const CERT_CHAIN_ELEMENT* element(size_t i) const { return context->rgpChain[0]->rgpElement[i]; }
  DWORD element_status(size_t i) const { return element(i)->TrustStatus.dwErrorStatus; }
  DWORD length() const { return context->rgpChain[0]->cElement; }
};

struct BuildOptions {
  HCERTCHAINENGINE engine = nullptr;
  HCERTSTORE additional = nullptr;
  CERT_USAGE_MATCH usage = {};
  const FILETIME* time = nullptr;
};

// Root -> CA -> end entity, each a GOST 2012-256 key; the stores get what a
// test puts there.
class ChainTest : public ::testing::Test {
 protected:
  UniquePtr<X509> end_cert(CertificateRequest request = {}, X509* issuer = nullptr, EVP_PKEY* issuer_key = nullptr) {
    if (request.subject.empty()) request.subject = {{"CN", "Chain User"}};
    if (request.serial == 1) request.serial = 0x100;
    return issue_certificate(request, end_key.get(), issuer ? issuer : ca.get(), issuer_key ? issuer_key : ca_key.get());
  }
  void install_hierarchy() {
    stores.put("Root", "root.cer", root.get());
    stores.put("CA", "ca.cer", ca.get());
  }
  // Current CRLs of both issuers, listing the given serials.
  void install_crls(const std::vector<long>& revoked_by_ca = {}, const std::vector<long>& revoked_by_root = {}) {
    stores.put("CA", "ca.crl", issue_crl(ca.get(), ca_key.get(), revoked_by_ca).get());
    stores.put("Root", "root.crl", issue_crl(root.get(), root_key.get(), revoked_by_root).get());
  }

  // The chain of `cert` as a context of the user's My store, open while the
  // chain is built, as a caller's store is.
  Chain build(X509* cert, DWORD flags, const BuildOptions& options = {}) {
    // Written only when it changes: writing drops the stores' cache, and
    // with it any verdict kept from an earlier build.
    if (read_file(stores.store("My") + "/end.cer") != der_of(cert)) stores.put("My", "end.cer", cert);
    HCERTSTORE my = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, u"My");
    PCCERT_CONTEXT context = CertEnumCertificatesInStore(my, nullptr);
    CERT_CHAIN_PARA para{sizeof para, options.usage};
    PCCERT_CHAIN_CONTEXT made = nullptr;
    EXPECT_TRUE(CertGetCertificateChain(options.engine, context, const_cast<FILETIME*>(options.time),
                                        options.additional, &para, flags, nullptr, &made))
        << std::hex << GetLastError();
    CertFreeCertificateContext(context);
    CertCloseStore(my, 0);
    return Chain{std::shared_ptr<const CERT_CHAIN_CONTEXT>(made, CertFreeCertificateChain)};
  }

  StoreFolders stores;
  UniquePtr<EVP_PKEY> root_key = generate_key(), ca_key = generate_key(), end_key = generate_key();
  UniquePtr<X509> root = issue_certificate(
      {.subject = {{"CN", "Chain Root"}}, .not_before = -60 * kDay, .not_after = 3650 * kDay, .ca = true},
      root_key.get());
  UniquePtr<X509> ca = issue_certificate({.subject = {{"CN", "Chain CA"}}, .serial = 2, .not_before = -60 * kDay, .ca = true},
                                         ca_key.get(), root.get(), root_key.get());
};

TEST_F(ChainTest, GoodChainHasNoErrorAndItsThreeElements) {
  install_hierarchy();
  install_crls();
  UniquePtr<X509> cert = end_cert();
  const Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), 0u);
  ASSERT_EQ(chain.length(), 3u);
  EXPECT_EQ(chain.context->cChain, 1u);
  EXPECT_EQ(chain.context->cbSize, sizeof(CERT_CHAIN_CONTEXT));
  EXPECT_NE(chain.element(2)->TrustStatus.dwInfoStatus & CERT_TRUST_IS_SELF_SIGNED, 0u);
  EXPECT_NE(chain.element(0)->TrustStatus.dwInfoStatus & CERT_TRUST_HAS_KEY_MATCH_ISSUER, 0u);
  // Elements are the end certificate, its CA and the root, in that order.
  const CERT_CONTEXT* top = chain.element(2)->pCertContext;
  EXPECT_EQ(std::string(reinterpret_cast<char*>(top->pbCertEncoded), top->cbCertEncoded), der_of(root.get()));
  // Every revocation check passes on current CRLs; the root's own CRL
  // covers the root itself once the whole chain is asked for.
  for (DWORD flags : {CERT_CHAIN_REVOCATION_CHECK_END_CERT, kExcludeRoot, CERT_CHAIN_REVOCATION_CHECK_CHAIN}) {
    SCOPED_TRACE(flags);
    EXPECT_EQ(build(cert.get(), flags).status(), 0u);
  }
  std::remove((stores.store("Root") + "/root.crl").c_str());
  bv::platform::forget_cached_stores();
  const Chain unknown = build(cert.get(), CERT_CHAIN_REVOCATION_CHECK_CHAIN);
  EXPECT_EQ(unknown.element_status(2), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
  EXPECT_EQ(unknown.element_status(1), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
  EXPECT_EQ(build(cert.get(), kExcludeRoot).status(), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
}

TEST_F(ChainTest, StatusBitsOfBadCertificates) {
  UniquePtr<EVP_PKEY> stranger_key = generate_key();
  UniquePtr<X509> stranger_root =
      issue_certificate({.subject = {{"CN", "Stranger Root"}}, .serial = 5, .ca = true}, stranger_key.get());
  // The last octet of a certificate is its signature's.
  std::string corrupt = der_of(end_cert().get());
  corrupt.back() ^= 0x5A;
  const auto* bytes = reinterpret_cast<const unsigned char*>(corrupt.data());
  const struct {
    const char* name;
    UniquePtr<X509> cert;
    DWORD expected;  // the chain's error status, and the end certificate's unless partial
  } cases[] = {
      {"expired", end_cert({.not_before = -30 * kDay, .not_after = -kDay}), CERT_TRUST_IS_NOT_TIME_VALID},
      {"not yet valid", end_cert({.not_before = kDay, .not_after = 30 * kDay}), CERT_TRUST_IS_NOT_TIME_VALID},
      {"bad signature", UniquePtr<X509>(d2i_X509(nullptr, &bytes, static_cast<long>(corrupt.size()))),
       CERT_TRUST_IS_NOT_SIGNATURE_VALID},
      {"issued by an unknown root", end_cert({}, stranger_root.get(), stranger_key.get()), CERT_TRUST_IS_PARTIAL_CHAIN},
  };
  install_hierarchy();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Chain chain = build(c.cert.get(), 0);
    EXPECT_EQ(chain.status(), c.expected) << std::hex << chain.status();
    if (c.expected != CERT_TRUST_IS_PARTIAL_CHAIN) { EXPECT_EQ(chain.element_status(0), c.expected); }
  }

  // The stranger's root known, but not as a trust anchor.
  stores.put("CA", "stranger.cer", stranger_root.get());
  Chain chain = build(end_cert({}, stranger_root.get(), stranger_key.get()).get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_UNTRUSTED_ROOT);
  EXPECT_EQ(chain.element_status(1), CERT_TRUST_IS_UNTRUSTED_ROOT);

  // An issuer without the CA flag.
  UniquePtr<X509> not_a_ca =
      issue_certificate({.subject = {{"CN", "Chain CA"}}, .serial = 2}, ca_key.get(), root.get(), root_key.get());
  stores.put("CA", "ca.cer", not_a_ca.get());
  chain = build(end_cert({}, not_a_ca.get(), ca_key.get()).get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_INVALID_BASIC_CONSTRAINTS) << std::hex << chain.status();
}

TEST_F(ChainTest, AnchorsAndIntermediatesComeFromTheirStores) {
  UniquePtr<X509> cert = end_cert();
  // Nothing installed: the end certificate alone.
  Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_PARTIAL_CHAIN);
  EXPECT_EQ(chain.length(), 1u);

  // Root of the machine, CA of the machine: the user's engine sees both.
  stores.put("Root", "root.cer", root.get(), /*machine=*/true);
  stores.put("CA", "ca.cer", ca.get(), /*machine=*/true);
  EXPECT_EQ(build(cert.get(), 0).status(), 0u);

  // A root in the user's store is no anchor for the machine's engine.
  std::remove((stores.store("Root", true) + "/root.cer").c_str());
  stores.put("Root", "root.cer", root.get());
  EXPECT_EQ(build(cert.get(), 0, {.engine = HCCE_LOCAL_MACHINE}).status(), CERT_TRUST_IS_PARTIAL_CHAIN);

  // Without the CA in a store, the caller's additional store gives it.
  std::remove((stores.store("CA", true) + "/ca.cer").c_str());
  bv::platform::forget_cached_stores();
  EXPECT_EQ(build(cert.get(), 0).status(), CERT_TRUST_IS_PARTIAL_CHAIN);
  HCERTSTORE message = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
  const std::string ca_der = der_of(ca.get());
  ASSERT_TRUE(CertAddEncodedCertificateToStore(message, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(ca_der.data()),
                                               static_cast<DWORD>(ca_der.size()), CERT_STORE_ADD_ALWAYS, nullptr));
  chain = build(cert.get(), 0, {.additional = message});
  EXPECT_EQ(chain.status(), 0u);
  EXPECT_EQ(chain.length(), 3u);
  CertCloseStore(message, 0);
  // The certificate's own store serves as well, also when the CA store has
  // a certificate of the issuer's name with another key.
  UniquePtr<EVP_PKEY> other_key = generate_key();
  stores.put("CA", "impostor.cer",
             issue_certificate({.subject = {{"CN", "Chain CA"}}, .serial = 3, .ca = true}, other_key.get(), root.get(),
                               root_key.get())
                 .get());
  stores.put("My", "zz-ca.cer", ca.get());
  EXPECT_EQ(build(cert.get(), 0).status(), 0u);
}

TEST_F(ChainTest, RevocationAsTheFlagsAsk) {
  install_hierarchy();
  UniquePtr<X509> cert = end_cert();
  // The CA revoked by the root, the end certificate revoked by the CA.
  install_crls({0x100}, {2});
  const struct {
    DWORD flags, end, intermediate;
  } cases[] = {
      {0, 0, 0},
      {CERT_CHAIN_REVOCATION_CHECK_END_CERT, CERT_TRUST_IS_REVOKED, 0},
      {kExcludeRoot, CERT_TRUST_IS_REVOKED, CERT_TRUST_IS_REVOKED},
      {CERT_CHAIN_REVOCATION_CHECK_CHAIN, CERT_TRUST_IS_REVOKED, CERT_TRUST_IS_REVOKED},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flags);
    const Chain chain = build(cert.get(), c.flags);
    EXPECT_EQ(chain.element_status(0), c.end);
    EXPECT_EQ(chain.element_status(1), c.intermediate);
    EXPECT_EQ(chain.status(), c.end | c.intermediate);
    const PCERT_REVOCATION_INFO info = chain.element(0)->pRevocationInfo;
    ASSERT_EQ(info == nullptr, c.flags == 0);
    if (info != nullptr) { EXPECT_EQ(info->dwRevocationResult, CRYPT_E_REVOKED); }
  }
}

TEST_F(ChainTest, CacheOnlyUsesWhatWasFetchedBefore) {
  install_hierarchy();
  stores.put("Root", "root.crl", issue_crl(root.get(), root_key.get(), {}).get());
  HttpServer server;
  server.put("/ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {}).get()));
  UniquePtr<X509> cert = end_cert({.crl_url = server.url("/ca.crl")});
  for (DWORD cache_only : {CERT_CHAIN_REVOCATION_CHECK_CACHE_ONLY, CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL}) {
    SCOPED_TRACE(cache_only);
    bv::platform::revocation::clear_cache();
    EXPECT_EQ(build(cert.get(), kExcludeRoot | cache_only).status(),
              CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION);
    EXPECT_EQ(build(cert.get(), kExcludeRoot).status(), 0u);
    EXPECT_EQ(build(cert.get(), kExcludeRoot | cache_only).status(), 0u);
  }
  EXPECT_EQ(server.requests(), 2);
}

TEST_F(ChainTest, VerdictKeptUntilTheStoresOrTheRevocationCacheChange) {
  install_hierarchy();
  install_crls();
  UniquePtr<X509> cert = end_cert();
  const Chain first = build(cert.get(), kExcludeRoot);
  ASSERT_EQ(first.status(), 0u);
  // A kept verdict gives back its issuers' contexts; a chain built anew has new ones.
  EXPECT_EQ(build(cert.get(), kExcludeRoot).element(1)->pCertContext, first.element(1)->pCertContext);
  EXPECT_NE(build(cert.get(), CERT_CHAIN_REVOCATION_CHECK_CHAIN).element(1)->pCertContext,
            first.element(1)->pCertContext);
  // The CA's CRL replaced in place, with nobody telling the stores.
  write_file(stores.store("CA") + "/ca.crl", der_of(issue_crl(ca.get(), ca_key.get(), {0x100}).get()));
  const Chain revoked = build(cert.get(), kExcludeRoot);
  EXPECT_EQ(revoked.status(), CERT_TRUST_IS_REVOKED);
  bv::platform::revocation::clear_cache();
  EXPECT_NE(build(cert.get(), kExcludeRoot).element(1)->pCertContext, revoked.element(1)->pCertContext);
}

TEST_F(ChainTest, UsageDistrustAndTime) {
  install_hierarchy();
  UniquePtr<X509> mail_only = end_cert({.extended_key_usage = "emailProtection"});
  UniquePtr<X509> no_extension = end_cert();
  LPSTR email[] = {const_cast<LPSTR>(szOID_PKIX_KP_EMAIL_PROTECTION)};
  LPSTR client[] = {const_cast<LPSTR>(szOID_PKIX_KP_CLIENT_AUTH)};
  LPSTR both[] = {email[0], client[0]};
  const struct {
    const char* name;
    X509* cert;
    CERT_USAGE_MATCH usage;
    DWORD expected;
  } cases[] = {
      {"nothing asked", mail_only.get(), {}, 0},
      {"the usage it has", mail_only.get(), {USAGE_MATCH_TYPE_AND, {1, email}}, 0},
      {"a usage it lacks", mail_only.get(), {USAGE_MATCH_TYPE_AND, {1, client}}, CERT_TRUST_IS_NOT_VALID_FOR_USAGE},
      {"all of two", mail_only.get(), {USAGE_MATCH_TYPE_AND, {2, both}}, CERT_TRUST_IS_NOT_VALID_FOR_USAGE},
      {"one of two", mail_only.get(), {USAGE_MATCH_TYPE_OR, {2, both}}, 0},
      {"no extension allows all", no_extension.get(), {USAGE_MATCH_TYPE_AND, {1, client}}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(build(c.cert, 0, {.usage = c.usage}).status(), c.expected);
  }

  // Expired yesterday, valid ten days ago.
  UniquePtr<X509> expired = end_cert({.not_before = -30 * kDay, .not_after = -kDay});
  const uint64_t ticks = (static_cast<uint64_t>(std::time(nullptr) - 10 * kDay) * 10000000ull) + 116444736000000000ull;
  const FILETIME then{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  EXPECT_EQ(build(expired.get(), 0, {.time = &then}).status(), 0u);

  stores.put("Disallowed", "ca.cer", ca.get());
  const Chain chain = build(no_extension.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_EXPLICIT_DISTRUST);
  EXPECT_EQ(chain.element_status(1), CERT_TRUST_IS_EXPLICIT_DISTRUST);
}

namespace revocation = bv::platform::revocation;
using revocation::Source;
using revocation::Verdict;

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
  // Only schemes that are fetched count as sources.
  EXPECT_EQ(revocation::check(leaf(6, "ldap://127.0.0.1/cn=crl").get(), ca.get(), quick()).verdict, Verdict::unknown);
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

  // A CRL of another issuer's name, signed with the right key, proves
  // nothing: offline, as a source that failed.  Servers that are down,
  // stall, flood, loop or reset: SixteenThreadsAtOnceAskABrokenSourceOnce.
  UniquePtr<X509> other_ca = issue_certificate({.subject = {{"CN", "Other CA"}}, .serial = 9, .ca = true}, ca_key.get());
  server.put("/foreign.crl", der_of(issue_crl(other_ca.get(), ca_key.get(), {}).get()));
  result = revocation::check(leaf(0x31, server.url("/foreign.crl")).get(), ca.get(), quick());
  EXPECT_EQ(result.verdict, Verdict::offline);
  EXPECT_EQ(result.error, CRYPT_E_REVOCATION_OFFLINE);
}

// The largest resident size since `reset_peak_memory`, in bytes.
size_t peak_memory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6)) << 10;
  return 0;
}
void reset_peak_memory() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Sixteen threads of a work process asking one broken source at once: each
// ends offline within its time-out, the source sees one request (three more
// for the redirects), and the bodies read together stay within the budget.
TEST_F(Revocation, SixteenThreadsAtOnceAskABrokenSourceOnce) {
  constexpr int kThreads = 16;
  const std::string down = "http://127.0.0.1:" + std::to_string(free_port()) + "/ca.crl";
  const struct {
    const char* name;
    const char* path;  // on each server; none: `down`
    int servers;
    int most_requests;  // of each server
  } faults[] = {
      {"nobody listens", nullptr, 1, 0},
      {"answers nothing", "/silent", 1, 0},
      {"one byte a second", "/drip", 1, 1},
      {"reset in the middle", "/reset", 1, 1},
      {"redirected to itself", "/loop", 1, 4},
      {"not a CRL or answer", "/garbage", 1, 1},
      {"bodies of 2 GiB from four servers", "/huge", 4, 1},
  };
  for (const auto& fault : faults)
  for (const bool ocsp : {false, true}) {
    SCOPED_TRACE(std::string(ocsp ? "OCSP: " : "CRL: ") + fault.name);
    // A body that does not parse, from a server that answered: OCSP
    // requests differ (nonces), so they go in parallel, each its own.
    const std::string path = fault.path == nullptr ? "" : fault.path;
    const bool parallel = ocsp && path == "/garbage";
    const int most_requests = parallel ? kThreads : fault.most_requests;
    revocation::clear_cache();
    HttpServer silent(/*silent=*/true);
    std::vector<std::unique_ptr<HttpServer>> servers;
    std::vector<UniquePtr<X509>> certs;
    for (int i = 0; i < fault.servers; ++i) {
      auto& server = *servers.emplace_back(std::make_unique<HttpServer>());
      constexpr auto kOverlap = std::chrono::milliseconds(150);  // every thread asks before the answer comes
      for (const auto& [path, how] : {std::pair{"/drip", Misbehaviour::kDrip},
                                      {"/huge", Misbehaviour::kHugeBody},
                                      {"/loop", Misbehaviour::kRedirectLoop},
                                      {"/reset", Misbehaviour::kResetMidway}})
        misbehave(server, path, how, kOverlap);
      server.handle("/garbage", [kOverlap](const std::string&) {
        std::this_thread::sleep_for(kOverlap);
        return std::string("not a CRL");
      });
      server.put("/garbage-at-once", "not an OCSP answer");
      const std::string url = path.empty()         ? down
                              : path == "/silent" ? silent.url("/ca.crl")
                                                  : server.url(parallel ? "/garbage-at-once" : path);
      certs.push_back(leaf(0x40 + i, ocsp ? "" : url, ocsp ? url : ""));
    }
    revocation::Options options = quick();
    options.timeout = std::chrono::milliseconds(1000);
    reset_peak_memory();
    [[maybe_unused]] const size_t before = peak_memory();
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    std::atomic<int> offline{0};
    std::latch all_started(kThreads);
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        all_started.arrive_and_wait();
        const revocation::Result result = revocation::check(certs[t % certs.size()].get(), ca.get(), options);
        if (result.verdict == Verdict::offline && result.error == CRYPT_E_REVOCATION_OFFLINE) ++offline;
      });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(offline, kThreads);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
    for (const auto& server : servers) EXPECT_LE(server->requests(), most_requests);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // quarantine and shadow memory count too
    EXPECT_LT(peak_memory() - before, bv::platform::http::kAllBodiesBudget + (16u << 20));
#endif
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

  // An answer signed with a key the CA never certified proves nothing.
  UniquePtr<EVP_PKEY> other_key = generate_key();
  UniquePtr<X509> other_ca = issue_certificate({.subject = {{"CN", "Revocation CA"}}, .ca = true}, other_key.get());
  UniquePtr<X509> vouched = leaf(0x1004);
  OcspResponder impostor(dir / "impostor", other_ca.get(), other_key.get(), {{vouched.get(), false}});
  EXPECT_EQ(revocation::check(leaf(0x1004, "", impostor.url()).get(), ca.get(), quick()).verdict, Verdict::offline);
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

TEST(Http, FailuresGiveWininetErrors) {
  setenv("no_proxy", "127.0.0.1,localhost,invalid", 1);
  HttpServer server;
  server.put("/ok", "body");
  // Refused on its declared length, before 2 GiB come (else: reset, 12030).
  server.handle_raw("/declared-2GiB", [](int connection, const std::atomic<bool>&) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2147483648\r\n\r\n" + std::string(1000, '0');
    [[maybe_unused]] const ssize_t ignored = send(connection, head.data(), head.size(), MSG_NOSIGNAL);
  });
  const struct {
    std::string url;
    DWORD error;  // 0: success
    size_t max_response = bv::platform::http::Request{}.max_response;
  } cases[] = {
      {server.url("/ok"), 0},
      {server.url("/ok"), ERROR_HTTP_INVALID_SERVER_RESPONSE, 2},  // over the caller's own limit
      {server.url("/declared-2GiB"), ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {server.url("/missing"), ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"http://127.0.0.1:" + std::to_string(free_port()) + "/", ERROR_INTERNET_CANNOT_CONNECT},
      {"http://host.invalid/crl", ERROR_INTERNET_NAME_NOT_RESOLVED},
      {"https://127.0.0.1/", ERROR_INTERNET_INVALID_URL},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    bv::platform::http::Request request;
    request.url = c.url;
    request.max_response = c.max_response;
    request.timeout = std::chrono::milliseconds(300);
    bv::platform::http::Body body;
    SetLastError(0);
    EXPECT_EQ(bv::platform::http::fetch(request, body), c.error == 0);
    if (c.error == 0) {
      EXPECT_EQ(body->bytes(), "body");
    } else {
      EXPECT_EQ(GetLastError(), c.error);
    }
  }
}

}  // namespace
