// Finding a certificate in a store of 10, 1,000 and 10,000 certificates,
// by hash and by DN, as the signer search does it: open the store, find,
// close.  "Cold" reads the folder from disk each time; "Warm" finds the
// parsed folder in the cache, as every call after the first does.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "crypt32/cert.h"
#include "crypt32/store.h"
#include "identity/identity.h"
#include "openssl/ossl.h"

namespace {

// One store folder per size, made once: certificates with one GOST key and
// subjects "CN=Bench <i>, O=Bench", written as DER files.
struct BenchStores {
  std::string root;
  std::map<int, std::string> last_hash;  // size -> SHA-1 of the last certificate, as text

  BenchStores() {
    char pattern[] = "/tmp/bvsapssf-bench-XXXXXX";
    root = mkdtemp(pattern);
    setenv("BV_PLATFORM_LOCAL_APPDATA", root.c_str(), 1);
    bv::ossl::gost_engine();
    bv::ossl::UniquePtr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(NID_id_GostR3410_2012_256, bv::ossl::gost_engine()));
    EVP_PKEY_keygen_init(context.get());
    EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", "A");
    EVP_PKEY* raw = nullptr;
    EVP_PKEY_keygen(context.get(), &raw);
    bv::ossl::UniquePtr<EVP_PKEY> key(raw);
    const EVP_MD* md = bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256);
    for (int size : {10, 1000, 10000}) {
      const std::string folder = root + "/Brelvantec/Certificates/Bench" + std::to_string(size);
      std::filesystem::create_directories(folder);
      for (int i = 0; i < size; ++i) {
        bv::ossl::UniquePtr<X509> x509(X509_new());
        X509_set_version(x509.get(), 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), i + 1);
        X509_NAME* name = X509_get_subject_name(x509.get());
        const std::string cn = "Bench " + std::to_string(i);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
        X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("Bench"), -1, -1, 0);
        X509_set_issuer_name(x509.get(), name);
        X509_gmtime_adj(X509_getm_notBefore(x509.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(x509.get()), 86400L * 365);
        X509_set_pubkey(x509.get(), key.get());
        X509_sign(x509.get(), key.get(), md);
        char file[32];
        std::snprintf(file, sizeof file, "/%06d.cer", i);
        bv::ossl::UniquePtr<BIO> out(BIO_new_file((folder + file).c_str(), "wb"));
        i2d_X509_bio(out.get(), x509.get());
        if (i == size - 1) {
          unsigned char digest[20];
          unsigned int length = 0;
          X509_digest(x509.get(), EVP_sha1(), digest, &length);
          last_hash[size] = bytes_to_hex_string(digest, 20);
        }
      }
    }
  }
  ~BenchStores() { std::filesystem::remove_all(root); }
};

BenchStores& stores() {
  static BenchStores made;
  return made;
}

HCERTSTORE open_bench_store(int size) {
  const std::u16string name = u"Bench" + std::u16string(std::to_string(size).begin(), std::to_string(size).end());
  return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, 0x14004, name.c_str());
}

void find_by_hash(benchmark::State& state, bool cold) {
  const int size = static_cast<int>(state.range(0));
  const std::string& text = stores().last_hash[size];
  CRYPT_HASH_BLOB hash{0, nullptr};
  parse_CertHashID(text.data(), static_cast<int32_t>(text.size()), &hash);
  if (!cold) CertCloseStore(open_bench_store(size), 0);  // the first read, not timed
  for (auto _ : state) {
    if (cold) bv::platform::forget_cached_stores();
    HCERTSTORE store = open_bench_store(size);
    PCCERT_CONTEXT found = CertFindCertificateInStore(store, 65537, 0, CERT_FIND_SHA1_HASH, &hash, nullptr);
    if (found == nullptr) state.SkipWithError("not found");
    CertFreeCertificateContext(found);
    CertCloseStore(store, 0);
  }
  free(hash.pbData);
}

// As the DN search does it: every subject rendered, parsed and compared.
void find_by_dn(benchmark::State& state, bool cold) {
  const int size = static_cast<int>(state.range(0));
  const std::string wanted_text = "CN=Bench " + std::to_string(size - 1) + ", O=Bench";
  RdnList wanted;
  parse_dn_string(wanted_text.data(), static_cast<int32_t>(wanted_text.size()), wanted);
  if (!cold) CertCloseStore(open_bench_store(size), 0);  // the first read, not timed
  for (auto _ : state) {
    if (cold) bv::platform::forget_cached_stores();
    HCERTSTORE store = open_bench_store(size);
    PCCERT_CONTEXT context = nullptr;
    bool found = false;
    while (!found && (context = CertFindCertificateInStore(store, 65537, 0, CERT_FIND_ANY, nullptr, context))) {
      const DWORD length = CertNameToStrA(65537, &context->pCertInfo->Subject, CERT_OID_NAME_STR, nullptr, 0);
      std::string subject(length, '\0');
      CertNameToStrA(65537, &context->pCertInfo->Subject, CERT_OID_NAME_STR, subject.data(), length);
      RdnList have;
      found = parse_dn_string(subject.data(), static_cast<int32_t>(length), have) == 0 && dn_contains_all(wanted, have);
    }
    if (!found) state.SkipWithError("not found");
    CertFreeCertificateContext(context);
    CertCloseStore(store, 0);
  }
}

void BM_FindByHashCold(benchmark::State& state) { find_by_hash(state, true); }
void BM_FindByHashWarm(benchmark::State& state) { find_by_hash(state, false); }
void BM_FindByDnCold(benchmark::State& state) { find_by_dn(state, true); }
void BM_FindByDnWarm(benchmark::State& state) { find_by_dn(state, false); }

BENCHMARK(BM_FindByHashCold)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindByHashWarm)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindByDnCold)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindByDnWarm)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
