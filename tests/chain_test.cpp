// CertGetCertificateChain on GOST hierarchies made by the test and laid out
// in the store folders: every status bit the engine produces, the stores it
// takes anchors and intermediates from, and revocation as the flags ask.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "certs.h"
#include "crypt32/chain.h"
#include "kernel32/kernel32.h"

namespace {

using namespace bv::test;

constexpr DWORD kExcludeRoot = CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT;

static_assert(offsetof(CERT_CHAIN_PARA, RequestedUsage) == 8);
static_assert(offsetof(CERT_CHAIN_CONTEXT, TrustStatus) == 4);
static_assert(offsetof(CERT_CHAIN_CONTEXT, rgpChain) == 16);
static_assert(offsetof(CERT_CHAIN_CONTEXT, ChainId) == 52);
static_assert(offsetof(CERT_SIMPLE_CHAIN, rgpElement) == 16);
static_assert(offsetof(CERT_CHAIN_ELEMENT, TrustStatus) == 16);
static_assert(offsetof(CERT_CHAIN_ELEMENT, pRevocationInfo) == 24);

struct Chain {
  BOOL ok = FALSE;
  DWORD last_error = 0;
  PCCERT_CHAIN_CONTEXT context = nullptr;
  std::shared_ptr<const CERT_CHAIN_CONTEXT> owner;  // frees the context with the last copy
  DWORD status() const { return context->TrustStatus.dwErrorStatus; }
  DWORD element_status(size_t i) const { return context->rgpChain[0]->rgpElement[i]->TrustStatus.dwErrorStatus; }
  DWORD element_info(size_t i) const { return context->rgpChain[0]->rgpElement[i]->TrustStatus.dwInfoStatus; }
  DWORD length() const { return context->rgpChain[0]->cElement; }
};

// Root -> CA -> end entity, each a GOST 2012-256 key; the stores get what a
// test puts there.
class ChainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_key = gost_key();
    ca_key = gost_key();
    end_key = gost_key();
    root = make_cert({.name = "Chain Root", .serial = 1, .not_before = -60 * kDay, .not_after = 10 * 365 * kDay, .ca = true},
                     root_key.get());
    ca = make_cert({.name = "Chain CA", .issuer = root.get(), .issuer_key = root_key.get(), .serial = 2,
                    .not_before = -60 * kDay, .ca = true},
                   ca_key.get());
  }

  UniquePtr<X509> end_cert(CertRequest request) {
    if (request.name.empty()) request.name = "Chain User";
    if (request.issuer == nullptr) {
      request.issuer = ca.get();
      request.issuer_key = ca_key.get();
    }
    if (request.serial == 1) request.serial = 0x100;
    return make_cert(request, end_key.get());
  }

  // Root in the user's Root store, the CA in the user's CA store.
  void install_hierarchy() {
    stores.put("Root", "root.cer", root.get());
    stores.put("CA", "ca.cer", ca.get());
  }
  // Current CRLs of both issuers, listing the given serials.
  void install_crls(const std::vector<long>& revoked_by_ca = {}, const std::vector<long>& revoked_by_root = {}) {
    stores.put("CA", "ca.crl", make_crl(ca.get(), ca_key.get(), revoked_by_ca).get());
    stores.put("Root", "root.crl", make_crl(root.get(), root_key.get(), revoked_by_root).get());
  }

  // The certificate as a context of the user's My store.
  PCCERT_CONTEXT in_my_store(X509* cert) {
    stores.put("My", "end.cer", cert);
    HCERTSTORE my = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, u"My");
    EXPECT_NE(my, nullptr);
    PCCERT_CONTEXT context = CertEnumCertificatesInStore(my, nullptr);
    CertCloseStore(my, 0);
    return context;
  }

  Chain build(X509* cert, DWORD flags, HCERTCHAINENGINE engine = nullptr, HCERTSTORE additional = nullptr,
              CERT_USAGE_MATCH usage = {}) {
    stores.put("My", "end.cer", cert);
    // Open while the chain is built, as a caller's store is.
    HCERTSTORE my = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, u"My");
    PCCERT_CONTEXT context = CertEnumCertificatesInStore(my, nullptr);
    Chain chain;
    CERT_CHAIN_PARA para{};
    para.cbSize = sizeof para;
    para.RequestedUsage = usage;
    chain.ok = CertGetCertificateChain(engine, context, nullptr, additional, &para, flags, nullptr, &chain.context);
    chain.last_error = GetLastError();
    chain.owner.reset(chain.context, CertFreeCertificateChain);
    CertFreeCertificateContext(context);
    CertCloseStore(my, 0);
    EXPECT_TRUE(chain.ok) << std::hex << chain.last_error;
    return chain;
  }

  StoreFolders stores;
  UniquePtr<EVP_PKEY> root_key, ca_key, end_key;
  UniquePtr<X509> root, ca;
};

TEST_F(ChainTest, GoodChainHasNoErrorAndItsThreeElements) {
  install_hierarchy();
  install_crls();
  UniquePtr<X509> cert = end_cert({});
  for (DWORD flags : {0u, kExcludeRoot, CERT_CHAIN_REVOCATION_CHECK_END_CERT, CERT_CHAIN_REVOCATION_CHECK_CHAIN}) {
    SCOPED_TRACE(flags);
    const Chain chain = build(cert.get(), flags);
    ASSERT_TRUE(chain.ok);
    EXPECT_EQ(chain.status(), 0u);
    ASSERT_EQ(chain.length(), 3u);
    EXPECT_EQ(chain.context->cChain, 1u);
    EXPECT_EQ(chain.context->cbSize, sizeof(CERT_CHAIN_CONTEXT));
    EXPECT_NE(chain.element_info(2) & CERT_TRUST_IS_SELF_SIGNED, 0u);
    EXPECT_NE(chain.element_info(0) & CERT_TRUST_HAS_KEY_MATCH_ISSUER, 0u);
    // Elements are the end certificate, its CA and the root, in that order.
    const CERT_CHAIN_ELEMENT* top = chain.context->rgpChain[0]->rgpElement[2];
    EXPECT_EQ(std::string(reinterpret_cast<char*>(top->pCertContext->pbCertEncoded), top->pCertContext->cbCertEncoded),
              der_of(root.get()));
  }
}

TEST_F(ChainTest, StatusBitsOfBadCertificates) {
  UniquePtr<EVP_PKEY> stranger_key = gost_key();
  UniquePtr<X509> stranger_root =
      make_cert({.name = "Stranger Root", .serial = 5, .ca = true}, stranger_key.get());
  UniquePtr<X509> not_a_ca = make_cert(
      {.name = "Chain CA", .issuer = root.get(), .issuer_key = root_key.get(), .serial = 2}, ca_key.get());
  struct Case {
    const char* name;
    CertRequest request;
    DWORD expected;        // the chain's error status, flags 0
    size_t element;        // where the bit sits
  };
  const Case cases[] = {
      {"expired", {.not_before = -30 * kDay, .not_after = -kDay}, CERT_TRUST_IS_NOT_TIME_VALID, 0},
      {"not yet valid", {.not_before = kDay, .not_after = 30 * kDay}, CERT_TRUST_IS_NOT_TIME_VALID, 0},
      {"bad signature", {.corrupt_signature = true}, CERT_TRUST_IS_NOT_SIGNATURE_VALID, 0},
      {"issued by an unknown root",
       {.issuer = stranger_root.get(), .issuer_key = stranger_key.get()},
       CERT_TRUST_IS_PARTIAL_CHAIN, 0},
  };
  install_hierarchy();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UniquePtr<X509> cert = end_cert(c.request);
    const Chain chain = build(cert.get(), 0);
    ASSERT_TRUE(chain.ok);
    EXPECT_EQ(chain.status(), c.expected) << std::hex << chain.status();
    if (c.expected != CERT_TRUST_IS_PARTIAL_CHAIN) {
      EXPECT_EQ(chain.element_status(c.element), c.expected);
    }
  }

  // The stranger's root known, but not as a trust anchor.
  stores.put("CA", "stranger.cer", stranger_root.get());
  UniquePtr<X509> cert = end_cert({.issuer = stranger_root.get(), .issuer_key = stranger_key.get()});
  Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_UNTRUSTED_ROOT);
  EXPECT_EQ(chain.element_status(1), CERT_TRUST_IS_UNTRUSTED_ROOT);

  // An issuer without the CA flag.
  stores.put("CA", "ca.cer", not_a_ca.get());
  bv::platform::forget_cached_stores();
  UniquePtr<X509> under_not_a_ca = end_cert({.issuer = not_a_ca.get(), .issuer_key = ca_key.get()});
  chain = build(under_not_a_ca.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_INVALID_BASIC_CONSTRAINTS) << std::hex << chain.status();
}

TEST_F(ChainTest, AnchorsAndIntermediatesComeFromTheirStores) {
  UniquePtr<X509> cert = end_cert({});
  // Nothing installed: the end certificate alone.
  Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_PARTIAL_CHAIN);
  EXPECT_EQ(chain.length(), 1u);

  // Root of the machine, CA of the machine: the user's engine sees both.
  stores.put("Root", "root.cer", root.get(), /*machine=*/true);
  stores.put("CA", "ca.cer", ca.get(), /*machine=*/true);
  chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), 0u);

  // A root in the user's store is no anchor for the machine's engine.
  StoreFolders fresh;
  fresh.put("Root", "root.cer", root.get());
  fresh.put("CA", "ca.cer", ca.get(), /*machine=*/true);
  fresh.put("My", "end.cer", cert.get());
  HCERTSTORE my = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, u"My");
  PCCERT_CONTEXT context = CertEnumCertificatesInStore(my, nullptr);
  CERT_CHAIN_PARA para{sizeof para, {}};
  PCCERT_CHAIN_CONTEXT machine_chain = nullptr;
  ASSERT_TRUE(CertGetCertificateChain(HCCE_LOCAL_MACHINE, context, nullptr, nullptr, &para, 0, nullptr, &machine_chain));
  EXPECT_EQ(machine_chain->TrustStatus.dwErrorStatus, CERT_TRUST_IS_PARTIAL_CHAIN);
  CertFreeCertificateChain(machine_chain);
  ASSERT_TRUE(CertGetCertificateChain(nullptr, context, nullptr, nullptr, &para, 0, nullptr, &machine_chain));
  EXPECT_EQ(machine_chain->TrustStatus.dwErrorStatus, 0u);
  CertFreeCertificateChain(machine_chain);
  CertFreeCertificateContext(context);
  CertCloseStore(my, 0);
}

TEST_F(ChainTest, IntermediateFromTheAdditionalOrTheOwnStore) {
  stores.put("Root", "root.cer", root.get());
  UniquePtr<X509> cert = end_cert({});
  HCERTSTORE message = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
  const std::string ca_der = der_of(ca.get());
  ASSERT_TRUE(CertAddEncodedCertificateToStore(message, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(ca_der.data()),
                                               static_cast<DWORD>(ca_der.size()), CERT_STORE_ADD_ALWAYS, nullptr));
  EXPECT_EQ(build(cert.get(), 0).status(), CERT_TRUST_IS_PARTIAL_CHAIN);
  const Chain chain = build(cert.get(), 0, nullptr, message);
  EXPECT_EQ(chain.status(), 0u);
  EXPECT_EQ(chain.length(), 3u);
  CertCloseStore(message, 0);
  // The certificate's own store serves as well, also when the CA store has
  // a certificate of the issuer's name with another key.
  UniquePtr<EVP_PKEY> other_key = gost_key();
  stores.put("CA", "impostor.cer",
             make_cert({.name = "Chain CA", .issuer = root.get(), .issuer_key = root_key.get(), .serial = 3, .ca = true},
                       other_key.get())
                 .get());
  stores.put("My", "zz-ca.cer", ca.get());
  EXPECT_EQ(build(cert.get(), 0).status(), 0u);
}

TEST_F(ChainTest, RevocationAsTheFlagsAsk) {
  install_hierarchy();
  UniquePtr<X509> cert = end_cert({});
  // The CA revoked by the root, the end certificate revoked by the CA.
  install_crls({0x100}, {2});
  struct Case {
    DWORD flags;
    DWORD end, intermediate;
  };
  const Case cases[] = {
      {0, 0, 0},
      {CERT_CHAIN_REVOCATION_CHECK_END_CERT, CERT_TRUST_IS_REVOKED, 0},
      {kExcludeRoot, CERT_TRUST_IS_REVOKED, CERT_TRUST_IS_REVOKED},
      {CERT_CHAIN_REVOCATION_CHECK_CHAIN, CERT_TRUST_IS_REVOKED, CERT_TRUST_IS_REVOKED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.flags);
    const Chain chain = build(cert.get(), c.flags);
    EXPECT_EQ(chain.element_status(0), c.end);
    EXPECT_EQ(chain.element_status(1), c.intermediate);
    EXPECT_EQ(chain.status(), c.end | c.intermediate);
    const PCERT_REVOCATION_INFO info = chain.context->rgpChain[0]->rgpElement[0]->pRevocationInfo;
    if (c.flags == 0) {
      EXPECT_EQ(info, nullptr);
    } else {
      ASSERT_NE(info, nullptr);
      EXPECT_EQ(info->dwRevocationResult, CRYPT_E_REVOKED);
    }
  }
}

TEST_F(ChainTest, RootRevocationOnlyWhenTheWholeChainIsAsked) {
  install_hierarchy();
  // Both issuers publish CRLs, but nobody publishes one for the root.
  stores.put("CA", "ca.crl", make_crl(ca.get(), ca_key.get(), {}).get());
  stores.put("Root", "root.crl", make_crl(root.get(), root_key.get(), {}).get());
  UniquePtr<X509> cert = end_cert({});
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
  stores.put("Root", "root.crl", make_crl(root.get(), root_key.get(), {}).get());
  HttpServer server;
  server.put("/ca.crl", der_of(make_crl(ca.get(), ca_key.get(), {}).get()));
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

TEST_F(ChainTest, RequestedUsageAgainstExtendedKeyUsage) {
  install_hierarchy();
  UniquePtr<X509> mail_only = end_cert({.extended_usage = "emailProtection"});
  UniquePtr<X509> no_extension = end_cert({});
  LPSTR email[] = {const_cast<LPSTR>(szOID_PKIX_KP_EMAIL_PROTECTION)};
  LPSTR client[] = {const_cast<LPSTR>(szOID_PKIX_KP_CLIENT_AUTH)};
  LPSTR both[] = {email[0], client[0]};
  struct Case {
    const char* name;
    X509* cert;
    CERT_USAGE_MATCH usage;
    DWORD expected;
  };
  const Case cases[] = {
      {"nothing asked", mail_only.get(), {}, 0},
      {"the usage it has", mail_only.get(), {USAGE_MATCH_TYPE_AND, {1, email}}, 0},
      {"a usage it lacks", mail_only.get(), {USAGE_MATCH_TYPE_AND, {1, client}}, CERT_TRUST_IS_NOT_VALID_FOR_USAGE},
      {"all of two", mail_only.get(), {USAGE_MATCH_TYPE_AND, {2, both}}, CERT_TRUST_IS_NOT_VALID_FOR_USAGE},
      {"one of two", mail_only.get(), {USAGE_MATCH_TYPE_OR, {2, both}}, 0},
      {"no extension allows all", no_extension.get(), {USAGE_MATCH_TYPE_AND, {1, client}}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(build(c.cert, 0, nullptr, nullptr, c.usage).status(), c.expected);
  }
}

TEST_F(ChainTest, DistrustedCertificate) {
  install_hierarchy();
  stores.put("Disallowed", "ca.cer", ca.get());
  UniquePtr<X509> cert = end_cert({});
  const Chain chain = build(cert.get(), 0);
  EXPECT_EQ(chain.status(), CERT_TRUST_IS_EXPLICIT_DISTRUST);
  EXPECT_EQ(chain.element_status(1), CERT_TRUST_IS_EXPLICIT_DISTRUST);
}

TEST_F(ChainTest, TimeOfTheCheck) {
  install_hierarchy();
  UniquePtr<X509> expired = end_cert({.not_before = -30 * kDay, .not_after = -kDay});
  PCCERT_CONTEXT context = in_my_store(expired.get());
  // Ten days ago it was valid.
  const uint64_t ticks = (static_cast<uint64_t>(std::time(nullptr) - 10 * kDay) * 10000000ull) + 116444736000000000ull;
  FILETIME then{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  CERT_CHAIN_PARA para{sizeof para, {}};
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  ASSERT_TRUE(CertGetCertificateChain(nullptr, context, &then, nullptr, &para, 0, nullptr, &chain));
  EXPECT_EQ(chain->TrustStatus.dwErrorStatus, 0u);
  CertFreeCertificateChain(chain);
  CertFreeCertificateContext(context);
}

}  // namespace
