// CertGetCertificateChain on GOST hierarchies made by the test and laid out
// in the store folders: every status bit the engine produces, the stores it
// takes anchors and intermediates from, and revocation as the flags ask.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "certs.h"
#include "crypt32/chain.h"
#include "crypt32/store.h"
#include "crypt32/revocation.h"
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
    stores.put("My", "end.cer", cert);
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
  for (DWORD flags : {0u, kExcludeRoot, CERT_CHAIN_REVOCATION_CHECK_END_CERT, CERT_CHAIN_REVOCATION_CHECK_CHAIN}) {
    SCOPED_TRACE(flags);
    const Chain chain = build(cert.get(), flags);
    EXPECT_EQ(chain.status(), 0u);
    EXPECT_EQ(chain.length(), 3u);
  }
  const Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.context->cChain, 1u);
  EXPECT_EQ(chain.context->cbSize, sizeof(CERT_CHAIN_CONTEXT));
  EXPECT_NE(chain.element(2)->TrustStatus.dwInfoStatus & CERT_TRUST_IS_SELF_SIGNED, 0u);
  EXPECT_NE(chain.element(0)->TrustStatus.dwInfoStatus & CERT_TRUST_HAS_KEY_MATCH_ISSUER, 0u);
  // Elements are the end certificate, its CA and the root, in that order.
  const CERT_CONTEXT* top = chain.element(2)->pCertContext;
  EXPECT_EQ(std::string(reinterpret_cast<char*>(top->pbCertEncoded), top->cbCertEncoded), der_of(root.get()));
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
  EXPECT_EQ(build(cert.get(), 0).status(), 0u);
}

TEST_F(ChainTest, IntermediateFromTheAdditionalOrTheOwnStore) {
  stores.put("Root", "root.cer", root.get());
  UniquePtr<X509> cert = end_cert();
  HCERTSTORE message = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
  const std::string ca_der = der_of(ca.get());
  ASSERT_TRUE(CertAddEncodedCertificateToStore(message, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(ca_der.data()),
                                               static_cast<DWORD>(ca_der.size()), CERT_STORE_ADD_ALWAYS, nullptr));
  EXPECT_EQ(build(cert.get(), 0).status(), CERT_TRUST_IS_PARTIAL_CHAIN);
  const Chain chain = build(cert.get(), 0, {.additional = message});
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

TEST_F(ChainTest, RootRevocationOnlyWhenTheWholeChainIsAsked) {
  install_hierarchy();
  install_crls();
  UniquePtr<X509> cert = end_cert();
  EXPECT_EQ(build(cert.get(), kExcludeRoot).status(), 0u);
  // The root's own CRL covers the root itself once it is asked for.
  EXPECT_EQ(build(cert.get(), CERT_CHAIN_REVOCATION_CHECK_CHAIN).status(), 0u);
  std::remove((stores.store("Root") + "/root.crl").c_str());
  bv::platform::forget_cached_stores();
  const Chain chain = build(cert.get(), CERT_CHAIN_REVOCATION_CHECK_CHAIN);
  EXPECT_EQ(chain.element_status(2), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
  EXPECT_EQ(chain.element_status(1), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
  EXPECT_EQ(build(cert.get(), kExcludeRoot).status(), CERT_TRUST_REVOCATION_STATUS_UNKNOWN);
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

}  // namespace
